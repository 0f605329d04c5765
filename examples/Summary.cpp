#include "Summary.h"

#include <list>

#include "device_tree/Utils.h"

namespace proto = orv::proto::monitoring;
namespace utils = orv::device_tree::utils;
using orv::device_tree::ConfigurationDifference;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using orv::device_tree::NamedStatus;
using Event = proto::DeviceToOrvServiceEvent;

std::vector<std::string> summaryOf(const Event& event, const std::shared_ptr<DeviceNode>& oldTree,
                                   const std::shared_ptr<DeviceNode>& newTree) {
  std::vector<std::string> lines;
  if (event.event_type() == Event::DEVICE_REMOVE) {
    const auto& removed = event.GetExtension(proto::DeviceRemoveEvent::base);
    lines.push_back(removed.device_id() + ": removed");
  } else if (event.event_type() == Event::STATUS_CHANGE) {
    const auto& changes = event.GetExtension(proto::StatusChangeEvent::base);
    for (const auto& change : changes.global_status_changes()) {
      lines.push_back(change.device_id() + ": " + GlobalStatus(change.status()).debugString());
    }
    for (const auto& change : changes.named_status_changes()) {
      lines.push_back(change.device_id() + ": " + NamedStatus(change.status()).debugString());
    }
  } else {
    lines.push_back(newTree->getDeviceId() + (oldTree ? ": reconfigured, " : ": added, ") +
                    std::to_string(newTree->getTreeDeviceIds().size()) + " devices, " +
                    newTree->getGlobalStatus().debugString());
    if (!oldTree) return lines;
    std::list<ConfigurationDifference> differences;
    utils::GetConfigurationDifferences(oldTree, newTree, differences);
    for (const auto& difference : differences) lines.push_back(difference.debugString());
  }
  return lines;
}
