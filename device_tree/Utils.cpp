#include "device_tree/Utils.h"

#include <vector>

#include "device_tree/Comparison.h"

namespace orv::device_tree::utils {

namespace proto = orv::proto::monitoring;
using EventType = proto::DeviceToOrvServiceEvent;

bool IsSameConfiguration(const std::shared_ptr<DeviceNode>& oldTree,
                         const std::shared_ptr<DeviceNode>& newTree) noexcept {
  if (!oldTree || !newTree) return oldTree == newTree;
  return sameConfiguration(*oldTree, *newTree);
}

void GetStatusDifferences(
    const std::shared_ptr<DeviceNode>& oldTree, const std::shared_ptr<DeviceNode>& newTree,
    std::list<std::pair<std::string, GlobalStatus>>& globalStatusChanges,
    std::list<std::pair<std::string, std::shared_ptr<NamedStatus>>>& namedStatusChanges) noexcept {
  if (!oldTree || !newTree) return;
  for (const Difference& difference : statusDifferences(*oldTree, *newTree)) {
    const DeviceNode& device = *difference.device;
    if (difference.status == nullptr) {
      globalStatusChanges.emplace_back(device.getDeviceId(), device.getGlobalStatus());
    } else {
      namedStatusChanges.emplace_back(device.getDeviceId(), *difference.status);
    }
  }
}

bool EventHelper::ComputeEvent(const std::shared_ptr<DeviceNode>& oldTree,
                               const std::shared_ptr<DeviceNode>& newTree,
                               proto::DeviceToOrvServiceEvent& event) noexcept {
  event.Clear();
  if (!oldTree && !newTree) return false;
  if (!oldTree) {
    event.set_event_type(EventType::DEVICE_ADD);
    newTree->toProtoBuf(*event.MutableExtension(proto::DeviceAddEvent::base)->mutable_device());
    return true;
  }
  if (!newTree) {
    event.set_event_type(EventType::DEVICE_REMOVE);
    event.MutableExtension(proto::DeviceRemoveEvent::base)->set_device_id(oldTree->getDeviceId());
    return true;
  }
  std::vector<Difference> differences;
  if (!sameConfiguration(*oldTree, *newTree, differences)) {
    event.set_event_type(EventType::CONFIGURATION_CHANGE);
    newTree->toProtoBuf(
        *event.MutableExtension(proto::ConfigurationChangeEvent::base)->mutable_device());
    return true;
  }
  if (differences.empty()) return false;
  event.set_event_type(EventType::STATUS_CHANGE);
  auto& changes = *event.MutableExtension(proto::StatusChangeEvent::base);
  for (const Difference& difference : differences) {
    const DeviceNode& device = *difference.device;
    if (difference.status == nullptr) {
      auto& change = *changes.add_global_status_changes();
      change.set_device_id(device.getDeviceId());
      device.getGlobalStatus().toProtoBuf(*change.mutable_status());
    } else {
      auto& change = *changes.add_named_status_changes();
      change.set_device_id(device.getDeviceId());
      (*difference.status)->toProtoBuf(*change.mutable_status());
    }
  }
  return true;
}

}  // namespace orv::device_tree::utils
