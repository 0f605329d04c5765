// The yardstick: what one would write for one's own trees. It walks both side by side,
// compares everything once, and relies on identifiers that do not repeat.
#pragma once

#include <algorithm>
#include <vector>

#include "device_tree/Walk.h"

namespace bench {

using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;
using orv::device_tree::Walk;

struct Difference {
  const DeviceNode* device;
  const NamedStatus* status;  // nullptr: the health of the device
};

// Whether the devices themselves, without their sub-devices, have the same configuration.
inline bool compareDevice(const DeviceNode& oldNode, const DeviceNode& newNode,
                          std::vector<Difference>& changes) {
  if (oldNode.getDeviceId() != newNode.getDeviceId()) return false;
  if (oldNode.getName() != newNode.getName()) return false;
  const auto sameProperty = [](const auto& oldEntry, const auto& newEntry) {
    const auto& o = *oldEntry.second;
    const auto& n = *newEntry.second;
    return oldEntry.first == newEntry.first && o.name == n.name && o.type == n.type &&
           o.value == n.value;
  };
  const auto& oldProperties = oldNode.getProperties();
  const auto& newProperties = newNode.getProperties();
  if (!std::equal(oldProperties.begin(), oldProperties.end(), newProperties.begin(),
                  newProperties.end(), sameProperty)) {
    return false;
  }
  if (oldNode.getGlobalStatus() != newNode.getGlobalStatus())
    changes.push_back({&newNode, nullptr});
  const auto sameStatus = [&](const auto& oldEntry, const auto& newEntry) {
    const auto& o = *oldEntry.second;
    const auto& n = *newEntry.second;
    if (oldEntry.first != newEntry.first || o.getName() != n.getName() ||
        o.getType() != n.getType()) {
      return false;
    }
    if (!(o.getValue() == n.getValue())) changes.push_back({&newNode, &n});
    return true;
  };
  const auto& oldStatuses = oldNode.getStatuses();
  const auto& newStatuses = newNode.getStatuses();
  return std::equal(oldStatuses.begin(), oldStatuses.end(), newStatuses.begin(), newStatuses.end(),
                    sameStatus);
}

// Whether the trees have the same configuration; if so, `changes` are those of the state.
inline bool lockStep(const DeviceNode& oldTree, const DeviceNode& newTree,
                     std::vector<Difference>& changes) {
  changes.clear();
  if (!compareDevice(oldTree, newTree, changes)) return false;
  Walk oldWalk(oldTree);
  Walk newWalk(newTree);
  while (true) {
    const auto* const oldEntry = oldWalk.next();
    const auto* const newEntry = newWalk.next();
    if (oldWalk.depth() != newWalk.depth()) return false;
    if (oldEntry == nullptr) return true;
    if (!compareDevice(**oldEntry, **newEntry, changes)) return false;
  }
}

}  // namespace bench
