// A reporter as a collector hears it: which of its states and lists count, whether it is there, and
// which lists have to be asked for.
//
// States of one name come from one process after another, from wills that are published late, from
// the broker's memory, and by mistake from two processes at once. So what a state says of its
// origin decides:
//
// - Of one process (`start`) the state of a later connection counts, so that the will of an earlier
//   one does not say that the reporter is gone while it is there. Of one connection the later state
//   counts, but for its will.
// - A state that is online, of a later connection, with a lower version than was heard before: the
//   process was set back to an earlier moment.
// - A state that is not online, of another process, is the late will of an earlier one: it is old.
// - A state that is online, of another process, is a new process. But if that process had the name
//   before and the present one is online, then two processes have one name, and the later one
//   stays. Otherwise both would take the name from each other for ever.
// - Of the process whose state counts, the list with the highest version counts. Lists of other
//   processes do not, nor an earlier list of a part that the state does not speak of.
//
// A state that the broker had kept is no sign of life: whoever sent it may be gone since. Until the
// reporter itself is heard it is not confirmed. Nor is a part, which is what the reporter has in
// one partition, until the reporter is heard of it: a list that has just arrived, or a state that
// agrees with what the collector has. A part that the state does not speak of is gone.
//
// What follows for the roots of a part, the caller does when it reviews the part, which can be
// later: it unlists the roots of one that is gone, and distrusts those of one that goes on from an
// earlier moment.
//
// A state agrees with a part when it names the version of its list and the sum of the marks of
// where the collector is with its roots (see Mark.h). Where it does not, the list has to be asked
// for: it says which root is elsewhere.
//
// One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Endpoint.h"
#include "reporting/Sequence.h"

namespace orv::reporting {

class Peer {
 public:
  enum class Verdict : std::int32_t {
    TAKEN = 0,
    OLD = 1,
    RIVAL = 2,  // of a second process; the same one is RIVAL once and OLD from then on
  };
  // What it says of a root: its last event, and why a later one is held back (empty: none is).
  struct Listed {
    Sequence latest;
    std::string heldBack;
  };
  using Roots = std::map<std::string, Listed>;
  struct Part {
    Roots roots;                // as its list has them
    std::uint64_t version = 0;  // of the list; 0: it is that of an earlier process
    std::uint64_t sum = 0;      // of the marks of where the collector is
    bool isConfirmed = false;
    bool agrees = false;     // the last state or list of it is in step with the collector
    bool isAwaited = false;  // some root waits for the next word, or the list was needed
    // Since its roots were reviewed:
    bool isInStep = false;    // a state has agreed
    bool wasSetBack = false;  // the process went on from an earlier moment
    bool isGone = false;
  };
  // What follows from a message for the parts.
  struct News {
    std::vector<unsigned int> announced;  // a later list goes out with this state
    std::vector<unsigned int> differing;  // their lists have to be asked for
    std::vector<unsigned int> agreed;     // that were not confirmed, or awaited
    std::vector<unsigned int> gone;
    bool isOther = false;  // whether it is there, or which process it is, has changed
  };

  // It tells of the partitions from the first to the last.
  Peer(Time now, unsigned int first, unsigned int last) : first_(first), last_(last), heard_(now) {}

  // A state arrived. O(partitions).
  Verdict take(const orv::proto::monitoring::ReporterState& state, bool isRetained, Time now,
               News& news);
  // A list arrived. Returns whether it counts; the caller then says where it is with its roots.
  bool take(unsigned int partition, const orv::proto::monitoring::RootList& list, bool isRetained,
            Time now, Roots& unlisted);

  const std::map<unsigned int, Part>& parts() const { return parts_; }
  // Nullptr for none.
  const Part* part(unsigned int partition) const;
  // Nullptr for a root that is not listed.
  const Listed* find(unsigned int partition, const std::string& root) const;

  // The sum of that part has become greater by so much, modulo 2^64.
  void move(unsigned int partition, std::uint64_t difference) {
    parts_.at(partition).sum += difference;
  }
  // The roots of that part are reviewed. One that is gone is known no longer.
  void reviewed(unsigned int partition);
  // A root of that part waits for the next word on it.
  void await(unsigned int partition) { parts_.at(partition).isAwaited = true; }

  bool isOnline() const { return isOnline_; }
  bool isConfirmed() const { return isConfirmed_; }
  bool isThere() const { return isOnline_ && isConfirmed_; }

  // The collector's own connection begins: the silence counts from here.
  void listen(Time now) { heard_ = now; }
  // It ends: nobody can tell who is there.
  void doubt();
  // Gone for sure, if it was silent for so long and is not known to be gone. Whether that is new.
  bool giveUp(Time now, Time::duration silence);
  // It has been gone for so long, or for so long since this was true last.
  bool isLongGone(Time now, Time::duration age);

  // Nothing of it counts any more, and all parts are gone. Until they are reviewed it is not
  // forgotten.
  void forget(Time now);
  bool isForgotten() const { return !isKnown_ && parts_.empty(); }

 private:
  void forgetVersions();

  unsigned int first_;
  unsigned int last_;
  std::uint64_t start_ = 0;
  std::uint64_t connection_ = 0;
  std::uint64_t version_ = 0;
  bool isKnown_ = false;
  bool isOnline_ = false;
  bool isConfirmed_ = false;
  Time heard_;
  std::set<unsigned int> spokenOf_;  // parts, by the last state
  std::map<unsigned int, Part> parts_;
  std::deque<std::uint64_t> earlier_;  // starts of processes that had the name before
  std::uint64_t rival_ = 0;            // one of them that goes on
};

}  // namespace orv::reporting
