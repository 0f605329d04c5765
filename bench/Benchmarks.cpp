#include "Benchmarks.h"

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstring>
#include <iostream>

namespace bench {

namespace {

// The trees of the setting for one round. Only those asked for last are kept.
const Trees& treesOf(const Setting& setting, int round) {
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

void add(const std::string& topic, const Setting& setting, const std::vector<Way>& ways,
         const Scope& scope) {
  const std::string name = topic + "/" + text(setting.shape) + "/" + text(setting.memory) + "/" +
                           std::to_string(setting.devices) + "/" + text(setting.change) + "/";
  for (int round = 0; round < scope.rounds; ++round) {
    for (const Way& way : ways) {
      if (setting.devices > way.mostDevices) continue;
      const auto run = [setting, way, round](benchmark::State& state) {
        malloc_trim(0);  // else this way tidies up what the one before it has left behind
        const Job job = way.prepare(treesOf(setting, round));
        bool right = job();
        for (auto _ : state) right = job() && right;
        if (!right) state.SkipWithError("wrong result");
      };
      benchmark::RegisterBenchmark((name + way.name).c_str(), run)
          ->Unit(benchmark::kMicrosecond)
          ->MinTime(scope.seconds);
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
  bench::Scope scope{{100, 1000, 10000, 100000}, 7, 0.03};
  if (quick) scope = {{100, 1000, 10000}, 3, 0.01};
  bench::addComparison(scope);
  scope.rounds = 3;  // what comes now takes longer and is further from the lock-step walk
  if (quick) scope.sizes.pop_back();
  bench::addRivals(scope);
  bench::addEvents(scope);
  bench::addCopy(scope);
  bench::addConversion(scope);
  bench::addQueries(scope);
  bench::addBuilding(scope);
  benchmark::RunSpecifiedBenchmarks();
}
