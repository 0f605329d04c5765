// What is to be looked at: identifiers that wait for their turn, and identifiers that will at a
// time.
//
// - An identifier is in it once, with a turn or with a time.
// - What comes first counts: a turn before every time, the earlier of two times before the later.
// - Turns keep their order. Those whose time has come line up at the end, the earliest first.
//
// So whoever waits for a turn is never overtaken by what changes from then on, and something that
// changes again and again holds up nobody. One thread at a time. Every operation is O(log of what
// is in it); memory is in proportion to that.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "reporting/Endpoint.h"

namespace orv::reporting {

class Agenda {
 public:
  // A turn, behind all others or before all others. One that is there already stays where it is.
  void queue(const std::string& id);
  void queueAhead(const std::string& id);

  // A turn when that time has come.
  void at(const std::string& id, Time time);

  void drop(const std::string& id);
  bool contains(const std::string& id) const { return places_.count(id) > 0; }

  // Gives a turn to those whose time has come.
  void advance(Time now);

  // Whose turn it is, nullptr when nobody waits. Good until the next change.
  const std::string* first() const;

  // When somebody is to be looked at: Time::min() while somebody waits for a turn, Time::max() when
  // nobody is in it.
  Time due() const;

 private:
  struct Place {
    std::int64_t turn;  // 0 for none: it has a time
    Time time;
  };

  void queue(const std::string& id, std::int64_t turn);

  std::unordered_map<std::string, Place> places_;
  std::map<std::int64_t, std::string> turns_;
  std::set<std::pair<Time, std::string>> times_;
  std::int64_t first_ = -1;  // the next turns at both ends
  std::int64_t last_ = 1;
};

}  // namespace orv::reporting
