#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "history/Export.h"
#include "history/Time.h"
#include "reporting/Publication.h"

namespace orv::history {

struct RecorderOptions {
  /// What is older is let go, once the clock has gone on without a jump for an hour; zero keeps
  /// everything.
  std::chrono::seconds keepAge{0};
  /// The oldest is let go where the file would become larger; 0 lets it grow. The trees of all
  /// roots, which have to stay, can need more.
  std::uint64_t keepBytes = 0;
  /// After a failure it is tried again so often.
  std::chrono::milliseconds retryPause = std::chrono::seconds(10);
  /// The time that is recorded; empty for the system's clock.
  std::function<Time()> clock;
  /// Something is wrong, or is well again, in a line for people. It must not call the recorder.
  std::function<void(const std::string& problem)> problem;
};

/// Records in a file what happens to the trees of a collector, for `Reader` to ask for.
///
/// A file has one recorder at a time, in whatever process. Readers are never in its way.
///
/// A recorder never fails and never ends its user. Where the file cannot be used, it says so once
/// for each reason, does without, and tries again now and then: another recorder has the file,
/// the disk is full, the file may not be written, is damaged or of a later version. When it can
/// record again, it records each tree that has changed meanwhile, and the history says from when to
/// when nothing was recorded. The trees that steps hand over are kept for that, not copied.
/// A root whose entry in the file is damaged is left out and told of.
///
/// What is recorded is on disk after the next commit. A process that is killed, and a failure, lose
/// what came after the last commit, nothing else. A machine that loses its power can lose some
/// seconds more, and the file stays right.
///
/// The time of a step is that of its recording. Where the clock is set back, the order of recording
/// stays: what was recorded last at or before a time counts for that time.
///
/// One thread at a time uses a recorder, the one that uses the trees. Calls do not wait for other
/// programs for longer than some 200 ms.
class ORV_HISTORY_EXPORT Recorder final {
 public:
  /// A root as it was recorded last.
  struct Resumed {
    std::string root;
    reporting::Tree tree;
    reporting::Sequence sequence;
  };

  /// Makes the file where there is none. Its group may read it, nobody else. Beside it, files of
  /// the same name with -wal, -shm and -lock come to be.
  explicit Recorder(const std::string& file, RecorderOptions options = {});
  /// Commits what is left.
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// The roots that are there according to the file, for a collector that starts. Nothing while the
  /// file cannot be used. A root that cannot be read is left out and told of. The trees are the
  /// caller's. Costs what `Reader::treeAt` costs for each root.
  std::vector<Resumed> resume();

  /// Records a step of a root. Costs the length of the event, and now and then a whole tree, which
  /// is at most once for so many bytes of events as the tree has.
  void record(const std::string& root, const reporting::Step& step);

  /// The root is gone, and no step says so.
  void forget(const std::string& root);

  /// Whether steps can come, which is so at first. What happens in between nobody sees: the history
  /// says from when to when that was, where it was longer than five seconds. A step that is
  /// recorded shows that they come again.
  void setConnected(bool isConnected);

  /// To be called every half second or more often: commits at most a second after a step what was
  /// recorded, lets go what is too old, tries again after a failure. Mostly it has nothing to do.
  void serve();

  /// Commits at once. Whether everything that was handed over is on disk.
  bool commit();

  /// Why nothing is recorded now; empty when all is well.
  const std::string& failure() const noexcept;

 private:
  class ORV_HISTORY_NO_EXPORT Core;
  std::unique_ptr<Core> core_;
};

}  // namespace orv::history
