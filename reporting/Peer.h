// A reporter as a collector hears it: which of its states counts, and whether it is there.
//
// States of one name come from one process after another, from wills that are published late, from
// the broker's memory, and by mistake from two processes at once. So what a state says of its
// origin decides:
//
// - Of one process (`start`) the state of a later connection counts, so that the will of an earlier
//   one does not say that the reporter is gone while it is there.
// - A state that is not online, of another process, is the late will of an earlier one: it is old.
// - A state that is online, of another process, is a new process. But if that process had the name
//   before and the present one is online, then two processes have one name, and the later one
//   stays. Otherwise both would take the name from each other for ever.
//
// A state that the broker had kept is no sign of life: whoever sent it may be gone since. Until the
// reporter itself is heard it is not confirmed. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

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

  explicit Peer(Time now) : heard_(now) {}

  // A state arrived. If it is taken, `roots` is what it lists, and `unlisted` gets those that it
  // has listed and lists no longer. O(number of roots).
  Verdict take(const orv::proto::monitoring::ReporterState& state, bool isRetained, Time now,
               Roots& unlisted);

  // Every root that it lists.
  const Roots& roots() const { return roots_; }

  bool isOnline() const { return isOnline_; }
  bool isConfirmed() const { return isConfirmed_; }
  bool isThere() const { return isOnline_ && isConfirmed_; }
  // Whether it sends the events again that a collector lacks.
  bool resends() const { return resends_; }

  // The collector's own connection begins: the silence counts from here.
  void listen(Time now) { heard_ = now; }
  // It ends: nobody can tell who is there.
  void doubt() { isConfirmed_ = false; }
  // Gone for sure, if it was silent for so long and is not known to be gone. Whether that is new.
  bool giveUp(Time now, Time::duration silence);

 private:
  std::uint64_t start_ = 0;
  std::uint64_t connection_ = 0;
  bool isKnown_ = false;
  bool isOnline_ = false;
  bool isConfirmed_ = false;
  bool resends_ = false;
  Time heard_;
  Roots roots_;
  std::deque<std::uint64_t> earlier_;  // starts of processes that had the name before
  std::uint64_t rival_ = 0;            // one of them that goes on
};

}  // namespace orv::reporting
