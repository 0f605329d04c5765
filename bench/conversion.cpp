// What it costs to turn a tree into a message and a message into a tree.

#include "Benchmarks.h"

namespace bench {

void addConversion(const Scope& scope) {
  using Message = orv::proto::monitoring::DeviceNode;
  const Way intoKept{"to a message that is kept", [](const Trees& trees) -> Job {
                       return [&trees, message = Message()]() mutable {
                         trees.live->toProtoBuf(message);
                         return message.sub_devices_size() > 0;
                       };
                     }};
  const Way intoFresh{"to a fresh message", [](const Trees& trees) -> Job {
                        return [&trees] { return trees.live->toProtoBuf().sub_devices_size() > 0; };
                      }};
  const Way fromMessage{"from a message", [](const Trees& trees) -> Job {
                          return [message = trees.live->toProtoBuf()] {
                            return !std::make_shared<DeviceNode>(message)->getSubDevices().empty();
                          };
                        }};
  for (const std::size_t size : scope.sizes) {
    add("operations", {Shape::FAN_OUT, Memory::WALK_ORDER, size, Case::NOTHING},
        {lockStepWay(), intoKept, intoFresh, fromMessage}, scope);
  }
}

}  // namespace bench
