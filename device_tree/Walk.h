// The one walk order of a tree: depth first, a node before the nodes below it, sub-devices in the
// order of their keys, entries without a node passed over.
//
// The open levels are kept on the heap, so depth costs no stack. The tree must not change while it
// is walked, but for the sub-devices of the node that was met last: next() enters them when it is
// called.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <vector>

#include "device_tree/DeviceNode.h"

namespace orv::device_tree {

class Walk {
 public:
  // Walks the nodes below `root`; the root itself is not met.
  explicit Walk(const DeviceNode& root) : met_(&root), parent_(&root) {}

  // The entry of the next node, nullptr at the end.
  const std::shared_ptr<DeviceNode>* next() {
    if (met_ != nullptr && !met_->getSubDevices().empty()) {
      const auto& subDevices = met_->getSubDevices();
      levels_.push_back({met_, position_, depth_ + 1, subDevices.begin(), subDevices.end()});
    }
    while (!levels_.empty()) {
      Level& level = levels_.back();
      const auto entry = std::find_if(level.next, level.end,
                                      [](const auto& candidate) { return candidate.second; });
      if (entry == level.end) {
        levels_.pop_back();
        continue;
      }
      met_ = entry->second.get();
      parent_ = level.parent;
      parentPosition_ = level.parentPosition;
      depth_ = level.depth;
      ++position_;
      level.next = std::next(entry);
      if (level.next == level.end) levels_.pop_back();  // so a chain keeps no level open
      return &entry->second;
    }
    met_ = nullptr;
    depth_ = 0;
    return nullptr;
  }

  // Passes over the nodes below the one met last.
  void skipBelow() { met_ = nullptr; }

  // Of the node met last: how many levels below the root, its place in the walk (the root's is 0),
  // its parent and the parent's place. At the end the depth is 0.
  std::size_t depth() const { return depth_; }
  std::size_t position() const { return position_; }
  const DeviceNode& parent() const { return *parent_; }
  std::size_t parentPosition() const { return parentPosition_; }

 private:
  struct Level {
    const DeviceNode* parent;
    std::size_t parentPosition;
    std::size_t depth;
    DeviceNode::SubDevices::const_iterator next;
    DeviceNode::SubDevices::const_iterator end;
  };

  const DeviceNode* met_;
  const DeviceNode* parent_;
  std::size_t parentPosition_ = 0;
  std::size_t position_ = 0;
  std::size_t depth_ = 0;
  std::vector<Level> levels_;
};

}  // namespace orv::device_tree
