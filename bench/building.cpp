// What it costs to put a tree together device by device, and to release it.

#include "Benchmarks.h"

namespace bench {

void addBuilding(const Scope& scope) {
  for (const std::size_t size : scope.sizes) {
    const Way build{"building and release", [size](const Trees&) -> Job {
                      return [size] {
                        return makeDevices(Shape::FAN_OUT, Memory::WALK_ORDER, size, 1).size() ==
                               size;
                      };
                    }};
    add("operations", {Shape::FAN_OUT, Memory::WALK_ORDER, size, Case::NOTHING},
        {lockStepWay(), build}, scope);
  }
}

}  // namespace bench
