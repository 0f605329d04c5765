#include "device_tree/Summary.h"

#include <boost/variant/get.hpp>
#include <list>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "device_tree/Utils.h"
#include "device_tree/Walk.h"

namespace orv::device_tree {

namespace {

using Event = orv::proto::monitoring::DeviceToOrvServiceEvent;
using TreePointer = std::shared_ptr<DeviceNode>;
namespace monitoring = orv::proto::monitoring;

// The devices of a tree by identifier, of several with one the first of the walk.
class Index {
 public:
  explicit Index(const DeviceNode& tree) {
    anyNode(tree, [this](const DeviceNode& node) {
      devices_.try_emplace(node.getDeviceId(), &node);
      return false;
    });
  }

  const Property* property(const std::string& deviceId, const std::string& name) const {
    const auto device = devices_.find(deviceId);
    if (device == devices_.end()) return nullptr;
    const auto entry = device->second->getProperties().find(name);
    return entry == device->second->getProperties().end() ? nullptr : entry->second.get();
  }

 private:
  std::unordered_map<std::string_view, const DeviceNode*> devices_;
};

void addConfiguration(const TreePointer& oldTree, const TreePointer& newTree,
                      std::vector<SummaryLine>& lines) {
  std::list<ConfigurationDifference> differences;
  utils::GetConfigurationDifferences(oldTree, newTree, differences);
  std::unique_ptr<Index> oldDevices;
  std::unique_ptr<Index> newDevices;
  for (const auto& difference : differences) {
    std::string text = difference.debugString();
    if (difference.kind == ConfigurationDifference::PROPERTY_CHANGED) {
      if (!oldDevices) oldDevices = std::make_unique<Index>(*oldTree);
      if (!newDevices) newDevices = std::make_unique<Index>(*newTree);
      const Property* const before = oldDevices->property(difference.deviceId, difference.name);
      const Property* const after = newDevices->property(difference.deviceId, difference.name);
      // Where an identifier repeats, these may be others than those that were compared.
      if (before != nullptr && after != nullptr && !(before->value == after->value)) {
        text += " from \"" + boost::get<std::string>(before->value) + "\" to \"" +
                boost::get<std::string>(after->value) + '"';
      }
    }
    lines.push_back({difference.deviceId, std::move(text)});
  }
}

}  // namespace

std::vector<SummaryLine> utils::GetSummary(const Event& event, const TreePointer& oldTree,
                                           const TreePointer& newTree) {
  std::vector<SummaryLine> lines;
  const auto add = [&lines](const std::string& id, const std::string& what) {
    lines.push_back({id, id + ": " + what});
  };
  if (event.event_type() == Event::DEVICE_REMOVE) {
    add(event.GetExtension(monitoring::DeviceRemoveEvent::base).device_id(), "removed");
    return lines;
  }
  if (event.event_type() == Event::STATUS_CHANGE) {
    const auto& changes = event.GetExtension(monitoring::StatusChangeEvent::base);
    for (const auto& change : changes.global_status_changes()) {
      add(change.device_id(), GlobalStatus(change.status()).debugString());
    }
    for (const auto& change : changes.named_status_changes()) {
      add(change.device_id(), NamedStatus(change.status()).debugString());
    }
    return lines;
  }
  if (!newTree) return lines;
  const std::string change = !oldTree                                  ? "added, "
                             : event.event_type() == Event::DEVICE_ADD ? "sent anew, "
                                                                       : "reconfigured, ";
  add(newTree->getDeviceId(), change + std::to_string(newTree->getTreeDeviceIds().size()) +
                                  " devices, " + newTree->getGlobalStatus().debugString());
  if (!oldTree) return lines;
  addConfiguration(oldTree, newTree, lines);
  std::list<std::pair<std::string, GlobalStatus>> healths;
  std::list<std::pair<std::string, std::shared_ptr<NamedStatus>>> statuses;
  GetStatusDifferences(oldTree, newTree, healths, statuses);
  for (const auto& [id, health] : healths) add(id, health.debugString());
  for (const auto& [id, status] : statuses) add(id, status->debugString());
  return lines;
}

}  // namespace orv::device_tree
