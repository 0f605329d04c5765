// The one walk order of a tree. It goes depth first: a node, then the nodes below it. Sub-devices
// come in the order of their keys. Entries without a node are passed over.
//
// The open levels are kept on the heap, so depth costs no stack. The tree must not change while it
// is walked. One thing may change: the sub-devices of the node that was met last, because next()
// looks at them when it is called.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "device_tree/DeviceNode.h"

namespace orv::device_tree {

class Walk {
 public:
  // Walks the nodes below `root`; the root itself is not met.
  explicit Walk(const DeviceNode& root) : met_(&root) {}

  // The entry of the next node, nullptr at the end.
  const std::shared_ptr<DeviceNode>* next() {
    if (met_ != nullptr && !met_->getSubDevices().empty()) {
      const auto& subDevices = met_->getSubDevices();
      const Level below{met_, position_, depth() + 1, subDevices.begin(), subDevices.end()};
      if (levels_.empty() || levels_.back().next != levels_.back().end) {
        levels_.push_back(below);
      } else {
        levels_.back() = below;  // nothing is left there, so a chain keeps one level open
      }
    }
    for (; !levels_.empty(); levels_.pop_back()) {
      Level& level = levels_.back();
      while (level.next != level.end) {
        const std::shared_ptr<DeviceNode>& entry = (level.next++)->second;
        if (!entry) continue;
        met_ = entry.get();
        ++position_;
        return &entry;
      }
    }
    met_ = nullptr;
    return nullptr;
  }

  // Passes over the nodes below the one met last.
  void skipBelow() { met_ = nullptr; }

  // Of the node met last: how many levels below the root, its place in the walk (the root's is 0),
  // its parent and the parent's place. At the end the depth is 0 and there is no parent.
  std::size_t depth() const { return levels_.empty() ? 0 : levels_.back().depth; }
  std::size_t position() const { return position_; }
  const DeviceNode& parent() const { return *levels_.back().parent; }
  std::size_t parentPosition() const { return levels_.back().parentPosition; }

 private:
  struct Level {
    const DeviceNode* parent;
    std::size_t parentPosition;
    std::size_t depth;
    DeviceNode::SubDevices::const_iterator next;
    DeviceNode::SubDevices::const_iterator end;
  };

  const DeviceNode* met_;
  std::size_t position_ = 0;
  std::vector<Level> levels_;
};

// Visits the root and then the nodes below it, until the visitor returns true. Whether it has.
template <typename Visit>
bool anyNode(DeviceNode& root, Visit visit) {
  if (visit(root)) return true;
  Walk walk(root);
  while (const auto* node = walk.next()) {
    if (visit(**node)) return true;
  }
  return false;
}

}  // namespace orv::device_tree
