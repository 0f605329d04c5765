#include "device_tree/ConfigurationDifference.h"

#include <map>
#include <utility>
#include <vector>

#include "device_tree/Comparison.h"

namespace orv::device_tree {

namespace {

using Kind = ConfigurationDifference::Kind;
using Differences = std::list<ConfigurationDifference>;
using SubDevices = DeviceNode::SubDevices;

// Lists what differs between the entries of two devices, in the order of their keys.
template <typename Value, typename Same>
void compareEntries(const std::string& deviceId,
                    const std::map<std::string, std::shared_ptr<Value>>& oldEntries,
                    const std::map<std::string, std::shared_ptr<Value>>& newEntries, Kind added,
                    Kind removed, Kind changed, Same same, Differences& differences) {
  auto oldEntry = oldEntries.begin();
  auto newEntry = newEntries.begin();
  while (oldEntry != oldEntries.end() || newEntry != newEntries.end()) {
    const int order = oldEntry == oldEntries.end()   ? 1
                      : newEntry == newEntries.end() ? -1
                                                     : oldEntry->first.compare(newEntry->first);
    if (order < 0) {
      differences.push_back({removed, deviceId, (oldEntry++)->first});
    } else if (order > 0) {
      differences.push_back({added, deviceId, (newEntry++)->first});
    } else {
      const auto& oldValue = oldEntry->second;
      const auto& newValue = newEntry->second;
      const bool bothThere = oldValue && newValue;
      if (bothThere ? !same(*oldValue, *newValue) : oldValue != newValue) {
        differences.push_back({changed, deviceId, oldEntry->first});
      }
      ++oldEntry;
      ++newEntry;
    }
  }
}

// Two devices of one identifier, without their sub-devices.
void compareDevice(const DeviceNode& oldNode, const DeviceNode& newNode, Differences& differences) {
  const std::string& deviceId = newNode.getDeviceId();
  if (oldNode.getName() != newNode.getName()) {
    differences.push_back({Kind::DEVICE_RENAMED, deviceId, newNode.getName()});
  }
  compareEntries(
      deviceId, oldNode.getProperties(), newNode.getProperties(), Kind::PROPERTY_ADDED,
      Kind::PROPERTY_REMOVED, Kind::PROPERTY_CHANGED,
      [](Property& o, const Property& n) { return o == n; }, differences);
  compareEntries(
      deviceId, oldNode.getStatuses(), newNode.getStatuses(), Kind::STATUS_ADDED,
      Kind::STATUS_REMOVED, Kind::STATUS_TYPE_CHANGED,
      [](const NamedStatus& o, const NamedStatus& n) {
        return o.getType() == n.getType() && o.getName() == n.getName();
      },
      differences);
}

// The one of `others` that the entry of `own` is compared with. Two sub-devices of a device may
// carry one identifier, the second under the empty key; then those under the same key belong
// together, so that no sub-device has two partners.
const DeviceNode* partnerOf(const SubDevices::value_type& entry, const SubDevices& own,
                            const SubDevices& others) {
  const auto& [key, subDevice] = entry;
  const std::string& deviceId = subDevice->getDeviceId();
  if (const DeviceNode* const partner = subDeviceAt(others, key, deviceId)) return partner;
  const std::string otherKey = key.empty() ? deviceId : std::string();
  if (subDeviceAt(own, otherKey, deviceId) != nullptr) return nullptr;
  return subDeviceAt(others, otherKey, deviceId);
}

void compareTrees(const DeviceNode& oldTree, const DeviceNode& newTree, Differences& differences) {
  struct Level {  // of a pair that is compared: its sub-devices, and those that come next
    const SubDevices& oldEntries;
    const SubDevices& newEntries;
    SubDevices::const_iterator oldNext;
    SubDevices::const_iterator newNext;
  };
  std::vector<Level> levels;
  const auto enter = [&](const DeviceNode& oldNode, const DeviceNode& newNode) {
    compareDevice(oldNode, newNode, differences);
    const SubDevices& oldEntries = oldNode.getSubDevices();
    const SubDevices& newEntries = newNode.getSubDevices();
    levels.push_back({oldEntries, newEntries, oldEntries.begin(), newEntries.begin()});
  };
  enter(oldTree, newTree);
  while (!levels.empty()) {
    Level& level = levels.back();
    const bool oldDone = level.oldNext == level.oldEntries.end();
    const bool newDone = level.newNext == level.newEntries.end();
    if (oldDone && newDone) {
      levels.pop_back();
      continue;
    }
    // The entry whose key comes first; of two under one key the old one.
    const int order = oldDone   ? 1
                      : newDone ? -1
                                : level.oldNext->first.compare(level.newNext->first);
    if (order > 0) {
      const auto& entry = *level.newNext++;
      if (entry.second && partnerOf(entry, level.newEntries, level.oldEntries) == nullptr) {
        differences.push_back(
            {Kind::DEVICE_ADDED, entry.second->getDeviceId(), entry.second->getName()});
      }
      continue;
    }
    const auto& entry = *level.oldNext++;
    if (!entry.second) continue;
    const DeviceNode& oldNode = *entry.second;
    const DeviceNode* newNode = nullptr;
    if (order == 0 && level.newNext->second &&
        level.newNext->second->getDeviceId() == oldNode.getDeviceId()) {
      newNode = (level.newNext++)->second.get();  // what partnerOf would find
    } else {
      newNode = partnerOf(entry, level.oldEntries, level.newEntries);
    }
    if (newNode != nullptr) {
      enter(oldNode, *newNode);
    } else {
      differences.push_back({Kind::DEVICE_REMOVED, oldNode.getDeviceId(), oldNode.getName()});
    }
  }
}

}  // namespace

std::string ConfigurationDifference::debugString() const {
  const auto text = [this](const char* what, const char* change) {
    return deviceId + ": " + what + name + change;
  };
  switch (kind) {
    case DEVICE_ADDED:
      return deviceId + ": device added";
    case DEVICE_REMOVED:
      return deviceId + ": device removed";
    case DEVICE_RENAMED:
      return text("device renamed to ", "");
    case PROPERTY_ADDED:
      return text("property ", " added");
    case PROPERTY_REMOVED:
      return text("property ", " removed");
    case PROPERTY_CHANGED:
      return text("property ", " changed");
    case STATUS_ADDED:
      return text("status ", " added");
    case STATUS_REMOVED:
      return text("status ", " removed");
    case STATUS_TYPE_CHANGED:
      return text("status ", " has another type");
  }
  return text("? ", "");
}

void utils::GetConfigurationDifferences(const std::shared_ptr<DeviceNode>& oldTree,
                                        const std::shared_ptr<DeviceNode>& newTree,
                                        Differences& differences) {
  Differences found;
  if (oldTree && newTree && oldTree->getDeviceId() == newTree->getDeviceId()) {
    compareTrees(*oldTree, *newTree, found);
  } else {
    if (oldTree) {
      found.push_back({Kind::DEVICE_REMOVED, oldTree->getDeviceId(), oldTree->getName()});
    }
    if (newTree) {
      found.push_back({Kind::DEVICE_ADDED, newTree->getDeviceId(), newTree->getName()});
    }
  }
  differences.splice(differences.end(), found);
}

}  // namespace orv::device_tree
