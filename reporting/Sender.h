#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "reporting/Endpoint.h"
#include "reporting/Export.h"
#include "reporting/Publication.h"
#include "reporting/Sequence.h"

namespace orv::reporting {

class Snapshot;

/// Decides which event of one root is published next.
///
/// At most one event is on its way. Until its fate is known, whatever changes in the live tree
/// waits; then it goes out as one event. A sender keeps the tree that the broker took last. It does
/// no input or output and reads no clock: the caller publishes, and says what became of it.
///
/// It also keeps the events that the broker took since the last whole tree, as bytes, for receivers
/// that missed some. Once they have more bytes than that tree, and than `leastBytes`, or up to half
/// as many again, drawn at random, the tree goes out again before the next change, as the broker
/// took it last. So at most as many bytes again are sent, and whoever starts from the whole tree
/// that the broker has kept can be sent all that came after it.
///
/// One thread at a time uses a sender and the live tree that it is given. n is the number of
/// devices.
class ORV_REPORTING_EXPORT Sender {
 public:
  /// Receivers cannot parse a tree of more levels.
  static constexpr unsigned int MOST_LEVELS = 98;

  /// `treePause` is the shortest time between two whole trees that were asked for.
  Sender(std::uint64_t epoch, std::chrono::milliseconds treePause, std::size_t leastBytes = 4'000);

  /// The next event on the way from what the broker took last to the live tree, empty for none. It
  /// is on its way from then on. Nullptr when there is nothing to say, when an event is on its way
  /// already, and when the live tree cannot be reported. `errorMessage` is emptied first and says
  /// in that last case why:
  /// - the tree has more than MOST_LEVELS levels;
  /// - a tree cannot be built from its message, and the text is that of `ApplyEvent`.
  ///
  /// O(n): a comparison, a look at the levels and, for a whole tree, its message and a copy.
  const Publication* next(const Tree& live, Time now, std::string& errorMessage);

  /// The event that is on its way, nullptr for none. After `interrupted` it is published again as
  /// it is.
  const Publication* onItsWay() const noexcept { return publication_ ? &*publication_ : nullptr; }

  /// Whether the event that `next` returned last is the tree that the broker took last, once more.
  /// What has changed since is still to be said.
  bool repeats() const noexcept { return repeats_; }

  /// The broker took the event that is on its way. Returns what that made of the tree that the
  /// broker had taken before; the trees belong to the sender. O(n).
  Step taken();
  /// The same for who wants no trees: returns the event. A sender whose caller never asks for trees
  /// keeps its own in less than half of the memory, and compares faster with it. O(size of the
  /// event).
  Event settle();

  /// The connection ended: the event that is on its way, if there is one, may have arrived.
  void interrupted() noexcept { mayHaveArrived_ = publication_.has_value(); }

  /// The broker did not take it. The next event covers what it said and has its number. If it may
  /// have arrived before an interruption, the next event is a DEVICE_ADD with the next number.
  void refused() noexcept;

  /// Begins a new epoch as if nothing had ever been published; nothing is on its way then.
  void restart(std::uint64_t epoch) noexcept;

  /// Somebody needs the whole tree: the next event is a DEVICE_ADD once the pause is over. Many
  /// requests until then are answered by one, or by any other event with the whole tree.
  void requestTree() noexcept { owesTree_ = true; }
  /// The broker has lost the tree: the next event is a DEVICE_ADD, without a pause.
  void renewTree() noexcept {
    owesTree_ = true;
    lastTree_.reset();
  }
  /// When that pause is over; empty when nobody has asked.
  std::optional<Time> treeDue() const noexcept;

  /// The last event that the broker took; n is 0 before the first.
  const Sequence& last() const noexcept { return last_; }

  /// The events that are kept, serialized, in their order. The last of them has the sequence
  /// `last()`.
  const std::vector<std::string>& kept() const noexcept { return kept_; }
  /// How many of them a receiver lacks that has come as far as `have`; nothing when that does not
  /// help it: some are not kept, or it is of another epoch.
  std::optional<std::size_t> lackedAfter(const Sequence& have) const noexcept;
  /// How much memory they take, in bytes.
  std::size_t keptBytes() const noexcept { return keptBytes_; }
  /// Keeps them no longer.
  void letGo() noexcept;

 private:
  ORV_REPORTING_NO_EXPORT void keep(const Event& event);

  Sequence last_;
  std::chrono::milliseconds treePause_;
  std::shared_ptr<Snapshot> snapshot_;  // empty for no tree
  std::optional<Publication> publication_;
  bool mayHaveArrived_ = false;
  std::shared_ptr<Snapshot> published_;  // of a publication with the whole tree: the next snapshot
  std::optional<Time> lastTree_;
  bool owesTree_ = false;
  bool repeats_ = false;
  std::size_t leastBytes_;
  std::size_t sinceTree_ = 0;   // bytes of the events after the last whole tree
  std::size_t outgrownAt_ = 0;  // as many are too many
  std::vector<std::string> kept_;
  std::size_t keptBytes_ = 0;
};

}  // namespace orv::reporting
