#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>
#include <vector>

#include "device_tree/DeviceNode.h"

namespace orv::device_tree {

/// The one walk order of a tree, for programs that look at every device. It goes depth first: a
/// node, then the nodes below it, sub-devices in the order of their keys. Entries without a node
/// are passed over; a node that is filed in several places is met in each.
///
///     Walk walk(tree);
///     while (const auto* entry = walk.next()) show((*entry)->getName(), walk.depth());
///
/// A walk owns nothing: the tree outlives it and does not change meanwhile. One thing may change:
/// the sub-devices of the node that was met last, because `next` looks at them when it is called.
/// A walk uses its tree on one thread, as any operation does.
///
/// All of a walk is O(n), n being the nodes of the tree. Open levels are kept on the heap, 40 bytes
/// each, so depth costs no stack. A level without a further node is not kept: a chain of any length
/// has one.
class Walk {
 public:
  /// Walks the nodes below `root`; the root itself is not met.
  explicit Walk(const DeviceNode& root) : met_(&root) {}

  /// The entry of the next node, nullptr at the end. Throws std::bad_alloc.
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

  /// Passes over the nodes below the one met last. Constant time.
  void skipBelow() { met_ = nullptr; }

  /// Of the node met last: how many levels it is below the root; 0 at the end. Constant time, as
  /// are the following.
  std::size_t depth() const { return levels_.empty() ? 0 : levels_.back().depth; }
  /// Its place among the nodes met, the first one's being 1. The root's is 0.
  std::size_t position() const { return position_; }
  /// Its parent, and the parent's place. There is none at the end.
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

/// Visits the root and then the nodes below it in walk order, until the visitor returns true.
/// Returns whether it has. The visitor is given a `DeviceNode&`, of a const root a
/// `const DeviceNode&`. Throws std::bad_alloc, and what the visitor throws. O(nodes visited).
template <typename Root, typename Visit>
bool anyNode(Root& root, Visit visit) {
  using Node = std::conditional_t<std::is_const_v<Root>, const DeviceNode, DeviceNode>;
  Node* node = &root;
  Walk walk(root);
  while (!visit(*node)) {
    const auto* const entry = walk.next();
    if (entry == nullptr) return false;
    node = entry->get();
  }
  return true;
}

}  // namespace orv::device_tree
