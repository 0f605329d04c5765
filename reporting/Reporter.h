#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "reporting/Endpoint.h"
#include "reporting/Export.h"
#include "reporting/Problem.h"
#include "reporting/Publication.h"

namespace orv::reporting {

struct ReporterOptions {
  std::string prefix = "orv/1";
  /// The time between two states of the reporter.
  std::chrono::milliseconds heartbeat = std::chrono::seconds(30);
  /// The shortest time between two whole trees of one root that collectors asked for.
  std::chrono::milliseconds treePause = std::chrono::seconds(10);
  /// How much memory the events may take that are kept for collectors which missed some, for all
  /// roots together, in bytes. A root's are up to 1.5 times the size of its tree, or `leastKept`.
  /// A root whose event does not fit any more lets go of its own, and is sent whole when somebody
  /// asks.
  std::size_t mostKept = 64'000'000;
  std::size_t leastKept = 4'000;
  /// What all random numbers follow from, for tests; otherwise the system's randomness.
  std::optional<std::uint64_t> seed;
};

/// What the user of a reporter is told. It must not call the reporter. What is empty is not called.
struct ReporterCallbacks {
  /// The broker has taken an event. The trees are the reporter's own, as the broker has them.
  std::function<void(const std::string& root, const Step& step)> published;
  /// Something is wrong. It is not told again while it stays the same.
  std::function<void(const Problem& problem)> problem;
};

/// Reports the trees of one process to every collector.
///
/// The caller keeps its trees, says which of them changed, and serves the connection. The reporter
/// looks at a tree only within `serve`. What changes while an event of a root is on its way, or
/// while there is no connection, goes out as one event later; nothing that lasts is lost. An event
/// that the broker refuses is made anew and tried again, after pauses that double from five seconds
/// to ten minutes. It then goes out alone, so that a broker that ends the connection with a
/// refusal, or in place of one, holds up no other root. A root that comes or goes is listed within
/// a second.
///
/// Every reporter of a fleet needs a name of its own, and every root one reporter. A second process
/// of the same name is told of, once; both go on.
///
/// One thread at a time uses a reporter and its trees. n is the number of devices of a tree.
class ORV_REPORTING_EXPORT Reporter final : public Endpoint {
 public:
  /// Totals since the start.
  struct Counters {
    std::uint64_t events = 0;    ///< that the broker took
    std::uint64_t trees = 0;     ///< those of them that hold a whole tree
    std::uint64_t resent = 0;    ///< events that went out once more, as a collector lacked them
    std::uint64_t refusals = 0;  ///< of events by the broker
    std::uint64_t requests = 0;  ///< of collectors
  };

  /// What a reporter has told of a root.
  struct View {
    Sequence sequence;  ///< of the last event that the broker took; n is 0 before the first
    bool isSettled;     ///< the broker has taken everything that was reported
    std::string
        reason;  ///< why it has not got the latest tree, for people; empty if nothing is wrong
  };

  /// Throws std::invalid_argument for an empty name and when a broker would not take the prefix.
  Reporter(std::string name, ReporterCallbacks callbacks, const ReporterOptions& options = {});

  ~Reporter() override;

  /// The tree is new or has changed. It is that of the root that its identifier names, from now on
  /// in place of the tree reported for that root before. O(log of the number of roots); the cost of
  /// `Sender::next` falls due in `serve`. Throws std::invalid_argument for no tree.
  ///
  /// A root that comes back while its removal is on its way goes on with its sequence.
  void report(const Tree& live);

  /// The root is gone: its tree is let go, receivers forget it. Does nothing for an unknown root.
  void remove(const std::string& root);

  /// Whether the broker has taken everything that was reported and removed. O(number of roots).
  bool isSettled() const noexcept;

  const Counters& counters() const noexcept;

  /// Nothing for a root that is unknown. O(log of the number of roots).
  std::optional<View> view(const std::string& root) const;

  std::optional<Message> connecting() override;
  void connected(Link& link, Time now) override;
  bool ending(Time now) override;
  void disconnected(Time now) override;
  void settled(std::uint64_t number, const std::string& refusal, Time now) override;
  void received(const Message& message, Time now) override;
  Time serve(Time now) override;

 private:
  class ORV_REPORTING_NO_EXPORT Core;
  std::unique_ptr<Core> core_;
};

}  // namespace orv::reporting
