// Trees that change, for what is measured of a fleet.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "Trees.h"

namespace bench {

// The trees of a reporter.
class Plant {
 public:
  Plant(std::size_t roots, std::size_t devices) {
    const std::vector<std::size_t> parents = parentPlaces(Shape::FAN_OUT, devices);
    std::string error;
    for (std::size_t number = 0; number < roots; ++number) {
      std::vector<NodePtr>& root = roots_.emplace_back();
      root.push_back(makeDevice(numbered("root-", number), 0));
      for (std::size_t place = 1; place < devices; ++place) {
        root.push_back(makeDevice(numbered("device-", place), place));
        require(root[parents[place]]->addSubDevice(root[place], false, error), error);
      }
    }
  }

  std::size_t size() const { return roots_.size(); }

  // Changes 1 % of the statuses of the next root, at least one. That one says when it was due. Of
  // 50 changes one is of the health of a device too.
  const NodePtr& change(std::chrono::steady_clock::time_point due) {
    const std::vector<NodePtr>& devices = roots_[changes_ % roots_.size()];
    const std::size_t round = changes_++ / roots_.size();
    const auto stamp = static_cast<unsigned long>(due.time_since_epoch().count());
    devices.front()->getStatus("uptime")->setValue(stamp);
    for (std::size_t i = 1; i < devices.size() * 8 / 100; ++i) {
      const NodePtr& device = devices[(12 * i + round) % devices.size()];
      device->getStatus("position")->setValue(static_cast<long>(1000 + round));
    }
    if (changes_ % 50 == 0) {
      const auto level = round % 2 == 0 ? orv::device_tree::GlobalStatus::LEVEL_WARNING
                                        : orv::device_tree::GlobalStatus::LEVEL_OK;
      devices.back()->setGlobalStatus({level, ""});
    }
    return devices.front();
  }

 private:
  std::vector<std::vector<NodePtr>> roots_;  // the devices of each, in walk order
  std::size_t changes_ = 0;
};

}  // namespace bench
