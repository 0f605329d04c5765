#include "Benchmarks.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstring>
#include <iostream>

namespace bench {

namespace {

// The trees of the setting for one round. Only those asked for last are kept.
Trees& treesOf(const Setting& setting, int round) {
  static Setting currentSetting{};
  static int currentRound = 0;
  static Trees trees;
  if (!trees.live || !(currentSetting == setting) || currentRound != round) {
    trees = {};
    malloc_trim(0);  // else the new trees are put together from the pieces of the old ones
    trees = makeTrees(setting);
    currentSetting = setting;
    currentRound = round;
  }
  return trees;
}

}  // namespace

void addRun(const std::string& topic, const std::string& row, std::size_t devices,
            const std::string& way, const std::function<Job()>& prepare, double seconds) {
  const auto run = [prepare](benchmark::State& state) {
    malloc_trim(0);  // else this way tidies up what the one before it has left behind
    const Job job = prepare();
    bool right = job();
    for (auto _ : state) right = job() && right;
    if (!right) state.SkipWithError("wrong result");
  };
  const std::string name = topic + "/" + row + "/" + std::to_string(devices) + "/" + way;
  benchmark::RegisterBenchmark(name.c_str(), run)->Unit(benchmark::kMicrosecond)->MinTime(seconds);
}

void add(const Setting& setting, const std::vector<Contest>& contests, const Scope& scope) {
  for (int round = 0; round < scope.rounds; ++round) {
    for (const Contest& contest : contests) {
      for (const Way& way : contest.ways) {
        if (setting.devices > way.mostDevices) continue;
        const auto prepare = [setting, round, way, change = contest.change] {
          Trees& trees = treesOf(setting, round);
          makeDiffer(trees, change);
          return way.prepare(trees);
        };
        addRun(contest.topic, contest.row, setting.devices, way.name, prepare, scope.seconds);
      }
    }
  }
}

}  // namespace bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  if (argc > 1 && !quick) {
    std::cerr << "usage: " << argv[0] << " [--quick] [--benchmark_...]\n";
    return 2;
  }
  bench::Scope scope{{100, 1000, 10000}, 7, 0.03};
  if (quick) scope = {{100, 1000, 10000}, 3, 0.01};
  bench::addComparisons(scope);
  if (!quick) bench::addComparisons({{100000}, 5, 0.03});
  scope.rounds = 3;  // what comes now takes longer and is further from the lock-step walk
  scope.sizes = {100, 1000};
  if (!quick) scope.sizes = {100, 1000, 10000, 100000};
  bench::addRivals(scope);
  bench::addOperations(scope);
  scope.sizes = {4000, 40000};
  if (!quick) scope.sizes = {4000, 40000, 1000000};
  bench::addMessages(scope);
  benchmark::RunSpecifiedBenchmarks();
}
