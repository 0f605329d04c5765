#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "reporting/Endpoint.h"
#include "reporting/Export.h"
#include "reporting/Follower.h"
#include "reporting/Problem.h"
#include "reporting/Publication.h"
#include "reporting/Sequence.h"
#include "reporting/Topics.h"

namespace orv::reporting {

/// What a collector knows about the tree of a root.
enum class Condition : std::int32_t {
  CURRENT = 0,
  OUT_OF_DATE = 1,    ///< something is missing, or the collector itself is not connected
  REPORTER_GONE = 2,  ///< nobody reports it now: the tree is the last that arrived
  FORGOTTEN = 3,      ///< the root was removed, or its reporter lists it no longer
  AWAITED = 4         ///< a reporter lists it, and its tree has not arrived
};

struct CollectorOptions {
  std::string prefix = "orv/1";
  /// The partitions to follow, the last one included.
  unsigned int firstPartition = 0;
  unsigned int lastPartition = Topics::PARTITIONS - 1;
  /// Events of more bytes are refused: they take about 80 times their size while they are read.
  std::size_t mostBytes = 64'000'000;
  /// A reporter that was silent for so long is gone. Its heartbeat must be shorter.
  std::chrono::milliseconds silence = std::chrono::seconds(100);
  /// How long a reporter may be ahead of a tree before the events count as lost.
  std::chrono::milliseconds patience = std::chrono::seconds(5);
  /// Events that were missed are asked for within this time, spread at random. What is behind when
  /// a connection begins is asked for at once.
  std::chrono::milliseconds gapPause = std::chrono::milliseconds(100);
  /// A whole tree is asked for within this time, spread at random. The pauses after the first
  /// request, for events too, double from this one up to `longestPause`: where answers do not help,
  /// as they are too large or may not be read, others get them all the same.
  std::chrono::milliseconds firstPause = std::chrono::seconds(1);
  std::chrono::milliseconds longestPause = std::chrono::hours(1);
  /// So many roots are asked for at once, and trees of so many bytes as far as is known. What
  /// arrives makes room for the next. The answers have to fit into the broker's queue for a client.
  std::size_t mostAwaited = 500;
  std::size_t mostAwaitedBytes = 16'000'000;
  /// When a reporter or the connection comes or goes, about so many roots are looked at in one
  /// call. The others follow, as many in each call of `serve`, which returns `now` until all are
  /// done.
  std::size_t mostReviewed = 2000;
  /// What all random numbers follow from, for tests; otherwise the system's randomness.
  std::optional<std::uint64_t> seed;
};

/// What the user of a collector is told. It must not call the collector's own operations other than
/// the const ones. What is empty is not called.
struct CollectorCallbacks {
  /// An event was applied.
  std::function<void(const std::string& root, const Step& step)> applied;
  /// What is known about a root has changed. The first news of a root is never FORGOTTEN. Where a
  /// reporter or the connection comes or goes, the news of its roots follow in portions, as
  /// `CollectorOptions::mostReviewed` says. A state that did not last until then is not told.
  std::function<void(const std::string& root, Condition condition)> changed;
  /// Something is wrong. It is not told again while it stays the same.
  std::function<void(const Problem& problem)> problem;
};

/// Follows the trees of every reporter, or of a range of partitions.
///
/// Trees end up as their reporters have them, whatever is lost, doubled or reordered on the way.
/// Where something is missing, the last good tree stays and is said to be out of date. The
/// collector asks the reporter for the tree: with growing pauses, and a limited number at a time.
///
/// Of two reporters of one root the first one counts, as long as it is there and lists the root. Of
/// two processes of one name the later one counts.
///
/// One thread at a time uses a collector and its trees; treat the trees as constant.
class ORV_REPORTING_EXPORT Collector final : public Endpoint {
 public:
  /// Totals since the start.
  struct Counters {
    std::array<std::uint64_t, 4> outcomes{};  ///< events by Follower::Outcome
    std::uint64_t requests = 0;               ///< roots that were asked for
    std::uint64_t listRequests = 0;           ///< lists that were asked for
    std::uint64_t treeRequests = 0;           ///< those of them that were asked for whole
    std::uint64_t strangers = 0;              ///< messages that are none of the protocol's
  };

  /// How a start goes on: it is complete when no reporter is unheard and no root is AWAITED or
  /// OUT_OF_DATE.
  struct Census {
    std::array<std::size_t, 5> roots{};  ///< how many by Condition as told; none is FORGOTTEN
    std::size_t unheard = 0;  ///< reporters that may be there and were not heard on this connection
  };

  /// What a collector has of a root.
  struct View {
    Condition condition;
    Tree tree;  ///< empty while nothing has arrived
    Sequence sequence;
    std::string reporter;  ///< that lists it, or else that its last event names; empty for none
    /// Why the tree is out of date or has not arrived, in words for people; empty where the
    /// condition says it all.
    std::string reason;
  };

  /// Throws std::invalid_argument when a broker would not take the prefix, or for a range of
  /// partitions that has none.
  explicit Collector(CollectorCallbacks callbacks, const CollectorOptions& options = {});

  ~Collector() override;

  /// Begins with a tree that somebody has kept of an earlier collector, as it was after that event.
  /// Call it before the first connection. The tree is out of date until its reporter says where it
  /// is; what comes after the event is asked for. The tree is the collector's from then on. Throws
  /// std::invalid_argument for no tree, one that has another identifier, a sequence with an n of 0,
  /// and a root of another partition. O(log of the number of roots).
  void resume(const std::string& root, Tree tree, const Sequence& sequence);

  /// The identifiers of the roots that are not forgotten, in ascending byte order. O(their number).
  std::vector<std::string> roots() const;

  /// Nothing for a root that is unknown or forgotten. The condition is that of now, also where
  /// `changed` follows later; OUT_OF_DATE where what follows is FORGOTTEN. O(log of the number of
  /// roots).
  std::optional<View> view(const std::string& root) const;

  const Counters& counters() const noexcept;

  /// O(number of reporters).
  Census census() const noexcept;

  std::optional<Message> connecting() override;
  void connected(Link& link, Time now) override;
  void disconnected(Time now) override;
  void settled(std::uint64_t number, const std::string& refusal, Time now) override;
  void received(const Message& message, Time now) override;
  Time serve(Time now) override;

 private:
  class ORV_REPORTING_NO_EXPORT Core;
  std::unique_ptr<Core> core_;
};

}  // namespace orv::reporting
