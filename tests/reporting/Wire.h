// A broker in memory and the wire to it, on which nothing moves unless it is told to.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "reporting/Endpoint.h"

namespace wire {

using namespace orv::reporting;

// Levels of a filter that are + stand for any one level.
inline bool matches(const std::string& filter, const std::string& topic) {
  std::size_t at = 0;
  for (const char character : filter) {
    if (character == '+') {
      at = std::min(topic.find('/', at), topic.size());
    } else if (at == topic.size() || topic[at++] != character) {
      return false;
    }
  }
  return at == topic.size();
}

// What a process has with the broker: a connection, now and then, and a session.
struct Side : Link {
  void subscribe(const std::vector<std::string>& filters, Kept kept) override {
    for (const std::string& filter : filters) {
      if (!topics.insert(filter).second && kept == Kept::ONCE) continue;
      for (const auto& [topic, message] : *retained) arrive(filter, message);
    }
  }
  std::uint64_t publish(const Message& message) override {
    up.emplace_back(++number, message);
    return number;
  }
  void arrive(const Message& message) {
    for (const std::string& filter : topics) arrive(filter, message);
  }
  void arrive(const std::string& filter, const Message& message) {
    if (isBlind && message.topic.find("/event/") != std::string::npos) return;
    if (matches(filter, message.topic)) down.push_back(message);
  }

  Endpoint* endpoint = nullptr;
  const std::map<std::string, Message>* retained = nullptr;
  bool isConnected = false;
  bool isBlind = false;  // may not read events
  std::optional<Message> will;
  std::set<std::string> topics;  // of its session
  std::deque<std::pair<std::uint64_t, Message>> up;
  std::deque<Message> down;
  std::uint64_t number = 0;
};

struct Wire {
  Wire() {
    for (Side& side : sides) side.retained = &retained;
  }

  // A process begins in place of the one before.
  void begin(Side& side, Endpoint& endpoint) {
    side.endpoint = &endpoint;
    side.topics.clear();
    side.down.clear();
  }
  void connect(Side& side) {
    side.will = side.endpoint->connecting();
    side.isConnected = true;
    side.endpoint->connected(side, now);
  }
  // The connection breaks. So many of the messages that are up still arrive; the will comes later.
  void cut(Side& side, std::size_t arriving) {
    while (arriving-- > 0) takeUp(side, 0, false);
    side.up.clear();
    if (side.isConnected && side.will) wills.push_back(*side.will);
    side.isConnected = false;
  }

  // The broker takes a message.
  void accept(const Message& message) {
    if (message.isRetained) {
      retained[message.topic] = message;
      if (message.payload.empty()) retained.erase(message.topic);
    }
    Message passedOn = message;
    passedOn.isRetained = false;
    for (Side& side : sides) side.arrive(passedOn);
  }
  void takeUp(Side& side, std::size_t at, bool isAnswered) {
    const auto [number, message] = side.up.at(at);
    side.up.erase(side.up.begin() + static_cast<std::ptrdiff_t>(at));
    const bool isRefused = refused.count(message.topic) > 0;
    if (!isRefused) accept(message);
    if (isAnswered) side.endpoint->settled(number, isRefused ? "no" : "", now);
  }
  void refuse(Side& side) {
    side.endpoint->settled(side.up.front().first, "not now", now);
    side.up.pop_front();
  }
  void takeDown(Side& side, std::size_t at, bool stays) {
    const Message message = side.down.at(at);
    if (!stays) loseDown(side, at);
    side.endpoint->received(message, now);
  }
  void loseDown(Side& side, std::size_t at) {
    side.down.erase(side.down.begin() + static_cast<std::ptrdiff_t>(at));
  }
  void publishWill() {
    accept(wills.front());
    wills.pop_front();
  }

  // From here on the wire is good: delivers everything for so long, until all are quiet.
  void calmDown(std::chrono::seconds duration) {
    for (const Time end = now + duration; now < end; now += std::chrono::seconds(5)) {
      for (Side& side : sides) {
        if (!side.isConnected) connect(side);
      }
      while (!wills.empty()) publishWill();
      for (bool isQuiet = false; !isQuiet;) {
        isQuiet = true;
        for (Side& side : sides) {
          isQuiet = isQuiet && side.up.empty() && side.down.empty();
          while (!side.up.empty()) takeUp(side, 0, true);
          while (!side.down.empty()) takeDown(side, 0, false);
          side.endpoint->serve(now);
        }
      }
    }
  }

  Time now{std::chrono::seconds(1000)};
  std::array<Side, 3> sides;
  std::map<std::string, Message> retained;
  std::set<std::string> refused;  // topics of which the broker takes nothing
  std::deque<Message> wills;
};

}  // namespace wire
