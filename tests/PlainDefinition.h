// The comparison as it is defined, step by step and at any cost: what the library's results are
// held against. Exponential where identifiers repeat in the wrong places.
#pragma once

#include <algorithm>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include "device_tree/Utils.h"

namespace plain {

using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using orv::device_tree::NamedStatus;
using NodePtr = std::shared_ptr<DeviceNode>;
using GlobalChanges = std::list<std::pair<std::string, GlobalStatus>>;
using NamedChanges = std::list<std::pair<std::string, std::shared_ptr<NamedStatus>>>;

inline bool isSameConfiguration(const NodePtr& oldNode, const NodePtr& newNode) {
  if (!oldNode) return !newNode;
  if (!newNode) return false;
  if (oldNode->getDeviceId() != newNode->getDeviceId()) return false;
  if (oldNode->getName() != newNode->getName()) return false;

  const auto& newProperties = newNode->getProperties();
  if (oldNode->getProperties().size() != newProperties.size()) return false;
  for (const auto& [key, property] : oldNode->getProperties()) {
    const auto entry = newProperties.find(key);
    if (entry == newProperties.end()) return false;
    if (!property != !entry->second) return false;
    if (property && *property != *entry->second) return false;
  }

  const auto& newStatuses = newNode->getStatuses();
  if (oldNode->getStatuses().size() != newStatuses.size()) return false;
  for (const auto& [key, status] : oldNode->getStatuses()) {
    const auto entry = newStatuses.find(key);
    if (entry == newStatuses.end()) return false;
    if (!status != !entry->second) return false;
    if (!status) continue;
    if (status->getName() != entry->second->getName()) return false;
    if (status->getType() != entry->second->getType()) return false;
  }

  const auto oldIds = oldNode->getSubDeviceIds(false);
  const auto newIds = newNode->getSubDeviceIds(false);
  if (oldIds.size() != newIds.size()) return false;
  for (const auto& id : oldIds) {
    if (std::find(newIds.begin(), newIds.end(), id) == newIds.end()) return false;
  }
  for (const auto& id : oldIds) {
    const NodePtr oldSub = oldNode->getDeviceById(id);
    const NodePtr newSub = newNode->getDeviceById(id);
    if (oldSub == oldNode && newSub == newNode) continue;  // is being compared already
    if (!isSameConfiguration(oldSub, newSub)) return false;
  }
  return true;
}

// Two values that are not both of the type's kind differ unless they are the same kind and value.
inline bool valueChanged(const NamedStatus& oldStatus, const NamedStatus& newStatus) {
  const auto type = oldStatus.getType();
  if (type < NamedStatus::TYPE_STRING || type > NamedStatus::TYPE_DOUBLE) return false;
  const auto& o = oldStatus.getValue();
  const auto& n = newStatus.getValue();
  if (o.which() != n.which()) return true;
  if (const auto* text = boost::get<std::string>(&o)) return *text != boost::get<std::string>(n);
  if (const auto* number = boost::get<long>(&o)) return *number != boost::get<long>(n);
  if (const auto* number = boost::get<double>(&o)) return *number != boost::get<double>(n);
  return boost::get<unsigned long>(o) != boost::get<unsigned long>(n);
}

inline void getStatusDifferences(const NodePtr& oldNode, const NodePtr& newNode,
                                 GlobalChanges& globalChanges, NamedChanges& namedChanges) {
  if (!oldNode || !newNode) return;
  if (oldNode->getGlobalStatus() != newNode->getGlobalStatus()) {
    globalChanges.emplace_back(newNode->getDeviceId(), newNode->getGlobalStatus());
  }
  for (const auto& [key, status] : oldNode->getStatuses()) {
    const auto entry = newNode->getStatuses().find(key);
    if (entry == newNode->getStatuses().end() || !status || !entry->second) continue;
    if (valueChanged(*status, *entry->second)) {
      namedChanges.emplace_back(newNode->getDeviceId(), entry->second);
    }
  }
  for (const auto& id : oldNode->getSubDeviceIds(false)) {
    const NodePtr oldSub = oldNode->getDeviceById(id);
    const NodePtr newSub = newNode->getDeviceById(id);
    if (oldSub == oldNode && newSub == newNode) continue;
    if (oldSub && newSub) getStatusDifferences(oldSub, newSub, globalChanges, namedChanges);
  }
}

inline orv::proto::monitoring::StatusChangeEvent statusChangeEvent(
    const GlobalChanges& globalChanges, const NamedChanges& namedChanges) {
  orv::proto::monitoring::StatusChangeEvent event;
  for (const auto& [id, health] : globalChanges) {
    auto& change = *event.add_global_status_changes();
    change.set_device_id(id);
    *change.mutable_status() = health.toProtoBuf();
  }
  for (const auto& [id, status] : namedChanges) {
    auto& change = *event.add_named_status_changes();
    change.set_device_id(id);
    *change.mutable_status() = status->toProtoBuf();
  }
  return event;
}

}  // namespace plain
