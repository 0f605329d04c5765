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
using orv::device_tree::Property;
using NodePtr = std::shared_ptr<DeviceNode>;
using GlobalChanges = std::list<std::pair<std::string, GlobalStatus>>;
using NamedChanges = std::list<std::pair<std::string, std::shared_ptr<NamedStatus>>>;

// Whether the maps have the same keys and at each two objects of the kind that `same` asks for, or
// none.
template <typename Map, typename Same>
bool sameEntries(const Map& oldMap, const Map& newMap, Same same) {
  return std::equal(oldMap.begin(), oldMap.end(), newMap.begin(), newMap.end(),
                    [&](const auto& left, const auto& right) {
                      if (left.first != right.first || !left.second != !right.second) return false;
                      return !left.second || same(*left.second, *right.second);
                    });
}

inline bool isSameConfiguration(const NodePtr& oldNode, const NodePtr& newNode) {
  if (!oldNode || !newNode) return oldNode == newNode;
  if (oldNode->getDeviceId() != newNode->getDeviceId()) return false;
  if (oldNode->getName() != newNode->getName()) return false;
  if (!sameEntries(oldNode->getProperties(), newNode->getProperties(), [](auto& left, auto& right) {
        return left.name == right.name && left.type == right.type &&
               (left.type != Property::TYPE_STRING || left.value == right.value);
      })) {
    return false;
  }
  if (!sameEntries(oldNode->getStatuses(), newNode->getStatuses(), [](auto& left, auto& right) {
        return left.getName() == right.getName() && left.getType() == right.getType();
      })) {
    return false;
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

inline bool sameHealth(const GlobalStatus& left, const GlobalStatus& right) {
  return left.level == right.level && left.message == right.message;
}

// A status of an unknown type never changes, a value of another kind always does.
inline bool sameValue(const NamedStatus& left, const NamedStatus& right) {
  return left.getType() < 0 || left.getType() > 3 || left.getValue() == right.getValue();
}

inline void getStatusDifferences(const NodePtr& oldNode, const NodePtr& newNode,
                                 GlobalChanges& globalChanges, NamedChanges& namedChanges) {
  if (!oldNode || !newNode) return;
  if (!sameHealth(oldNode->getGlobalStatus(), newNode->getGlobalStatus())) {
    globalChanges.emplace_back(newNode->getDeviceId(), newNode->getGlobalStatus());
  }
  for (const auto& [key, status] : oldNode->getStatuses()) {
    const auto entry = newNode->getStatuses().find(key);
    if (entry == newNode->getStatuses().end() || !status || !entry->second) continue;
    if (!sameValue(*status, *entry->second)) {
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

}  // namespace plain
