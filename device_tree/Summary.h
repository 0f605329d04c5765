#pragma once

#include <memory>
#include <string>
#include <vector>

#include "device_tree/DeviceNode.h"
#include "device_tree/Export.h"
#include "proto/monitoring/device_events.pb.h"

namespace orv::device_tree {

/// One change in words for people, logs and pages.
///
/// A plain value that owns its strings. Several threads may read one at once; a change needs the
/// caller's exclusion.
struct SummaryLine {
  /// The device that changed; of a whole tree its root.
  std::string deviceId;
  /// Begins with the device: `pump-3: property model changed from "X200" to "X300"`.
  std::string text;
};

namespace utils {

/// What an event says, a line for each change. It led from the old tree to the new one, either of
/// which may be absent.
///
/// A status change says by itself what changed, and its trees are not looked at. A whole tree does
/// not: after a line for the tree as a whole come its differences from the old tree, which must be
/// an object of its own. First the configuration, with both values of a property that changed, then
/// the state.
///
/// Throws std::bad_alloc. Costs the length of the text, and for a whole tree what
/// `GetConfigurationDifferences` and `GetStatusDifferences` cost; O(n log n) where a property
/// changed, n being the nodes of both trees.
ORV_DEVICE_TREE_EXPORT std::vector<SummaryLine> GetSummary(
    const orv::proto::monitoring::DeviceToOrvServiceEvent& event,
    const std::shared_ptr<DeviceNode>& oldTree, const std::shared_ptr<DeviceNode>& newTree);

}  // namespace utils

}  // namespace orv::device_tree
