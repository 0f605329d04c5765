#include "Summary.h"

#include <list>
#include <utility>

#include "device_tree/Utils.h"

namespace utils = orv::device_tree::utils;
using orv::device_tree::ConfigurationDifference;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using orv::device_tree::NamedStatus;
using Event = orv::proto::monitoring::DeviceToOrvServiceEvent;

std::vector<std::string> summaryOf(const Event& event, const std::shared_ptr<DeviceNode>& oldTree,
                                   const std::shared_ptr<DeviceNode>& newTree) {
  if (event.event_type() == Event::DEVICE_REMOVE) return {oldTree->getDeviceId() + ": removed"};
  std::vector<std::string> lines;
  if (event.event_type() != Event::STATUS_CHANGE) {
    lines.push_back(newTree->getDeviceId() + (oldTree ? ": reconfigured, " : ": added, ") +
                    std::to_string(newTree->getTreeDeviceIds().size()) + " devices, " +
                    newTree->getGlobalStatus().debugString());
  }
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
