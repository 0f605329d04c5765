// What a snapshot costs: the deep copy of a tree, and its release.

#include "Benchmarks.h"

namespace bench {

void addCopy(const Scope& scope) {
  const Way copy{"copy and release", [](const Trees& trees) -> Job {
                   return [&trees] {
                     return std::make_shared<DeviceNode>(*trees.live)->getDeviceId() ==
                            trees.live->getDeviceId();
                   };
                 }};
  for (const std::size_t size : scope.sizes) {
    add("operations", {Shape::FAN_OUT, Memory::WALK_ORDER, size, Case::NOTHING},
        {lockStepWay(), copy}, scope);
  }
}

}  // namespace bench
