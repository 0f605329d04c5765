#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reporting/Export.h"

namespace orv::reporting {

using Time = std::chrono::steady_clock::time_point;

/// What an endpoint and a broker send each other. It arrives once or more often, or not at all.
struct Message {
  std::string topic;
  std::string payload;
  /// Of a message to publish: the broker keeps it for those who subscribe later. Of one received:
  /// the broker had kept it.
  bool isRetained = false;
  /// The user properties `sequence` and `reporter`; empty for none.
  std::string sequence;
  std::string reporter;
  /// The broker drops the message after so long; zero for never.
  std::chrono::seconds expiry{0};
};

/// Which of the messages that the broker has kept a subscription brings.
enum class Kept : std::int32_t {
  ALWAYS = 0,
  ONCE = 1  ///< not where the broker's session goes on, which has them or has brought them
};

/// A live connection, as an endpoint sees it.
class ORV_REPORTING_EXPORT Link {
 public:
  virtual ~Link();

  /// Asks for the messages of these topics and for those that the broker has kept of them.
  virtual void subscribe(const std::vector<std::string>& topics, Kept kept) = 0;

  /// Returns the number by which the endpoint hears what became of the message.
  virtual std::uint64_t publish(const Message& message) = 0;
};

/// One side of the protocol: decides what is sent, and when, from what it is told. It does no input
/// or output and reads no clock. A `Connection` serves it, or a test does.
///
/// One thread at a time uses an endpoint and the trees that it knows.
class ORV_REPORTING_EXPORT Endpoint {
 public:
  virtual ~Endpoint();

  /// A connection will be attempted. Returns its will, the message that the broker publishes when
  /// the connection breaks.
  virtual std::optional<Message> connecting() = 0;

  /// The broker took the connection. `link` is good until `disconnected`.
  virtual void connected(Link& link, Time now) = 0;

  /// The connection is about to end in order, and the endpoint is served no more on it. Publishes
  /// what the endpoint has to say last and returns whether that takes the place of the will; if
  /// not, the connection publishes the will as the last message. Says nothing and returns false
  /// unless it is overridden.
  virtual bool ending(Time now);

  /// The connection is gone. What was published and not settled may have arrived.
  virtual void disconnected(Time now) = 0;

  /// The broker took the message of this number. Or it certainly did not: then `refusal` says why.
  virtual void settled(std::uint64_t number, const std::string& refusal, Time now) = 0;

  virtual void received(const Message& message, Time now) = 0;

  /// Does what is due and returns when it must be called again at the latest: not before `now`, and
  /// Time::max() for not until it is told something. Call it after everything else that the
  /// endpoint was told, also while there is no connection.
  virtual Time serve(Time now) = 0;
};

}  // namespace orv::reporting
