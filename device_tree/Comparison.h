// Which devices of two trees stand for each other, and what differs between them. Everything that
// compares trees rests on this.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "device_tree/DeviceNode.h"

namespace orv::device_tree {

// A change of state: of a status of the new tree's device or, without one, of its overall health.
struct Difference {
  const DeviceNode* device;
  const std::shared_ptr<NamedStatus>* status;
};

bool sameConfiguration(const DeviceNode& oldTree, const DeviceNode& newTree);

// The same, and in one go the differences, which mean something only when the result is true.
bool sameConfiguration(const DeviceNode& oldTree, const DeviceNode& newTree,
                       std::vector<Difference>& differences);

// In walk order, for one device its health first and then its statuses by name.
std::vector<Difference> statusDifferences(const DeviceNode& oldTree, const DeviceNode& newTree);

// The sub-device that is filed under the key, if it carries the identifier.
const DeviceNode* subDeviceAt(const DeviceNode::SubDevices& subDevices, const std::string& key,
                              const std::string& deviceId);

}  // namespace orv::device_tree
