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

// Ways to be held against the first of them, on trees that differ by `change`.
struct Contest {
  std::string topic;
  std::string row;  // of the table of the topic
  Change change;
  std::vector<Way> ways;
};

struct Scope {
  std::vector<std::size_t> sizes;
  int rounds;
  double seconds;  // each way at least, in each round
};

// Registers one run of a way as the benchmark topic/row/devices/way.
void addRun(const std::string& topic, const std::string& row, std::size_t devices,
            const std::string& way, const std::function<Job()>& prepare, double seconds);

// Registers all rounds of the contests, all on the trees of the setting.
void add(const Setting& setting, const std::vector<Contest>& contests, const Scope& scope);

// The way that others are held against, see LockStep.h.
Way lockStepWay();
// A report of one status, after which that status changes again: ComputeEvent with a message that
// is kept, and ApplyEvent on the snapshot.
Way reportWay(const std::string& name);

void addComparisons(const Scope& scope);
void addRivals(const Scope& scope);
void addOperations(const Scope& scope);
void addMessages(const Scope& scope);

}  // namespace bench
