// A conversation of an endpoint with its broker: each step stands in its place in time.
//
//   talk.connect().expect("state, tree 0-9").take("state").refuse("full");
//   talk.expect("The broker refuses 0-9: full").after(5s).expect("tree 0").cut();
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "reporting/Endpoint.h"

namespace wire {

using namespace orv::reporting;

class Conversation : private Link {
 public:
  explicit Conversation(Endpoint& endpoint) : endpoint_(&endpoint) {}

  Conversation& connect();
  Conversation& cut();
  // Meanwhile the endpoint is served when it wants to be.
  Conversation& after(std::chrono::milliseconds duration);
  // How long the endpoint need not be served.
  Time::duration pause() { return endpoint_->serve(now_) - now_; }
  Conversation& leave();  // in order, and without waiting for an answer
  Conversation& hear(const Message& message) { return hear(std::vector<Message>{message}); }
  Conversation& hear(const std::vector<Message>& messages);  // all at once

  // All that the endpoint has sent and told since the last time, with runs of numbers as "0-9".
  Conversation& expect(const std::string& text);

  // What the broker says to one message that has no answer yet, or else to all.
  Conversation& take(const std::string& which = "") { return answer(which, ""); }
  Conversation& refuse(const std::string& why, const std::string& which = "") {
    return answer(which, why);
  }

  // Expects each, and takes it.
  Conversation& takeEach(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) expect(text).take();
    return *this;
  }

  // From now on lists are told, and wait for an answer. Otherwise they are taken at once, and only
  // what they say is held back is told.
  Conversation& withLists() {
    showsLists_ = true;
    return *this;
  }

  // Notes what the endpoint tells its user.
  void tell(const std::string& line) { said_.push_back(line); }

  // From now on states are taken at once, and not told.
  Conversation& withoutStates() {
    hidesStates_ = true;
    return *this;
  }

  // In how much of what it has sent and told since the last `expect` a text stands, and the end of
  // that.
  int count(const std::string& text) const;
  Conversation& forget() {
    said_.clear();
    return *this;
  }

  std::uint64_t sent() const { return number_; }  // so many messages

  std::optional<Message> will;      // of the latest connection
  std::vector<std::string> topics;  // subscribed to
  Message last;                     // that it has sent, but for lists
  // The last state and lists, which it hears when it connects anew, in this order.
  std::map<std::string, Message, std::greater<>> kept;

 private:
  void subscribe(const std::vector<std::string>& filters, Kept /*kept*/) override {
    topics.insert(topics.end(), filters.begin(), filters.end());
  }
  std::uint64_t publish(const Message& message) override;
  Conversation& answer(const std::string& which, const std::string& refusal);

  Endpoint* endpoint_;
  Time now_{std::chrono::seconds(1000)};
  std::uint64_t number_ = 0;
  bool hidesStates_ = false;
  bool showsLists_ = false;
  std::deque<std::uint64_t> hidden_;                        // states and lists to be taken
  std::deque<std::pair<std::uint64_t, std::string>> open_;  // the messages without an answer
  std::vector<std::string> said_;
};

}  // namespace wire
