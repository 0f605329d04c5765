// The tree that the broker took last, as it was read from its message.
//
// To compare a live tree with a tree means to look for each value of both somewhere in memory, and
// that is most of what an event costs. So this one is kept in rows: its devices, its properties and
// its statuses, each in walk order and side by side. They take less than half of its memory.
//
// - It is in rows if every identifier is unique in it. Then each device is what its identifier
//   stands for, in any tree that is in step with it: that has the same configuration, with the
//   devices at the same places of the walk.
// - Otherwise it is a tree. So it is from the moment that somebody wants the tree.
//
// One thread at a time. An operation declared noexcept ends the process when memory runs out. n is
// the number of devices.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "reporting/Publication.h"

namespace orv::reporting {

class Snapshot {
 public:
  // Of a tree that was built from a message and is nobody else's.
  explicit Snapshot(Tree tree);

  // Whether it is in rows and the live tree in step with it. Then the event is what `ComputeEvent`
  // makes of the two, without a type if there is nothing to say; else it holds anything. O(n).
  bool isInStep(const device_tree::DeviceNode& live, Event& event) noexcept;

  // Carries out the last event that `isInStep` made, or changed statuses on what has become a tree
  // since. Returns whether that could be done. O(changes) for the first.
  bool apply(const Event& event);

  // The tree, which it keeps from now on. Throws std::bad_alloc; nothing has changed then. O(n).
  const Tree& tree();
  // The same for this once.
  Tree build() const;

 private:
  struct Device {
    std::size_t depth;
    std::string id;
    std::string name;
    device_tree::DeviceNode::DeviceClass deviceClass;
    device_tree::GlobalStatus health;
    std::size_t properties;  // how many
    std::size_t statuses;
  };

  void layOut(const Tree& tree);

  Tree tree_;  // empty: it is in rows
  std::vector<Device> devices_;
  std::vector<device_tree::Property> properties_;
  std::vector<device_tree::NamedStatus> statuses_;
  std::vector<std::size_t> changedHealths_;  // the places of what the last event changes
  std::vector<std::size_t> changedStatuses_;
};

}  // namespace orv::reporting
