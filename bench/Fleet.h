// A fleet over a broker: processes that report, and what is measured of them.
#pragma once

#include <cstddef>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "Processes.h"

namespace bench {

struct Fleet {
  std::size_t roots;
  std::size_t devices;    // of each root
  std::size_t reporters;  // which share the roots
  std::size_t statuses;   // that change with an event
  std::string prefix = "orv/1";
};

// What a process does that has all reporters of a fleet. Says when its trees are built, and begins
// when it is told a time. That is the time from one change to the next in nanoseconds; zero for no
// changes. Ends when the other end is closed.
void report(const std::string& broker, const Fleet& fleet, int control);

// How many events a second reporter and collector bring over, beside two clients that have no
// protocol, and what an event costs each process.
nlohmann::json measureRates(const std::string& settings, bool quick);
// How soon a collector is right among a fleet at work: after its start, after an event that got
// lost, and after the broker forgot everything.
nlohmann::json measureStarts(const std::string& settings, bool quick);
// Many roots and many reporters without a broker: how long single steps take, and what an event
// costs there.
nlohmann::json measureCrowd(bool quick);

}  // namespace bench
