// A broker in memory and the wire to it, on which nothing moves unless it is told to.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "reporting/Endpoint.h"

namespace wire {

using namespace orv::reporting;

// What a process has with the broker: a connection, now and then, and a session.
struct Side : Link {
  void subscribe(const std::vector<std::string>& filters) override;
  int publish(const Message& message) override;
  void arrive(const Message& message);

  Endpoint* endpoint = nullptr;
  const std::map<std::string, Message>* retained = nullptr;
  bool isConnected = false;
  std::optional<Message> will;
  std::vector<std::string> topics;
  std::deque<std::pair<int, Message>> up;
  std::deque<Message> down;
  int number = 0;
};

class Wire {
 public:
  Wire();

  // A process begins in place of the one before.
  void start(Side& side, Endpoint& endpoint);
  void connect(Side& side);
  // The connection breaks. So many of the messages that are up still arrive; the will comes later.
  void cut(Side& side, std::size_t arriving, bool isTold);
  void publishWill();

  void takeUp(Side& side, std::size_t at, bool isAnswered);
  void refuse(Side& side);
  void takeDown(Side& side, std::size_t at, bool stays);
  void loseDown(Side& side, std::size_t at);

  // The broker starts again and has lost everything.
  void forget();

  // Delivers everything for so long, until all are quiet.
  void calmDown(std::chrono::seconds duration);

  std::array<Side, 3> sides;
  Time now{std::chrono::seconds(1000)};
  std::deque<Message> wills;

 private:
  void accept(const Message& message);

  std::map<std::string, Message> retained_;
};

}  // namespace wire
