#pragma once

#include <cstdint>
#include <string>

#include "device_tree/Export.h"

namespace orv::device_tree {

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

}  // namespace orv::device_tree
