// How the devices of one tree are, without a walk over the tree for each event.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <string>

#include "reporting/Publication.h"

class TreeHealth {
 public:
  using Level = orv::device_tree::GlobalStatus::Level;

  // The event was applied and made this tree. A whole tree costs a walk over it, a change of
  // statuses O(log of the number of devices that are not well) for each change.
  void apply(const orv::reporting::Event& event, orv::device_tree::DeviceNode& tree);

  // How many devices have the level. Of those that share an identifier the first of a walk counts.
  std::size_t count(Level level) const { return counts_.at(static_cast<std::size_t>(level)); }
  std::size_t devices() const;

 private:
  void put(const std::string& id, Level level);

  std::array<std::size_t, 3> counts_{};
  std::map<std::string, Level> unwell_;  // the devices that are not well
};
