#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reporting/Export.h"
#include "reporting/Publication.h"
#include "reporting/Sequence.h"

namespace orv::reporting {

/// Keeps the tree of one root from the events that arrive, in whatever order and number.
///
/// The tree is always one that its sender had. Where something is missing, the last good tree
/// stays, and `isCurrent` says that it is out of date until that arrives after all, or a whole
/// tree.
///
/// Which of two epochs is the current one cannot be told from events. Those of an epoch that was
/// left for another one are old. But an old whole tree that arrives late looks like a new one. So
/// what the reporter itself said last decides: an epoch that it names is never old, and a tree of
/// another epoch is out of date.
///
/// It does no input or output and reads no clock. One thread at a time uses a follower and its
/// tree.
class ORV_REPORTING_EXPORT Follower {
 public:
  enum class Outcome : std::int32_t {
    APPLIED = 0,
    OLD = 1,     ///< dropped: it was applied already, or belongs to an epoch that was left
    GAP = 2,     ///< dropped: what comes before it is missing
    REFUSED = 3  ///< dropped: it breaks a rule
  };

  /// So many epochs that were left are remembered.
  static constexpr std::size_t MOST_EPOCHS_LEFT = 16;

  explicit Follower(std::string root);

  /// Whether an event of this sequence is dropped as old, whatever it holds. Costs next to nothing,
  /// so that what others asked for need not be read.
  bool isOld(const Sequence& sequence) const noexcept;

  /// Takes an event that arrived. What is not applied changes nothing in the tree. `errorMessage`
  /// is emptied first. On REFUSED it is the text of `ApplyEvent`, or says that the tree is that of
  /// another root. Costs what `ApplyEvent` costs. Throws std::bad_alloc.
  Outcome take(const Sequence& sequence, const Event& event, std::string& errorMessage);

  /// The reporter of the root says which event of which epoch was its last one. If an event with a
  /// higher n has arrived but could not be applied, it is no longer missed. Either the reporter
  /// never made it, or it will arrive once more.
  ///
  /// A word of now, and not one that was kept, can be one event behind what has arrived: that one
  /// was on its way when it was said. If it is further behind, or twice in a row while nothing
  /// arrives, the reporter knows nothing of the tree, as after it was set back in time. The tree is
  /// out of date then.
  void reported(const Sequence& latest, bool isOfNow) noexcept;

  /// What the reporter spoke of last is missing, and not on its way.
  void miss() noexcept;

  /// The reporter uses numbers again: the tree stays, and only a whole tree is right.
  void distrust() noexcept;

  /// Begins with a tree that somebody has kept, as it was after that event.
  void resume(Tree tree, const Sequence& sequence);

  /// Whether the events that come after `sequence` make the tree current. Otherwise only a whole
  /// tree does.
  bool canCatchUp() const noexcept;

  /// The root is gone: lets the tree go. What still arrives of its epoch is old.
  void forget();

  /// Whether an event was applied and nothing says that the tree is out of date. Without a tree:
  /// whether the root was removed.
  bool isCurrent() const noexcept;

  /// Whether the reporter's last word is ahead of the tree. The events may be on their way.
  bool isBehind() const noexcept;

  /// Empty for none. The object stays the same until a whole tree arrives.
  const Tree& tree() const noexcept { return tree_; }

  /// Whether the reporter says that it has published nothing yet. Its first event is a whole tree.
  bool isAwaited() const noexcept { return reported_ && reported_->n == 0; }

  /// The last event applied; n is 0 for none.
  const Sequence& sequence() const noexcept { return sequence_; }

 private:
  ORV_REPORTING_NO_EXPORT bool isOfEpoch(const Sequence& other) const noexcept;
  ORV_REPORTING_NO_EXPORT bool isLeft(std::uint64_t epoch) const noexcept;
  ORV_REPORTING_NO_EXPORT void leaveEpoch();

  std::string root_;
  Tree tree_;
  Sequence sequence_;
  std::uint64_t highest_ = 0;  // n of the epoch's events that arrived and could not be applied then
  bool isLost_ = false;
  std::uint64_t doubted_ =
      0;  // n of the tree when the reporter's word was behind it; 0: it was not
  std::optional<Sequence> reported_;
  std::vector<std::uint64_t> left_;
};

}  // namespace orv::reporting
