#include "collector/TreeHealth.h"

#include <numeric>
#include <string_view>
#include <unordered_set>

#include "device_tree/Walk.h"

using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using orv::proto::monitoring::StatusChangeEvent;
using orv::reporting::Event;

void TreeHealth::apply(const Event& event, DeviceNode& tree) {
  if (orv::reporting::isWholeTree(event)) {
    *this = TreeHealth();
    std::unordered_set<std::string_view> met;
    orv::device_tree::anyNode(tree, [&](const DeviceNode& device) {
      if (!met.insert(device.getDeviceId()).second) return false;
      const Level level = device.getGlobalStatus().level;
      ++counts_.at(static_cast<std::size_t>(level));
      if (level != GlobalStatus::LEVEL_OK) unwell_[device.getDeviceId()] = level;
      return false;
    });
    return;
  }
  for (const auto& change : event.GetExtension(StatusChangeEvent::base).global_status_changes()) {
    // A change of a device without an identifier is passed over where the tree has none.
    const std::string& id = change.device_id();
    if (id.empty() && !tree.getDeviceById(id)) continue;
    put(id, GlobalStatus(change.status()).level);
  }
}

void TreeHealth::put(const std::string& id, Level level) {
  const auto known = unwell_.find(id);
  const Level before = known == unwell_.end() ? GlobalStatus::LEVEL_OK : known->second;
  --counts_.at(static_cast<std::size_t>(before));
  ++counts_.at(static_cast<std::size_t>(level));
  if (level != GlobalStatus::LEVEL_OK) {
    unwell_[id] = level;
  } else if (known != unwell_.end()) {
    unwell_.erase(known);
  }
}

std::size_t TreeHealth::devices() const {
  return std::accumulate(counts_.begin(), counts_.end(), std::size_t{0});
}
