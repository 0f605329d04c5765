// When a collector asks for what it lacks: trees of roots, and states of reporters.
//
// - Each is asked for at first within `firstPause`, spread at random, because whatever made one
//   collector lack it made others lack it as well. Then again with pauses that double, because an
//   answer may be lost, and may take long when much is asked for.
// - So many go out each second, however many are missing: the answers are whole trees, and a broker
//   sends each to every collector.
//
// One thread at a time.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <string>

#include "reporting/Agenda.h"
#include "reporting/Backoff.h"
#include "reporting/Endpoint.h"

namespace orv::reporting {

class Requests {
 public:
  Requests(std::chrono::milliseconds firstPause, std::chrono::milliseconds longestPause,
           unsigned int mostEachSecond)
      : pauses_(firstPause, longestPause), mostEachSecond_(mostEachSecond) {}

  // It is needed, from `earliest` on. Changes nothing while it is needed already.
  void need(const std::string& id, Time earliest, std::mt19937_64& random);
  // It has come, or nobody can be asked.
  void drop(const std::string& id);

  // How often it was asked for since it is needed.
  unsigned int timesAsked(const std::string& id) const;

  // Whom to ask for now; counts as asked for. Empty when nothing is due.
  std::optional<std::string> next(Time now, std::mt19937_64& random);
  // When to call `next` again.
  Time due(Time now) const;

 private:
  Backoff pauses_;
  unsigned int mostEachSecond_;
  unsigned int left_ = 0;  // to be asked for until `newSecond_`
  Time newSecond_;
  Agenda agenda_;
  std::map<std::string, Backoff> needed_;
};

}  // namespace orv::reporting
