// What a comparison, a report and a received event cost, against a walk over both trees in
// lock-step.

#include "Benchmarks.h"
#include "LockStep.h"
#include "device_tree/Utils.h"

namespace bench {

namespace {

namespace proto = orv::proto::monitoring;
namespace utils = orv::device_tree::utils;
using Event = proto::DeviceToOrvServiceEvent;
using utils::EventHelper;

// ComputeEvent with a message that is kept or, if the configuration differs, IsSameConfiguration.
Way comparisonWay() {
  return {"this library", [](const Trees& trees) -> Job {
            if (!trees.sameConfiguration) {
              return [&trees] { return !utils::IsSameConfiguration(trees.snapshot, trees.live); };
            }
            return [&trees, event = Event()]() mutable {
              const bool any = EventHelper::ComputeEvent(trees.snapshot, trees.live, event);
              const auto& changes = event.GetExtension(proto::StatusChangeEvent::base);
              return any == (trees.changes > 0) &&
                     static_cast<std::size_t>(changes.named_status_changes_size()) == trees.changes;
            };
          }};
}

// The report as it is without ApplyEvent: the new snapshot is a deep copy.
Way copyingReportWay() {
  return {"deep copy", [](const Trees& trees) -> Job {
            return [&trees, snapshot = std::make_shared<DeviceNode>(*trees.snapshot),
                    changing = oneStatus(trees.liveDevices), event = Event()]() mutable {
              const bool any = EventHelper::ComputeEvent(snapshot, trees.live, event);
              snapshot = std::make_shared<DeviceNode>(*trees.live);
              toggle(*changing);
              return any;
            };
          }};
}

// What a receiver does with the parsed event of one status, which has one value and then the other.
Way receivedWay() {
  return {"received event", [](const Trees& trees) -> Job {
            const auto changing = oneStatus(trees.liveDevices);
            const auto nextEvent = [&] {
              Event event;
              EventHelper::ComputeEvent(trees.snapshot, trees.live, event);
              std::string error;
              NodePtr tree = trees.snapshot;
              require(EventHelper::ApplyEvent(event, tree, error), error);
              toggle(*changing);
              Event received;
              require(received.ParseFromString(event.SerializeAsString()), "not parsed");
              return received;
            };
            std::vector<Event> events{nextEvent(), nextEvent()};
            return [events = std::move(events), tree = trees.snapshot, next = std::size_t{0},
                    error = std::string()]() mutable {
              next = 1 - next;
              return EventHelper::ApplyEvent(events[1 - next], tree, error);
            };
          }};
}

}  // namespace

Way lockStepWay() {
  return {"lock-step walk", [](const Trees& trees) -> Job {
            return [&trees, changes = std::vector<Difference>()]() mutable {
              const bool same = lockStep(*trees.snapshot, *trees.live, changes);
              return same == trees.sameConfiguration && (!same || changes.size() == trees.changes);
            };
          }};
}

Way reportWay(const std::string& name) {
  return {name, [](const Trees& trees) -> Job {
            return [&trees, snapshot = trees.snapshot, changing = oneStatus(trees.liveDevices),
                    event = Event(), error = std::string()]() mutable {
              const bool reported = EventHelper::ComputeEvent(snapshot, trees.live, event) &&
                                    EventHelper::ApplyEvent(event, snapshot, error);
              toggle(*changing);
              return reported;
            };
          }};
}

void addComparisons(const Scope& scope) {
  const std::vector<Way> comparing{lockStepWay(), comparisonWay()};
  const std::vector<Way> reporting{lockStepWay(), reportWay("event applied"), receivedWay(),
                                   copyingReportWay()};
  for (const auto& [shape, name] : shapes) {
    for (const Memory memory : {Memory::WALK_ORDER, Memory::SCATTERED}) {
      const std::string row =
          name + std::string(memory == Memory::WALK_ORDER ? ", walk order" : ", scattered");
      const std::vector<Contest> contests{
          {"comparison", row + ": nothing", Change::NOTHING, comparing},
          {"comparison", row + ": 1 % of statuses", Change::PERCENT_OF_STATUSES, comparing},
          {"comparison", row + ": last property", Change::LAST_PROPERTY, comparing},
          {"report", row, Change::ONE_STATUS, reporting}};
      for (const std::size_t size : scope.sizes) add({shape, memory, size}, contests, scope);
    }
  }
  const auto addRepeated = [&](Shape shape, const std::string& row) {
    for (const std::size_t size : scope.sizes) {
      add({shape, Memory::WALK_ORDER, size}, {{"repeated", row, Change::ONE_STATUS, comparing}},
          scope);
    }
  };
  addRepeated(Shape::RACKS, "the units of every rack are called alike");
  addRepeated(Shape::RACKS_REPEATED, "so is one sub-device of the root");
}

}  // namespace bench
