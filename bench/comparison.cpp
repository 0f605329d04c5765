// What a comparison costs: the library against a walk over both trees in lock-step.

#include "Benchmarks.h"
#include "LockStep.h"
#include "device_tree/Utils.h"

namespace bench {

namespace utils = orv::device_tree::utils;

Way lockStepWay() {
  return {"lock-step walk", [](const Trees& trees) -> Job {
            return [&trees, changes = std::vector<Change>()]() mutable {
              const bool same = lockStep(*trees.snapshot, *trees.live, changes);
              return same == trees.sameConfiguration && (!same || changes.size() == trees.changes);
            };
          }};
}

Way libraryWay() {
  return {"library", [](const Trees& trees) -> Job {
            if (!trees.sameConfiguration) {
              return [&trees] { return !utils::IsSameConfiguration(trees.snapshot, trees.live); };
            }
            return [&trees, event = orv::proto::monitoring::DeviceToOrvServiceEvent()]() mutable {
              const bool any = utils::EventHelper::ComputeEvent(trees.snapshot, trees.live, event);
              const auto& changes =
                  event.GetExtension(orv::proto::monitoring::StatusChangeEvent::base);
              return any == (trees.changes > 0) &&
                     static_cast<std::size_t>(changes.named_status_changes_size()) == trees.changes;
            };
          }};
}

void addComparison(const Scope& scope) {
  const std::vector<Way> ways{lockStepWay(), libraryWay()};
  for (const Shape shape : {Shape::FLAT, Shape::FAN_OUT, Shape::CHAIN}) {
    for (const Memory memory : {Memory::WALK_ORDER, Memory::SCATTERED}) {
      for (const std::size_t size : scope.sizes) {
        for (const Case change :
             {Case::NOTHING, Case::ONE_STATUS, Case::PERCENT_OF_STATUSES, Case::LAST_PROPERTY}) {
          add("comparison", {shape, memory, size, change}, ways, scope);
        }
      }
    }
  }
  for (const Shape shape : {Shape::RACKS, Shape::RACKS_REPEATED}) {
    for (const std::size_t size : scope.sizes) {
      add("repeated", {shape, Memory::WALK_ORDER, size, Case::ONE_STATUS}, ways, scope);
    }
  }
}

}  // namespace bench
