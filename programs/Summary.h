// An event in words: a line for each change.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "device_tree/DeviceNode.h"
#include "proto/monitoring/device_events.pb.h"

// The lines for the event that led from the old tree to the new one, either of which may be absent.
// A status change says by itself what changed. A whole tree does not: that follows from the old
// tree, which must be an object of its own then.
std::vector<std::string> summaryOf(const orv::proto::monitoring::DeviceToOrvServiceEvent& event,
                                   const std::shared_ptr<orv::device_tree::DeviceNode>& oldTree,
                                   const std::shared_ptr<orv::device_tree::DeviceNode>& newTree);
