#include "device_tree/Utils.h"

#include "device_tree/Comparison.h"

namespace orv::device_tree::utils {

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

}  // namespace orv::device_tree::utils
