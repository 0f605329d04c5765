// The trees that the benchmarks run on: pairs of a snapshot and a live tree, with 4 properties and
// 8 statuses a device.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "device_tree/DeviceNode.h"

namespace bench {

using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;
using orv::device_tree::Property;
using NodePtr = std::shared_ptr<DeviceNode>;

// The racks of a RACKS tree have 8 units each, and those of every rack carry the same identifiers;
// nothing else repeats one. In RACKS_REPEATED, so does the last sub-device of the root.
enum class Shape { FLAT, FAN_OUT, CHAIN, RACKS, RACKS_REPEATED };
enum class Memory { WALK_ORDER, SCATTERED };
enum class Change { NOTHING, ONE_STATUS, PERCENT_OF_STATUSES, LAST_PROPERTY };

// The shapes that most is measured on, by their names in the tables.
constexpr std::array<std::pair<Shape, const char*>, 3> shapes{
    {{Shape::FLAT, "flat"}, {Shape::FAN_OUT, "fan-out 8"}, {Shape::CHAIN, "chain"}}};

// The parent of each device, both by their places in the walk. The root is its own.
inline std::vector<std::size_t> parentPlaces(Shape shape, std::size_t devices) {
  std::vector<std::size_t> parents(devices, 0);
  if (shape == Shape::CHAIN) std::iota(parents.begin() + 1, parents.end(), 0);
  if (shape == Shape::RACKS || shape == Shape::RACKS_REPEATED) {
    for (std::size_t place = 1; place < devices; ++place) {
      const std::size_t unit = (place - 1) % 9;  // 0 is the rack itself
      if (unit > 0) parents[place] = place - unit;
    }
    if (shape == Shape::RACKS_REPEATED) parents.back() = 0;
  }
  if (shape != Shape::FAN_OUT) return parents;
  // Level by level, the devices below number i are 8 i + 1 to 8 i + 8.
  std::vector<std::size_t> places(devices);
  std::vector<std::size_t> open{0};
  for (std::size_t place = 0; !open.empty(); ++place) {
    const std::size_t number = open.back();
    open.pop_back();
    places[number] = place;
    if (number > 0) parents[place] = places[(number - 1) / 8];
    for (std::size_t below = std::min(8 * number + 9, devices); below-- > 8 * number + 1;) {
      open.push_back(below);
    }
  }
  return parents;
}

inline std::string numbered(const char* word, std::size_t number) {
  const std::string digits = std::to_string(number);
  return word + std::string(6 - digits.size(), '0') + digits;
}

inline void require(bool done, const std::string& error) {
  if (!done) throw std::logic_error(error);
}

inline std::string identifier(Shape shape, std::size_t place, std::size_t devices) {
  const bool racks = shape == Shape::RACKS || shape == Shape::RACKS_REPEATED;
  if (shape == Shape::RACKS_REPEATED && place == devices - 1) return "unit-3";
  if (racks && place % 9 != 1 && place > 0) return "unit-" + std::to_string((place - 1) % 9);
  return numbered("device-", place);
}

inline NodePtr makeDevice(const std::string& deviceId, std::size_t place) {
  const auto device = std::make_shared<DeviceNode>(deviceId, "Sensor " + std::to_string(place),
                                                   orv::proto::monitoring::DeviceNode::SENSOR);
  std::string error;
  const auto property = [&](const char* name, const std::string& value) {
    require(device->addProperty({name, Property::TYPE_STRING, value}, error), error);
  };
  property("firmware", "2.4." + std::to_string(place % 20));
  property("location", "hall 3, row 12, position " + std::to_string(place));
  property("model", "X200");
  property("serial", numbered("SN-", place));
  const auto status = [&](const char* name, NamedStatus::Type type,
                          const NamedStatus::Value& value) {
    require(device->addStatus({name, type, value}, error), error);
  };
  const auto number = static_cast<long>(place);
  status("current", NamedStatus::TYPE_DOUBLE, 0.25 * static_cast<double>(number));
  status("errors", NamedStatus::TYPE_UINT, 0UL);
  status("link", NamedStatus::TYPE_STRING, std::string("up"));
  status("mode", NamedStatus::TYPE_STRING, std::string("automatic, supervised"));
  status("offset", NamedStatus::TYPE_INT, -number);
  status("position", NamedStatus::TYPE_INT, number % 360);
  status("temperature", NamedStatus::TYPE_DOUBLE, 21.5);
  status("uptime", NamedStatus::TYPE_UINT, 86400UL);
  return device;
}

// The devices in walk order, the root first. They lie in memory in walk order or in an order that
// the seed shuffles.
inline std::vector<NodePtr> makeDevices(Shape shape, Memory memory, std::size_t count,
                                        unsigned seed) {
  std::vector<std::size_t> order(count);
  std::iota(order.begin(), order.end(), 0);
  if (memory == Memory::SCATTERED) {
    std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  }
  const std::vector<std::size_t> parents = parentPlaces(shape, count);
  std::vector<NodePtr> devices(count);
  for (const std::size_t place : order) {
    devices[place] = makeDevice(identifier(shape, place, count), place);
  }
  std::string error;
  for (const std::size_t place : order) {
    if (place == 0) continue;
    require(devices[parents[place]]->addSubDevice(devices[place], false, error), error);
  }
  return devices;
}

struct Setting {
  Shape shape;
  Memory memory;
  std::size_t devices;
};

inline bool operator==(const Setting& left, const Setting& right) {
  return left.shape == right.shape && left.memory == right.memory && left.devices == right.devices;
}

struct Trees {
  std::vector<NodePtr> snapshotDevices;  // in walk order
  std::vector<NodePtr> liveDevices;
  NodePtr snapshot;
  NodePtr live;
  std::size_t changes = 0;  // of statuses
  bool sameConfiguration = true;
};

inline Trees makeTrees(const Setting& setting) {
  Trees trees;
  trees.liveDevices = makeDevices(setting.shape, setting.memory, setting.devices, 1);
  trees.snapshotDevices = makeDevices(setting.shape, setting.memory, setting.devices, 2);
  trees.live = trees.liveDevices.front();
  trees.snapshot = trees.snapshotDevices.front();
  return trees;
}

// The status that ONE_STATUS changes: of the device in the middle of the walk.
inline std::shared_ptr<NamedStatus> oneStatus(const std::vector<NodePtr>& devices) {
  return devices[devices.size() / 2]->getStatus("uptime");
}

// Gives it the other one of its two values.
inline void toggle(NamedStatus& status) {
  status.setValue(boost::get<unsigned long>(status.getValue()) ^ 1UL);
}

// Makes the change the only difference between the trees, whatever was changed before.
inline void makeDiffer(Trees& trees, Change change) {
  const auto& live = trees.liveDevices;
  const auto middle = oneStatus(live);
  oneStatus(trees.snapshotDevices)->setValue(middle->getValue());
  if (change == Change::ONE_STATUS) toggle(*middle);
  trees.changes = change == Change::ONE_STATUS ? 1 : 0;

  const bool percent = change == Change::PERCENT_OF_STATUSES;
  for (std::size_t place = 0; place < live.size(); place += 25) {  // 2 of the 200 statuses of 25
    live[place]->getStatus("temperature")->setValue(percent ? 22.0 : 21.5);
    live[place]->getStatus("link")->setValue(std::string(percent ? "down" : "up"));
    if (percent) trees.changes += 2;
  }

  trees.sameConfiguration = change != Change::LAST_PROPERTY;
  const auto serial = [](const NodePtr& device) { return device->getProperties().at("serial"); };
  serial(live.back())->value = trees.sameConfiguration ? serial(trees.snapshotDevices.back())->value
                                                       : Property::Value(std::string("replaced"));
}

}  // namespace bench
