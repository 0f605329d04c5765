#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "device_tree/Export.h"

namespace orv::device_tree {

class DeviceNode;

/// One thing that differs between the configurations of two trees, in words for people, logs and
/// pages. `utils::GetConfigurationDifferences` lists them.
///
/// A plain value that owns its strings. Several threads may read one at once; a change needs the
/// caller's exclusion.
struct ORV_DEVICE_TREE_EXPORT ConfigurationDifference {
  enum Kind : std::int32_t {
    DEVICE_ADDED = 0,
    DEVICE_REMOVED = 1,
    DEVICE_RENAMED = 2,
    PROPERTY_ADDED = 3,
    PROPERTY_REMOVED = 4,
    PROPERTY_CHANGED = 5,
    STATUS_ADDED = 6,
    STATUS_REMOVED = 7,
    STATUS_TYPE_CHANGED = 8
  };

  /// One line: "pump-3: property model changed", "pump-3: device renamed to Feed pump". A number
  /// outside the enumeration shows as "?". Throws std::bad_alloc.
  std::string debugString() const;

  Kind kind = DEVICE_ADDED;
  /// The device that was added, removed or renamed, or that the property or status belongs to.
  std::string deviceId;
  /// The name that the property or status is filed under; of a device its display name, where that
  /// changed the new one.
  std::string name;
};

namespace utils {

/// Appends what differs between the two configurations. A device that was added or removed stands
/// for its whole subtree. An absent tree has no devices. A root of another identifier is another
/// tree.
///
/// A sub-device is compared with the one of the same identifier directly below the device that its
/// parent is compared with. Entries come in walk order: of a device its name, its properties, its
/// statuses, then its sub-devices, each in the order of their keys. What is filed under one key in
/// both trees comes in the place of the old one.
///
/// A status also counts as one of another type where the object filed under the key carries another
/// name. An entry that holds an object in one tree only counts as changed.
///
/// Where no identifier repeats within a tree, entries are appended exactly when
/// `IsSameConfiguration` is false. Where one does, that function may compare other devices, and
/// either may find a difference where the other finds none.
///
/// Throws std::bad_alloc, and then has appended nothing. Where the trees are in step it costs O(n),
/// n being the nodes of both: at most twice a walk over them. A sub-device out of step costs a
/// search among its siblings.
ORV_DEVICE_TREE_EXPORT void GetConfigurationDifferences(
    const std::shared_ptr<DeviceNode>& oldTree, const std::shared_ptr<DeviceNode>& newTree,
    std::list<ConfigurationDifference>& differences);

}  // namespace utils

}  // namespace orv::device_tree
