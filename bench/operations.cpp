// What everything else costs: events on top of the comparison, building, copying, conversion to
// and from messages, queries.

#include <list>
#include <utility>

#include "Benchmarks.h"
#include "device_tree/Utils.h"

namespace bench {

namespace {

namespace utils = orv::device_tree::utils;
using Message = orv::proto::monitoring::DeviceNode;
using Event = orv::proto::monitoring::DeviceToOrvServiceEvent;

Way way(const std::string& name, bool (*operation)(const Trees&)) {
  return {name, [operation](const Trees& trees) -> Job {
            return [&trees, operation] { return operation(trees); };
          }};
}

bool computeEvent(const Trees& trees, Event& event) {
  return utils::EventHelper::ComputeEvent(trees.snapshot, trees.live, event);
}

Way keptEventWay(const std::string& name) {
  return {name + ", message kept", [](const Trees& trees) -> Job {
            return [&trees, event = Event()]() mutable { return computeEvent(trees, event); };
          }};
}

Way freshEventWay(const std::string& name) {
  return way(name + ", fresh message", [](const Trees& trees) {
    Event event;
    return computeEvent(trees, event);
  });
}

Way keptMessageWay() {
  return {"to a message that is kept", [](const Trees& trees) -> Job {
            return [&trees, message = Message()]() mutable {
              trees.live->toProtoBuf(message);
              return message.sub_devices_size() > 0;
            };
          }};
}

bool canBuild(const Message& message) {
  return !std::make_shared<DeviceNode>(message)->getSubDevices().empty();
}

Way fromMessageWay() {
  return {"from a message, and release", [](const Trees& trees) -> Job {
            return [message = trees.live->toProtoBuf()] { return canBuild(message); };
          }};
}

// So many devices: a chain, and all that are not in it directly below its last one.
std::shared_ptr<Message> nested(std::size_t devices, std::size_t chain) {
  auto root = std::make_shared<Message>();
  root->set_id("root");
  Message* parent = root.get();
  for (std::size_t place = 1; place < devices; ++place) {
    Message* device = parent->add_sub_devices();
    device->set_id(std::to_string(place));
    if (place < chain) parent = device;
  }
  return root;
}

}  // namespace

void addOperations(const Scope& scope) {
  const std::vector<Way> ways{
      lockStepWay(),
      way("building and release",
          [](const Trees& trees) {
            const std::size_t size = trees.liveDevices.size();
            return makeDevices(Shape::FAN_OUT, Memory::WALK_ORDER, size, 1).size() == size;
          }),
      way("copy and release",
          [](const Trees& trees) {
            return !std::make_shared<DeviceNode>(*trees.live)->getSubDevices().empty();
          }),
      keptMessageWay(),
      way("to a fresh message",
          [](const Trees& trees) { return trees.live->toProtoBuf().sub_devices_size() > 0; }),
      fromMessageWay(),
      way("getDeviceById, not there",
          [](const Trees& trees) { return trees.live->getDeviceById("nowhere") == nullptr; }),
      way("getTreeDeviceIds",
          [](const Trees& trees) { return !trees.live->getTreeDeviceIds().empty(); }),
      way("getSubDevicesByName",
          [](const Trees& trees) {
            return trees.live->getSubDevicesByName("Sensor 7", true).size() == 1;
          }),
      way("getSubDevicesByProperty",
          [](const Trees& trees) {
            return trees.live->getSubDevicesByProperty("serial", "SN-000007", true).size() == 1;
          }),
      way("getAllStatuses",
          [](const Trees& trees) { return !trees.live->getAllStatuses().empty(); }),
      way("debugString", [](const Trees& trees) { return !trees.live->debugString().empty(); })};
  const Way differences = way("GetConfigurationDifferences", [](const Trees& trees) {
    std::list<orv::device_tree::ConfigurationDifference> found;
    utils::GetConfigurationDifferences(trees.snapshot, trees.live, found);
    return found.size() == 1;
  });
  const std::string statuses = "status change, 1 %";
  const std::string configuration = "configuration change";
  const std::vector<Contest> contests{
      {"operations",
       "",
       Change::PERCENT_OF_STATUSES,
       {lockStepWay(), keptEventWay(statuses), freshEventWay(statuses)}},
      {"operations",
       "",
       Change::LAST_PROPERTY,
       {lockStepWay(), keptEventWay(configuration), freshEventWay(configuration), differences}},
      {"operations", "", Change::NOTHING, ways}};
  for (const std::size_t size : scope.sizes) {
    add({Shape::FAN_OUT, Memory::WALK_ORDER, size}, contests, scope);
  }
}

void addMessages(const Scope& scope) {
  for (const std::size_t size : scope.sizes) {
    std::vector<std::pair<std::string, std::size_t>> chains{{"all below the root", 1},
                                                            {"all at level 99", 98}};
    // Protocol Buffers release a message recursively.
    if (size <= 40000) chains.emplace_back("each below the one before", size);
    for (int round = 0; round < scope.rounds; ++round) {
      for (const auto& [name, chain] : chains) {
        const auto prepare = [size, chain = chain]() -> Job {
          return [message = nested(size, chain)] { return canBuild(*message); };
        };
        addRun("messages", "", size, name, prepare, scope.seconds);
      }
    }
  }
}

}  // namespace bench
