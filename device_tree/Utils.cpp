#include "device_tree/Utils.h"

#include <map>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "device_tree/Comparison.h"
#include "device_tree/Walk.h"

namespace orv::device_tree::utils {

namespace proto = orv::proto::monitoring;
using Event = proto::DeviceToOrvServiceEvent;

namespace {

// The devices that a list of changes names, in the order of the changes; nullptr: there is none.
struct NamedDevices {
  template <typename Changes>
  explicit NamedDevices(const Changes& changes) {
    for (const auto& change : changes) ids.push_back(change.device_id());
    found.reserve(ids.size());
  }

  bool isComplete() const { return found.size() == ids.size(); }
  const std::string_view& next() const { return ids[found.size()]; }

  std::vector<std::string_view> ids;
  std::vector<DeviceNode*> found;
};

// Changes come in walk order, so one walk meets the devices of each list one after the other. What
// comes in another order is left over; a second walk finds it, however much it is.
void find(DeviceNode& root, NamedDevices& first, NamedDevices& second) {
  const bool foundAll = anyNode(root, [&](DeviceNode& node) {
    for (NamedDevices* const devices : {&first, &second}) {
      while (!devices->isComplete() && devices->next() == node.getDeviceId()) {
        devices->found.push_back(&node);
      }
    }
    return first.isComplete() && second.isComplete();
  });
  if (foundAll) return;

  std::map<std::string_view, DeviceNode*> rest;
  for (const NamedDevices* const devices : {&first, &second}) {
    for (std::size_t i = devices->found.size(); i < devices->ids.size(); ++i) {
      rest.emplace(devices->ids[i], nullptr);
    }
  }
  anyNode(root, [&](DeviceNode& node) {
    const auto entry = rest.find(node.getDeviceId());
    if (entry != rest.end() && entry->second == nullptr) entry->second = &node;
    return false;
  });
  for (NamedDevices* const devices : {&first, &second}) {
    while (!devices->isComplete()) devices->found.push_back(rest.at(devices->next()));
  }
}

// The following return why the event is refused, nothing when it was carried out.

template <typename Content>
std::string replaceTree(const Event& event, std::shared_ptr<DeviceNode>& tree) {
  if (!event.HasExtension(Content::base) || !event.GetExtension(Content::base).has_device()) {
    return "Event without the device tree that belongs to its type";
  }
  try {
    auto built = std::make_shared<DeviceNode>(event.GetExtension(Content::base).device());
    tree.swap(built);  // the old tree is released last
  } catch (const std::runtime_error& refused) {
    return refused.what();
  }
  return "";
}

std::string removeTree(const Event& event, std::shared_ptr<DeviceNode>& tree) {
  if (!event.HasExtension(proto::DeviceRemoveEvent::base)) {
    return "Event without the content that belongs to its type";
  }
  const std::string& deviceId = event.GetExtension(proto::DeviceRemoveEvent::base).device_id();
  if (tree && tree->getDeviceId() != deviceId) return "Event removes another device: " + deviceId;
  const auto released = std::exchange(tree, nullptr);
  return "";
}

}  // namespace

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
                               const std::shared_ptr<DeviceNode>& newTree, Event& event) noexcept {
  event.Clear();
  if (!oldTree && !newTree) return false;
  if (!oldTree) {
    event.set_event_type(Event::DEVICE_ADD);
    newTree->toProtoBuf(*event.MutableExtension(proto::DeviceAddEvent::base)->mutable_device());
    return true;
  }
  if (!newTree) {
    event.set_event_type(Event::DEVICE_REMOVE);
    event.MutableExtension(proto::DeviceRemoveEvent::base)->set_device_id(oldTree->getDeviceId());
    return true;
  }
  std::vector<Difference> differences;
  if (!sameConfiguration(*oldTree, *newTree, differences)) {
    event.set_event_type(Event::CONFIGURATION_CHANGE);
    newTree->toProtoBuf(
        *event.MutableExtension(proto::ConfigurationChangeEvent::base)->mutable_device());
    return true;
  }
  if (differences.empty()) return false;
  event.set_event_type(Event::STATUS_CHANGE);
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

std::string EventHelper::changeStatuses(const Event& event, DeviceNode* tree) {
  if (!event.HasExtension(proto::StatusChangeEvent::base)) {
    return "Event without the content that belongs to its type";
  }
  if (tree == nullptr) return "Status change without a device tree";
  const auto& changes = event.GetExtension(proto::StatusChangeEvent::base);
  NamedDevices unwell(changes.global_status_changes());
  NamedDevices changed(changes.named_status_changes());
  find(*tree, unwell, changed);

  // All new values first, so that a refusal, or a lack of memory, changes nothing.
  std::vector<std::pair<DeviceNode*, GlobalStatus>> healths;
  for (int i = 0; i < changes.global_status_changes_size(); ++i) {
    const auto& change = changes.global_status_changes(i);
    DeviceNode* const device = unwell.found[static_cast<std::size_t>(i)];
    if (device == nullptr && change.device_id().empty()) continue;
    if (device == nullptr) return "Device " + change.device_id() + " not found";
    healths.emplace_back(device, GlobalStatus());
    healths.back().second.read(change.status());
  }
  std::vector<std::pair<std::shared_ptr<NamedStatus>, NamedStatus>> values;
  for (int i = 0; i < changes.named_status_changes_size(); ++i) {
    const auto& change = changes.named_status_changes(i);
    DeviceNode* const device = changed.found[static_cast<std::size_t>(i)];
    if (device == nullptr && change.device_id().empty()) continue;
    if (device == nullptr) return "Device " + change.device_id() + " not found";
    const auto named = [&change] {
      return "Status " + change.status().name() + " of device " + change.device_id();
    };
    const auto status = device->getStatus(change.status().name());
    if (!status) return named() + " not found";
    values.emplace_back(status, NamedStatus());
    values.back().second.read(change.status());
    if (values.back().second.getType() != status->getType()) return named() + " has another type";
  }
  for (auto& [device, health] : healths) device->setGlobalStatus(std::move(health));
  for (auto& [status, value] : values) *status = std::move(value);
  return "";
}

bool EventHelper::ApplyEvent(const Event& event, std::shared_ptr<DeviceNode>& tree,
                             std::string& errorMessage) {
  errorMessage.clear();
  std::string refusal;
  switch (event.has_event_type() ? event.event_type() : 0) {
    case Event::DEVICE_ADD:
      refusal = replaceTree<proto::DeviceAddEvent>(event, tree);
      break;
    case Event::CONFIGURATION_CHANGE:
      refusal = replaceTree<proto::ConfigurationChangeEvent>(event, tree);
      break;
    case Event::DEVICE_REMOVE:
      refusal = removeTree(event, tree);
      break;
    case Event::STATUS_CHANGE:
      refusal = changeStatuses(event, tree.get());
      break;
    default:
      refusal = "Event of an unknown type";
  }
  if (refusal.empty()) return true;
  errorMessage = tree ? tree->formatMessage(refusal) : refusal;
  return false;
}

}  // namespace orv::device_tree::utils
