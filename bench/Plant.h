// The trees of reporters, which change at work.
#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include "Trees.h"

namespace bench {

class Plant {
 public:
  // Each change is of 1 % of a root's statuses, or of so many, but of one at least. A root is
  // called WORDNUMBER.
  Plant(std::size_t roots, std::size_t devices) : Plant(roots, devices, devices * 8 / 100) {}
  Plant(std::size_t roots, std::size_t devices, std::size_t statuses, const char* word = "root-")
      : statuses_(statuses) {
    const std::vector<std::size_t> parents = parentPlaces(Shape::FAN_OUT, devices);
    std::string error;
    for (std::size_t number = 0; number < roots; ++number) {
      std::vector<NodePtr>& root = roots_.emplace_back();
      root.push_back(makeDevice(numbered(word, number), 0));
      for (std::size_t place = 1; place < devices; ++place) {
        root.push_back(makeDevice(numbered("device-", place), place));
        require(root[parents[place]]->addSubDevice(root[place], false, error), error);
      }
    }
  }

  std::size_t size() const { return roots_.size(); }
  const NodePtr& tree(std::size_t number) const { return roots_[number].front(); }

  // The root that changes next.
  std::size_t next() const { return changes_ % roots_.size(); }

  // Changes it and returns its tree. One status says when that was due. Of 50 changes one is of the
  // health of a device too.
  const NodePtr& change(std::chrono::steady_clock::time_point due) {
    using orv::device_tree::GlobalStatus;
    const std::vector<NodePtr>& devices = roots_[next()];
    const std::size_t round = changes_++ / roots_.size();
    const auto stamp = static_cast<unsigned long>(due.time_since_epoch().count());
    devices.front()->getStatus("uptime")->setValue(stamp);
    for (std::size_t i = 1; i < statuses_; ++i) {
      const NodePtr& device = devices[(12 * i + round) % devices.size()];
      const char* const name = i < devices.size() ? "position" : "offset";
      device->getStatus(name)->setValue(static_cast<long>(1000 + round));
    }
    if (changes_ % 50 == 0) {
      const auto level = round % 2 == 0 ? GlobalStatus::LEVEL_WARNING : GlobalStatus::LEVEL_OK;
      devices.back()->setGlobalStatus({level, ""});
    }
    return devices.front();
  }

 private:
  std::vector<std::vector<NodePtr>> roots_;  // the devices of each, in walk order
  std::size_t statuses_;
  std::size_t changes_ = 0;
};

}  // namespace bench
