#pragma once

#include <algorithm>
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

/// A broker in memory and the wires to it, for tests of what reports or collects.
///
/// Nothing moves unless it is told to, and time stands still between two calls, so that every run
/// is the same. `calmDown` moves everything, as on a good network; the other operations lose,
/// double, delay and reorder single messages. Header only. It keeps the rules of MQTT that matter
/// here: messages that are retained, sessions, wills, answers. It has no limits.
///
///     Wire wire(2);
///     wire.begin(wire.ends[0], reporter);
///     wire.begin(wire.ends[1], collector);
///     reporter.report(live);
///     wire.calmDown(std::chrono::seconds(10));
///     // collector.view("plant") is CURRENT now
///
/// The endpoints belong to the caller and outlive their place in it. One thread at a time.
namespace orv::reporting {

/// Whether a broker delivers the topic to who has subscribed to the filter; a level of it that is
/// `+` stands for any one level.
inline bool isTopicOf(const std::string& filter, const std::string& topic) {
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

/// What a process has with the broker: a connection, now and then, and a session.
struct WireEnd final : Link {
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
    if (isTopicOf(filter, message.topic) && mayRead(message.topic)) down.push_back(message);
  }
  bool mayRead(const std::string& topic) const {
    const auto covers = [&topic](const std::string& filter) { return isTopicOf(filter, topic); };
    return std::none_of(denied.begin(), denied.end(), covers);
  }

  Endpoint* endpoint = nullptr;
  const std::map<std::string, Message>* retained = nullptr;  ///< that of the broker
  bool isConnected = false;
  std::set<std::string> denied;  ///< filters of what it may not read; the broker does not say so
  std::optional<Message> will;   ///< of its connection
  std::set<std::string> topics;  ///< of its session
  std::deque<std::pair<std::uint64_t, Message>> up;  ///< sent, and not at the broker yet
  std::deque<Message> down;  ///< sent by the broker, also while there is no connection
  std::uint64_t number = 0;  ///< of the last message sent
};

struct Wire {
  explicit Wire(std::size_t count) : ends(count) {
    for (WireEnd& end : ends) end.retained = &retained;
  }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  /// A process begins in place of the one before. Its session is new.
  void begin(WireEnd& end, Endpoint& endpoint) {
    end.endpoint = &endpoint;
    end.topics.clear();
    end.down.clear();
  }
  void connect(WireEnd& end) {
    end.will = end.endpoint->connecting();
    end.isConnected = true;
    end.endpoint->connected(end, now);
  }
  /// The connection breaks. So many of the messages that are up still arrive; the will comes later.
  /// The endpoint does not know yet.
  void cut(WireEnd& end, std::size_t arriving) {
    while (arriving-- > 0) takeUp(end, 0, false);
    end.up.clear();
    if (end.isConnected && end.will) wills.push_back(*end.will);
    end.isConnected = false;
  }
  /// The process ends its connection in order: what is up arrives, and if it has had its last word
  /// there is no will.
  void leave(WireEnd& end) {
    if (end.isConnected && end.endpoint->ending(now)) end.will.reset();
    cut(end, end.up.size());
  }

  /// The broker takes a message, from whomever.
  void accept(const Message& message) {
    if (message.isRetained) {
      retained[message.topic] = message;
      if (message.payload.empty()) retained.erase(message.topic);
    }
    Message passedOn = message;
    passedOn.isRetained = false;
    for (WireEnd& end : ends) end.arrive(passedOn);
  }
  /// The broker gets one of the messages that are up, and takes or refuses it.
  void takeUp(WireEnd& end, std::size_t at, bool isAnswered) {
    const auto [number, message] = end.up.at(at);
    end.up.erase(end.up.begin() + static_cast<std::ptrdiff_t>(at));
    const bool isRefused = refused.count(message.topic) > 0;
    if (!isRefused) accept(message);
    if (isAnswered) end.endpoint->settled(number, isRefused ? "no" : "", now);
  }
  /// The broker refuses the first message that is up.
  void refuse(WireEnd& end) {
    end.endpoint->settled(end.up.front().first, "not now", now);
    end.up.pop_front();
  }
  /// The process gets one of the messages that are down; if it stays, it will come once more.
  void takeDown(WireEnd& end, std::size_t at, bool stays) {
    const Message message = end.down.at(at);
    if (!stays) loseDown(end, at);
    end.endpoint->received(message, now);
  }
  void loseDown(WireEnd& end, std::size_t at) {
    end.down.erase(end.down.begin() + static_cast<std::ptrdiff_t>(at));
  }
  void publishWill() {
    accept(wills.front());
    wills.pop_front();
  }

  /// From here on the wire is good for so long, which is rounded up to whole steps: everybody
  /// connects, and everything is delivered until all are quiet, at each step.
  void calmDown(std::chrono::milliseconds duration,
                std::chrono::milliseconds step = std::chrono::seconds(5)) {
    for (const Time last = now + duration; now < last; now += step) {
      for (WireEnd& end : ends) {
        if (!end.isConnected) connect(end);
      }
      while (!wills.empty()) publishWill();
      for (bool isQuiet = false; !isQuiet;) {
        isQuiet = true;
        for (WireEnd& end : ends) {
          isQuiet = isQuiet && end.up.empty() && end.down.empty();
          while (!end.up.empty()) takeUp(end, 0, true);
          while (!end.down.empty()) takeDown(end, 0, false);
          end.endpoint->serve(now);
        }
      }
    }
  }

  Time now{std::chrono::seconds(1000)};
  std::vector<WireEnd> ends;
  std::map<std::string, Message> retained;  ///< by topic
  std::set<std::string> refused;            ///< topics of which the broker takes nothing
  std::deque<Message> wills;                ///< of connections that broke, not published yet
};

}  // namespace orv::reporting
