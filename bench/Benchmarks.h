// How the benchmarks are put together: in each round the ways to do a job are run in turn on the
// same trees, so that whatever slows the machine down meanwhile slows down all of them. Each round
// builds its trees anew: where in memory they come to lie can alone double what a walk costs.
#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "Trees.h"

namespace bench {

// What is timed; returns whether its result is right.
using Job = std::function<bool()>;

struct Way {
  std::string name;
  std::function<Job(const Trees&)> prepare;  // not timed
  std::size_t mostDevices = std::numeric_limits<std::size_t>::max();
};

struct Scope {
  std::vector<std::size_t> sizes;
  int rounds;
  double seconds;  // each way at least, in each round
};

// Registers the ways as benchmarks named topic/shape/memory/devices/change/way, one for each round.
void add(const std::string& topic, const Setting& setting, const std::vector<Way>& ways,
         const Scope& scope);

// The way that all others are held against, see LockStep.h.
Way lockStepWay();
// EventHelper::ComputeEvent with a message that is kept or, if the configuration differs,
// IsSameConfiguration.
Way libraryWay();

void addComparison(const Scope& scope);
void addRivals(const Scope& scope);
void addEvents(const Scope& scope);
void addCopy(const Scope& scope);
void addConversion(const Scope& scope);
void addQueries(const Scope& scope);
void addBuilding(const Scope& scope);

}  // namespace bench
