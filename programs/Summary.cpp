#include "Summary.h"

#include <list>
#include <utility>

#include "device_tree/Utils.h"

namespace utils = orv::device_tree::utils;
using orv::device_tree::ConfigurationDifference;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using orv::device_tree::NamedStatus;
namespace monitoring = orv::proto::monitoring;
using Event = monitoring::DeviceToOrvServiceEvent;

std::vector<std::string> summaryOf(const Event& event, const std::shared_ptr<DeviceNode>& oldTree,
                                   const std::shared_ptr<DeviceNode>& newTree) {
  if (event.event_type() == Event::DEVICE_REMOVE) {
    return {event.GetExtension(monitoring::DeviceRemoveEvent::base).device_id() + ": removed"};
  }
  std::vector<std::string> lines;
  if (event.event_type() == Event::STATUS_CHANGE) {
    const auto& changes = event.GetExtension(monitoring::StatusChangeEvent::base);
    for (const auto& change : changes.global_status_changes()) {
      lines.push_back(change.device_id() + ": " + GlobalStatus(change.status()).debugString());
    }
    for (const auto& change : changes.named_status_changes()) {
      lines.push_back(change.device_id() + ": " + NamedStatus(change.status()).debugString());
    }
    return lines;
  }
  const std::string change = !oldTree                                  ? ": added, "
                             : event.event_type() == Event::DEVICE_ADD ? ": sent anew, "
                                                                       : ": reconfigured, ";
  lines.push_back(newTree->getDeviceId() + change +
                  std::to_string(newTree->getTreeDeviceIds().size()) + " devices, " +
                  newTree->getGlobalStatus().debugString());
  if (!oldTree) return lines;
  std::list<ConfigurationDifference> differences;
  utils::GetConfigurationDifferences(oldTree, newTree, differences);
  for (const auto& difference : differences) lines.push_back(difference.debugString());
  std::list<std::pair<std::string, GlobalStatus>> healths;
  std::list<std::pair<std::string, std::shared_ptr<NamedStatus>>> statuses;
  utils::GetStatusDifferences(oldTree, newTree, healths, statuses);
  for (const auto& [id, health] : healths) lines.push_back(id + ": " + health.debugString());
  for (const auto& [id, status] : statuses) lines.push_back(id + ": " + status->debugString());
  return lines;
}
