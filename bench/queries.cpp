// What the queries cost that walk the whole tree.

#include "Benchmarks.h"

namespace bench {

void addQueries(const Scope& scope) {
  const auto way = [](const char* name, bool (*query)(DeviceNode&)) {
    return Way{name, [query](const Trees& trees) -> Job {
                 return [&trees, query] { return query(*trees.live); };
               }};
  };
  const std::vector<Way> ways{
      lockStepWay(),
      way("getDeviceById, not there",
          [](DeviceNode& tree) { return tree.getDeviceById("nowhere") == nullptr; }),
      way("getTreeDeviceIds", [](DeviceNode& tree) { return !tree.getTreeDeviceIds().empty(); }),
      way("getSubDevicesByName",
          [](DeviceNode& tree) { return tree.getSubDevicesByName("Sensor 7", true).size() == 1; }),
      way("getSubDevicesByProperty",
          [](DeviceNode& tree) {
            return tree.getSubDevicesByProperty("serial", "SN-000007", true).size() == 1;
          }),
      way("getAllStatuses", [](DeviceNode& tree) { return !tree.getAllStatuses().empty(); }),
      way("debugString", [](DeviceNode& tree) { return !tree.debugString().empty(); })};
  for (const std::size_t size : scope.sizes) {
    add("operations", {Shape::FAN_OUT, Memory::WALK_ORDER, size, Case::NOTHING}, ways, scope);
  }
}

}  // namespace bench
