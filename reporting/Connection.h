#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "reporting/Broker.h"
#include "reporting/Endpoint.h"
#include "reporting/Export.h"

namespace orv::reporting {

/// As whom to connect; empty for nobody, or without a password.
struct Credentials {
  std::string user;
  std::string password;
};

struct ConnectionOptions {
  /// The name by which the broker knows the client and its session. Empty for one drawn at random,
  /// which no other process has. Two processes of one name take the session from each other: the
  /// one that loses it goes on under a random name and says so.
  std::string clientName;
  /// How long the broker keeps the session, and queues for it, while there is no connection. A
  /// process that ends without order leaves it behind for so long. Below five seconds the broker
  /// publishes the will earlier.
  std::chrono::seconds sessionExpiry{30};
  /// Whether the session outlives the process: it goes on with what an earlier process of the same
  /// client name left, and the end of the connection leaves it to the next. For endpoints that only
  /// listen; a reporter would take what it said in its earlier life for another process of its
  /// name.
  bool outlivesProcess = false;
  /// The broker ends a connection on which it hears nothing for one and a half times as long. So a
  /// program that does something else for longer between two calls of `serve` loses it each time.
  /// From 5 to 65,535 seconds. A dead connection is noticed within twice that time.
  std::chrono::seconds keepAlive{15};
  /// Asked at each attempt to connect, in place of the broker's user and password: for those that
  /// change. It must not call the connection. What it throws passes through `serve`.
  std::function<Credentials()> credentials;
};

/// Connects one endpoint with an MQTT 5 broker, again and again.
///
/// Everything happens within `serve`, on the thread that calls it; but the C library looks names up
/// on a thread of its own. After a connection is lost or refused, it tries the next address of the
/// broker, and when it has tried all, again after a pause, drawn at random, that grows from half a
/// second to half a minute. An address that is not reached or does not answer within ten seconds
/// counts as refused, and a broker that acknowledges nothing for a minute as lost.
///
/// The first connection starts a session of its own at the broker, unless the options say
/// otherwise; later ones continue it. When a connection breaks, the broker waits for five seconds
/// before it publishes the will: a reporter that is back by then was never gone.
///
/// The endpoint must outlive the connection. One thread at a time uses both. A program with an
/// encrypted connection ignores SIGPIPE, which a broken one raises.
class ORV_REPORTING_EXPORT Connection {
 public:
  /// `log` gets a line for people when a connection is made, lost or cannot be made, and when the
  /// broker refuses a subscription. While connections come and go, it gets each line once, until
  /// one has lasted for ten seconds. Does not connect yet. Throws std::runtime_error when one of
  /// the broker's files cannot be read, and std::invalid_argument for a broker without an address,
  /// a certificate without its key, certificates without encryption, a password without a user and
  /// options that make no sense.
  Connection(const Broker& broker, Endpoint& endpoint, std::function<void(const std::string&)> log,
             const ConnectionOptions& options = {});

  /// Ends the connection in order: the endpoint's last words go out, or else what its will says.
  /// Waits up to a second until the broker has taken everything, and up to another one for the end
  /// to be written. The broker drops the session, unless that outlives the process. Then tells the
  /// endpoint that it is disconnected, so that another connection can serve it. What endpoint and
  /// `log` throw is dropped.
  ~Connection();

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Serves the connection for so long; with zero, does what can be done at once. A signal ends it
  /// early. Passes on what the endpoint, `log` and `credentials` throw, and std::bad_alloc; it can
  /// be called again then. Waits for nobody beyond the duration, also while it connects: neither
  /// for a name server, nor for an address that does not answer, nor for the encryption to begin.
  void serve(std::chrono::milliseconds duration);

  bool isConnected() const noexcept;

  /// For a program with a loop of its own, which waits until the descriptor can be read, or written
  /// if `wantsToWrite`, and at the latest until `due`. Then it calls `serve` with zero, as it does
  /// after it told the endpoint something. Ask anew before each wait: the descriptor changes; it is
  /// -1 while there is no connection. `due` is never in the past: when something is to be done, it
  /// is now, so compare it with the clock as it is afterwards. While there is a connection it is at
  /// most a second away, as the keep-alive needs it.
  int descriptor() const noexcept;
  bool wantsToWrite() const noexcept;
  Time due() const noexcept;

 private:
  class ORV_REPORTING_NO_EXPORT Client;
  std::unique_ptr<Client> client_;
};

}  // namespace orv::reporting
