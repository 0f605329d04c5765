#pragma once

#include <memory>

#include "device_tree/DeviceNode.h"
#include "proto/monitoring/device_events.pb.h"
#include "reporting/Export.h"
#include "reporting/Sequence.h"

/// What travels of a tree: the events of one root, each with its place among them.
///
/// Plain values. Several threads may read one at once; a change needs the caller's exclusion.
namespace orv::reporting {

using Event = orv::proto::monitoring::DeviceToOrvServiceEvent;

/// Empty for no tree.
using Tree = std::shared_ptr<orv::device_tree::DeviceNode>;

/// Whether the event replaces the tree, whatever came before it. Never throws.
ORV_REPORTING_EXPORT bool isWholeTree(const Event& event) noexcept;

/// An event with its place among the events of its root.
struct Publication {
  Sequence sequence;
  Event event;
};

/// An event that has become part of a root's course: it made the tree `after` of the tree `before`,
/// each of which is empty for no tree. After a status change both are one object, which stays the
/// same until an event with a whole tree. Where that says again what was there, both can be one
/// object too. Treat the trees as constant: they are their owner's own.
struct Step {
  Sequence sequence;
  Event event;
  Tree before;
  Tree after;
};

}  // namespace orv::reporting
