#include "tests/reporting/Wire.h"

#include <algorithm>

namespace wire {

void Side::subscribe(const std::vector<std::string>& filters) {
  topics = filters;
  for (const auto& [topic, message] : *retained) arrive(message);
}

int Side::publish(const Message& message) {
  up.emplace_back(++number, message);
  return number;
}

void Side::arrive(const Message& message) {
  for (const std::string& filter : topics) {
    const std::size_t wild = std::min(filter.find('+'), filter.size());
    if (message.topic.compare(0, wild, filter, 0, wild) == 0) down.push_back(message);
  }
}

Wire::Wire() {
  for (Side& side : sides) side.retained = &retained_;
}

void Wire::start(Side& side, Endpoint& endpoint) {
  side.endpoint = &endpoint;
  side.topics.clear();
  side.down.clear();
}

void Wire::connect(Side& side) {
  side.will = side.endpoint->connecting();
  side.isConnected = true;
  side.endpoint->connected(side, now);
}

void Wire::cut(Side& side, std::size_t arriving, bool isTold) {
  while (arriving-- > 0) takeUp(side, 0, false);
  side.up.clear();
  if (side.isConnected && side.will) wills.push_back(*side.will);
  if (side.isConnected && isTold) side.endpoint->disconnected(now);
  side.isConnected = false;
}

void Wire::publishWill() {
  accept(wills.front());
  wills.pop_front();
}

void Wire::takeUp(Side& side, std::size_t at, bool isAnswered) {
  const auto [number, message] = side.up.at(at);
  side.up.erase(side.up.begin() + static_cast<std::ptrdiff_t>(at));
  accept(message);
  if (isAnswered) side.endpoint->settled(number, "", now);
}

void Wire::refuse(Side& side) {
  side.endpoint->settled(side.up.front().first, "not now", now);
  side.up.pop_front();
}

void Wire::takeDown(Side& side, std::size_t at, bool stays) {
  const Message message = side.down.at(at);
  if (!stays) loseDown(side, at);
  side.endpoint->received(message, now);
}

void Wire::loseDown(Side& side, std::size_t at) {
  side.down.erase(side.down.begin() + static_cast<std::ptrdiff_t>(at));
}

void Wire::forget() {
  retained_.clear();
  wills.clear();
  for (Side& side : sides) side.down.clear();
}

void Wire::calmDown(std::chrono::seconds duration) {
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

void Wire::accept(const Message& message) {
  if (message.isRetained) {
    retained_[message.topic] = message;
    if (message.payload.empty()) retained_.erase(message.topic);
  }
  Message passedOn = message;
  passedOn.isRetained = false;
  for (Side& side : sides) side.arrive(passedOn);
}

}  // namespace wire
