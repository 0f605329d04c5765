#include "tests/reporting/Conversation.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Publication.h"
#include "reporting/Topics.h"

namespace wire {

namespace {

std::string textOf(const Message& message) {
  const Topics topics("orv/1");
  if (const auto root = topics.rootOf(message.topic)) {
    Event event;
    event.ParseFromString(message.payload);
    if (message.payload.empty()) return "no tree " + *root;
    if (event.event_type() == Event::DEVICE_REMOVE) return "removal " + *root;
    return (isWholeTree(event) ? "tree " : "change ") + *root;
  }
  if (topics.reporterOf(message.topic)) {
    orv::proto::monitoring::ReporterState state;
    state.ParseFromString(message.payload);
    return state.online() ? "state" : "farewell";
  }
  if (topics.listOf(message.topic)) {
    orv::proto::monitoring::RootList list;
    list.ParseFromString(message.payload);
    std::string text = message.payload.empty() ? "no list" : "list";
    for (const auto& root : list.roots()) {
      text += " " + root.root();
      if (root.has_held_back()) text += " held back: " + root.held_back();
    }
    return text;
  }
  std::string text = "ask " + message.topic.substr(message.topic.rfind('/') + 1);
  orv::proto::monitoring::TreeRequest request;
  request.ParseFromString(message.payload);
  for (const std::string& root : request.roots()) text += " " + root;
  for (const unsigned int part : request.parts()) text += " part " + std::to_string(part);
  for (const auto& have : request.have()) {
    text += " " + have.root() + " after " + std::to_string(have.n());
  }
  return text;
}

// Lines that differ in their first number alone, which grows by one, become one line.
std::string join(const std::vector<std::string>& lines) {
  std::string text;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::string& line = lines[i];
    const std::size_t begin = std::min(line.find_first_of("0123456789"), line.size());
    const std::size_t end = std::min(line.find_first_not_of("0123456789", begin), line.size());
    const auto withNumber = [&](std::size_t more) {
      return line.substr(0, begin) + std::to_string(std::stoul(line.substr(begin)) + more) +
             line.substr(end);
    };
    std::size_t more = 0;
    while (begin < end && i + 1 < lines.size() && lines[i + 1] == withNumber(more + 1)) ++more, ++i;
    if (!text.empty()) text += ", ";
    text += line.substr(0, end);
    if (more > 0) text += "-" + std::to_string(std::stoul(line.substr(begin)) + more);
    text += line.substr(end);
  }
  return text;
}

}  // namespace

Conversation& Conversation::connect() {
  will = endpoint_->connecting();
  topics.clear();
  endpoint_->connected(*this, now_);
  for (const auto& [topic, message] : decltype(kept)(kept)) endpoint_->received(message, now_);
  return after({});
}

Conversation& Conversation::cut() {
  open_.clear();
  endpoint_->disconnected(now_);
  return after({});
}

Conversation& Conversation::leave() {
  EXPECT_TRUE(endpoint_->ending(now_));
  return *this;
}

Conversation& Conversation::after(std::chrono::milliseconds duration) {
  const Time end = now_ + duration;
  for (Time due = endpoint_->serve(now_); due <= now_ || now_ < end; due = endpoint_->serve(now_)) {
    if (due > now_) now_ = std::min(end, std::max(due, now_ + std::chrono::milliseconds(1)));
  }
  while (!hidden_.empty()) {
    const std::uint64_t number = hidden_.front();
    hidden_.pop_front();
    endpoint_->settled(number, "", now_);
    endpoint_->serve(now_);
  }
  return *this;
}

Conversation& Conversation::hear(const std::vector<Message>& messages) {
  for (const Message& message : messages) endpoint_->received(message, now_);
  return after({});
}

Conversation& Conversation::expect(const std::string& text) {
  after({});
  EXPECT_EQ(join(std::exchange(said_, {})), text);
  return *this;
}

std::uint64_t Conversation::publish(const Message& message) {
  const Topics known("orv/1");
  const bool isState = known.reporterOf(message.topic).has_value();
  const bool isList = known.listOf(message.topic).has_value();
  if (message.isRetained && (isState || isList)) kept[message.topic] = message;
  const std::string text = textOf(message);
  if (!isList) last = message;
  const bool isHidden = (isList && !showsLists_) || (isState && hidesStates_);
  const bool isHeldBack = isList && !hidesStates_ && text.find("held back") != std::string::npos;
  if (!isHidden || isHeldBack) said_.push_back(text);
  if (isHidden) {
    hidden_.push_back(++number_);
  } else {
    open_.emplace_back(++number_, text);
  }
  return number_;
}

int Conversation::count(const std::string& text) const {
  return static_cast<int>(std::count_if(said_.begin(), said_.end(), [&](const std::string& said) {
    return said.find(text) != std::string::npos;
  }));
}

Conversation& Conversation::answer(const std::string& which, const std::string& refusal) {
  for (const auto& [number, text] : std::exchange(open_, {})) {
    if (which.empty() || which == text) {
      endpoint_->settled(number, refusal, now_);
    } else {
      open_.emplace_back(number, text);
    }
  }
  return after({});
}

}  // namespace wire
