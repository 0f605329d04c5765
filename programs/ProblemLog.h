// Lines for people about the problems of a reporter or a collector.
//
// Strangers can send thousands of bad messages a second, and each is a problem. So of each kind the
// first twenty within a minute have a line. The others have one line together when the minute is
// over, and so have all of each minute that follows, until one has none of that kind.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>

#include "reporting/Problem.h"

class ProblemLog {
 public:
  explicit ProblemLog(std::function<void(const std::string&)> log) : log_(std::move(log)) {}

  void tell(const orv::reporting::Problem& problem);
  // Tells what was left out once its minute is over: to be called again and again.
  void serve();

 private:
  struct Minute {
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
    std::size_t count = 0;
    std::size_t leftOut = 0;
    std::string last;  // of those that were left out
  };

  std::function<void(const std::string&)> log_;
  std::map<orv::reporting::Problem::Kind, Minute> minutes_;
};
