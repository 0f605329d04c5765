// When a collector asks for what it lacks: trees of roots, states of reporters, lists of roots.
//
// - Each is asked for at first within a time that the caller says, spread at random, because
//   whatever made one collector lack it made others lack it as well. Then again with pauses that
//   double from `firstPause`, because an answer may be lost.
// - What is asked for and has not come is limited, in number and in bytes. What comes makes room
//   for the next. So a fast broker is asked for thousands a second, and one that is slow, or full
//   of what others ask for, is asked for as much as it brings. What has not come after ten seconds
//   makes room as well: it may never come.
//
// One thread at a time. Every operation is O(log of what is needed).
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <random>
#include <string>
#include <unordered_map>

#include "reporting/Agenda.h"
#include "reporting/Backoff.h"
#include "reporting/Endpoint.h"

namespace orv::reporting {

class Requests {
 public:
  struct Limits {
    std::size_t number;
    std::size_t bytes;
  };

  Requests(std::chrono::milliseconds firstPause, std::chrono::milliseconds longestPause,
           Limits most)
      : pauses_(firstPause, longestPause), most_(most) {}

  // It is needed, and is asked for within `patience`. Its answer has about so many bytes. While it
  // is needed already that changes one thing: if it was not asked for yet, a shorter patience
  // counts.
  void need(const std::string& id, Time now, std::chrono::milliseconds patience, std::size_t bytes,
            std::mt19937_64& random);
  // It has come, or nobody can be asked.
  void drop(const std::string& id);
  // Something has come, and it is not known yet whether that helps. It is asked for again when it
  // is needed once more, with pauses that go on growing: else an answer that does not help would be
  // asked for without end.
  void rest(const std::string& id);

  // How often it was asked for since it is needed.
  unsigned int timesAsked(const std::string& id) const;

  // Whom to ask for now; counts as asked for. Empty when nothing is due.
  std::optional<std::string> next(Time now, std::mt19937_64& random);
  // When to call `next` again.
  Time due() const { return isFull() ? awaited_.due() : agenda_.due(); }

 private:
  struct Needed {
    Backoff pauses;
    std::chrono::milliseconds patience;
    std::size_t bytes;
  };

  bool isFull() const { return count_ >= most_.number || bytes_ >= most_.bytes; }
  void makeRoom(const std::string& id);

  Backoff pauses_;
  Limits most_;
  Agenda agenda_;
  std::unordered_map<std::string, Needed> needed_;
  Agenda awaited_;  // what was asked for, until it counts no longer
  std::size_t count_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace orv::reporting
