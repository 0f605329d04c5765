#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "reporting/Broker.h"
#include "reporting/Endpoint.h"
#include "reporting/Export.h"

namespace orv::reporting {

/// Connects one endpoint with an MQTT 5 broker, again and again.
///
/// It starts no thread: everything happens within `serve`, on the thread that calls it. After a
/// connection is lost or refused, it tries again after a pause, drawn at random, that grows from
/// half a second to half a minute. A broker that acknowledges nothing for a minute counts as lost.
///
/// The first connection starts a session of its own at the broker. Later ones continue it, and the
/// broker keeps it for ten minutes without a connection.
///
/// The endpoint must outlive the connection. One thread at a time uses both. A program with an
/// encrypted connection ignores SIGPIPE, which a broken one raises.
class ORV_REPORTING_EXPORT Connection {
 public:
  /// `log` gets a line for people when a connection is made, lost or cannot be made, and when the
  /// broker refuses a subscription. It gets the same line once in a row. Does not connect yet.
  /// Throws std::runtime_error when one of the broker's files cannot be read, and
  /// std::invalid_argument for a certificate without its key, for certificates without encryption
  /// and for a password without a user.
  Connection(const Broker& broker, Endpoint& endpoint, std::function<void(const std::string&)> log);

  /// Ends the connection in order: hears the endpoint's last words, then disconnects; the broker
  /// drops the session, and publishes the will if there were no last words. Waits up to a second
  /// until the broker has taken everything, and up to another one for the end to be written. Then
  /// tells the endpoint that it is disconnected, so that another connection can serve it. What
  /// endpoint and `log` throw is dropped.
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Serves the connection for so long; with zero, does what can be done at once. A signal ends it
  /// early. Passes on what the endpoint and `log` throw, and std::bad_alloc; it can be called
  /// again then.
  ///
  /// While it connects it blocks: looking up the host and reaching it take as long as the system
  /// makes them. With an address that nobody answers for, that can be two minutes.
  void serve(std::chrono::milliseconds duration);

  bool isConnected() const noexcept;

  /// For a program with a loop of its own, which waits until the descriptor can be read, or written
  /// if `wantsToWrite`, and at the latest until `due`. Then it calls `serve` with zero, as it does
  /// after it told the endpoint something. Ask anew before each wait: the descriptor changes; it is
  /// -1 while there is no connection. `due` is never in the past: when something is to be done, it
  /// is now. While there is a connection it is at most a second away, as the keep-alive needs it.
  int descriptor() const noexcept;
  bool wantsToWrite() const noexcept;
  Time due() const noexcept;

 private:
  class ORV_REPORTING_NO_EXPORT Client;
  std::unique_ptr<Client> client_;
};

}  // namespace orv::reporting
