#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "history/Error.h"
#include "history/Export.h"
#include "history/Time.h"
#include "reporting/Publication.h"

namespace orv::history {

/// A root of which something is kept.
struct Root {
  std::string id;
  bool isThere = false;  ///< according to what was recorded last
  Time changed;          ///< when that was
  /// Empty, or what is damaged: then nothing else is known of the root, and its identifier is empty
  /// where that is damaged too.
  std::string damage;
};

/// The tree of a root at a time.
struct Moment {
  reporting::Tree tree;  ///< the caller's own; empty where the root was removed
  reporting::Sequence sequence;
  Time since;  ///< when the step was recorded that made the tree
  /// Up to here it was recorded that nothing else happened. It is earlier than the time that was
  /// asked for where nothing was recorded then: what happened in between nobody saw. For now it is
  /// up to some five seconds ago while a recorder is at work.
  Time seen;
};

/// Which part of a history is asked for, and in which order.
struct Question {
  std::string root;           ///< empty for all
  std::string device;         ///< this device of the root and what is below it; empty for all
  std::optional<Time> since;  ///< this time and later; empty for all that is kept
  std::optional<Time> until;  ///< before this time; empty for all up to now
  bool isNewestFirst = true;
  std::size_t most = 100;  ///< so many answers are enough
  /// Where the last answer ended, which was to the same question; empty for the beginning.
  std::string after;
};

/// One thing that happened.
struct Change {
  Time time;
  std::string root;    ///< empty for what concerns the history as a whole
  std::string device;  ///< the one that changed
  std::string text;    ///< a line in words that begins with the device
  std::string place;   ///< for `Question::after`
};

/// An event as it was recorded.
struct Recorded {
  Time time;
  std::string root;
  reporting::Sequence sequence;
  reporting::Event event;
  /// Steps before it were not recorded: the event has the whole tree after them, or says that the
  /// root was gone.
  bool isCaughtUp = false;
};

/// Answers in the order that was asked for. There can be fewer than were asked for, even none,
/// although there are more to come: one call looks at a limited part of the file.
template <typename Answer>
struct Page {
  std::vector<Answer> answers;
  std::string next;  ///< for `Question::after`; empty when that is all
};

/// The course of a number during a part of the time that was asked for.
struct Span {
  Time time;  ///< of the first value in it
  double smallest = 0;
  double largest = 0;
  double last = 0;
  bool isUnknown = false;  ///< at the end of it the value was not known
};

struct Course {
  std::vector<Span> spans;   ///< those without a value are left out
  std::optional<Time> next;  ///< ask again from here on; empty when that is all
};

/// Asks a history that a `Recorder` makes or has made.
///
/// Any number of readers in any threads and processes may ask one file, also while it is recorded.
/// They see what was committed. One thread at a time uses a reader; to open one costs about as much
/// as a question.
///
/// A time asks for what was recorded last at that time or before it. So where the clock was set
/// back, the later of two recordings counts.
///
/// Every operation throws Error when the file cannot be read or what is asked for is damaged: no
/// answer is made of damaged parts. All throw std::bad_alloc.
class ORV_HISTORY_EXPORT Reader final {
 public:
  /// Throws Error where there is no history in the file.
  explicit Reader(const std::string& file);
  ~Reader();
  Reader(Reader&&) noexcept;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  /// In ascending byte order, also those of which the last tree is damaged. Costs a look at the
  /// last tree of each.
  std::vector<Root> roots();

  /// The earliest time that can be asked for; nothing while nothing is recorded.
  std::optional<Time> oldest();

  /// Nothing where the root was not known at that time, or the time is earlier than what is kept.
  /// Costs to build the tree and to read the events since it was last recorded as a whole, which
  /// are at most about as long as the tree itself.
  std::optional<Moment> treeAt(const std::string& root, Time time);

  /// What changed, in words. Besides, from when to when nothing was recorded. Throws
  /// std::invalid_argument for a device without a root, and for a place that no answer named.
  Page<Change> changes(const Question& question);

  /// The same as events, which lead, applied one after the other, from the tree at `since` to that
  /// before `until`. The device of the question is ignored. Throws std::invalid_argument as
  /// `changes` does.
  Page<Recorded> events(const Question& question);

  /// The course of a numeric status of a device of a root. At most so many spans, all of the same
  /// length; the first one begins with the value at `since`. Throws std::invalid_argument for a
  /// status that is no number.
  Course values(const std::string& root, const std::string& device, const std::string& status,
                Time since, Time until, std::size_t most);

 private:
  class ORV_HISTORY_NO_EXPORT Core;
  std::unique_ptr<Core> core_;
};

}  // namespace orv::history
