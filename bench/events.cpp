// What an event costs on top of the comparison, with a message that the caller keeps from call to
// call and with a fresh one each time.

#include "Benchmarks.h"
#include "device_tree/Utils.h"

namespace bench {

namespace {

using Event = orv::proto::monitoring::DeviceToOrvServiceEvent;
using orv::device_tree::utils::EventHelper;

Way keptWay(const std::string& name) {
  return {name + ", message kept", [](const Trees& trees) -> Job {
            return [&trees, event = Event()]() mutable {
              return EventHelper::ComputeEvent(trees.snapshot, trees.live, event);
            };
          }};
}

Way freshWay(const std::string& name) {
  return {name + ", fresh message", [](const Trees& trees) -> Job {
            return [&trees] {
              Event event;
              return EventHelper::ComputeEvent(trees.snapshot, trees.live, event);
            };
          }};
}

}  // namespace

void addEvents(const Scope& scope) {
  const std::vector<std::pair<Case, const char*>> cases{
      {Case::PERCENT_OF_STATUSES, "status change, 1 %"},
      {Case::LAST_PROPERTY, "configuration change"},
  };
  for (const auto& [change, name] : cases) {
    for (const std::size_t size : scope.sizes) {
      add("operations", {Shape::FAN_OUT, Memory::WALK_ORDER, size, change},
          {lockStepWay(), keptWay(name), freshWay(name)}, scope);
    }
  }
}

}  // namespace bench
