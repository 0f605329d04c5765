// Trees for the tests: short ways to build one, random ones, and access from inside.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "device_tree/DeviceNode.h"

namespace orv::device_tree {

/// Reaches what the public operations keep away: entries without an object.
struct DeviceNodePeer {
  static auto& properties(DeviceNode& node) { return node.properties; }
  static auto& statuses(DeviceNode& node) { return node.statuses; }
  static auto& subDevices(DeviceNode& node) { return node.subDevices; }
};

inline void PrintTo(const Property& value, std::ostream* out) { *out << value.debugString(); }
inline void PrintTo(const NamedStatus& value, std::ostream* out) { *out << value.debugString(); }
inline void PrintTo(const GlobalStatus& value, std::ostream* out) { *out << value.debugString(); }
inline void PrintTo(const DeviceNode& value, std::ostream* out) { *out << value.debugString(); }

}  // namespace orv::device_tree

namespace trees {

using orv::device_tree::DeviceNode;
using orv::device_tree::DeviceNodePeer;
using orv::device_tree::GlobalStatus;
using orv::device_tree::NamedStatus;
using orv::device_tree::Property;
using NodePtr = std::shared_ptr<DeviceNode>;

inline constexpr auto UNKNOWN = orv::proto::monitoring::DeviceNode::UNKNOWN;
inline constexpr auto RACK = orv::proto::monitoring::DeviceNode::RACK;

/// Attaches a sub-device and returns it.
inline NodePtr attach(DeviceNode& parent, const NodePtr& subDevice) {
  std::string error;
  EXPECT_TRUE(parent.addSubDevice(subDevice, false, error)) << error;
  return subDevice;
}

/// A node with sub-devices: node("root", {node("a"), node("b")}).
inline NodePtr node(const std::string& id, const std::vector<NodePtr>& subDevices = {}) {
  auto made = std::make_shared<DeviceNode>(id, "name of " + id, UNKNOWN);
  for (const auto& subDevice : subDevices) attach(*made, subDevice);
  return made;
}

/// Attaches a node without an identifier, so under the empty key, and then gives it one.
inline NodePtr attachLate(DeviceNode& parent, const std::string& id, const NodePtr& subDevice) {
  std::string error;
  attach(parent, subDevice);
  EXPECT_TRUE(subDevice->setDeviceId(id, error)) << error;
  return subDevice;
}

inline void addProperty(DeviceNode& device, const std::string& name, const std::string& value) {
  std::string error;
  EXPECT_TRUE(device.addProperty(Property(name, Property::TYPE_STRING, value), error)) << error;
}

inline void addStatus(DeviceNode& device, const NamedStatus& status) {
  std::string error;
  EXPECT_TRUE(device.addStatus(status, error)) << error;
}

/// Every node of a tree, the root first.
inline std::vector<NodePtr> allNodes(const NodePtr& root) {
  std::vector<NodePtr> nodes{root};
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const auto subDevices = nodes[i]->getSubDevices();
    for (const auto& [key, subDevice] : subDevices) {
      if (subDevice) nodes.push_back(subDevice);
    }
  }
  return nodes;
}

/// Random trees and values; the same seed gives the same ones.
class Random {
 public:
  explicit Random(unsigned int seed) : engine_(seed) {}

  std::size_t below(std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(engine_);
  }
  bool oneIn(std::size_t n) { return below(n) == 0; }
  template <typename Container>
  const auto& pick(const Container& choices) {
    return *std::next(choices.begin(), static_cast<std::ptrdiff_t>(below(choices.size())));
  }

  std::string text() {
    static const std::vector<std::string> TEXTS{
        "", "a", "A", "ab", "\xc3\xa9", "\xff", std::string("a\0b", 3), "two words"};
    return pick(TEXTS);
  }

  NamedStatus::Value value(NamedStatus::Type type) {
    switch (type) {
      case NamedStatus::TYPE_STRING:
        return text();
      case NamedStatus::TYPE_INT:
        return static_cast<long>(below(1000)) - 500;
      case NamedStatus::TYPE_UINT:
        return static_cast<unsigned long>(below(1000));
      default:
        return static_cast<double>(below(1000)) / 8;
    }
  }

  NamedStatus status(const std::string& name) {
    const auto type = static_cast<NamedStatus::Type>(below(4));
    return oneIn(4) ? NamedStatus(name, type) : NamedStatus(name, type, value(type));
  }

  GlobalStatus health() { return {static_cast<GlobalStatus::Level>(below(3)), text()}; }

  NodePtr device(const std::string& id) {
    auto made =
        std::make_shared<DeviceNode>(id, text(), static_cast<DeviceNode::DeviceClass>(below(10)));
    made->setGlobalStatus(health());
    for (std::size_t i = below(4); i > 0; --i) addProperty(*made, "p" + std::to_string(i), text());
    for (std::size_t i = below(4); i > 0; --i) addStatus(*made, status("s" + std::to_string(i)));
    return made;
  }

  /// A tree of `size` devices of different identifiers.
  NodePtr tree(std::size_t size) {
    std::vector<NodePtr> nodes{device("root")};
    while (nodes.size() < size) {
      const NodePtr parent = nodes[oneIn(3) ? nodes.size() - 1 : below(nodes.size())];
      nodes.push_back(attach(*parent, device("d" + std::to_string(nodes.size()))));
    }
    return nodes.front();
  }

  /// A tree of at most `size` devices in which identifiers repeat, are empty or were set late.
  NodePtr tangledTree(std::size_t size) {
    static const std::vector<std::string> IDS{"", "a", "b", "c", "d"};
    std::vector<NodePtr> nodes{plainDevice(oneIn(8) ? "b" : "a")};
    std::string error;
    for (std::size_t attempt = 1; attempt < size; ++attempt) {
      const NodePtr parent = pick(nodes);
      const bool late = oneIn(3);
      const NodePtr made = plainDevice(late ? "" : pick(IDS));
      if (parent->addSubDevice(made, oneIn(8), error)) nodes.push_back(made);
      if (late) made->setDeviceId(oneIn(3) ? parent->getDeviceId() : pick(IDS), error);
      if (oneIn(12)) parent->addSubDevice(pick(nodes), false, error);  // in a second place
      if (oneIn(12)) DeviceNodePeer::subDevices(*parent)["empty"] = nullptr;
    }
    return nodes.front();
  }

  /// Files one sub-device of some nodes under the empty key, as if its identifier had been set
  /// late.
  void fileLate(const NodePtr& root) {
    for (const NodePtr& node : allNodes(root)) {
      auto& subDevices = DeviceNodePeer::subDevices(*node);
      if (subDevices.empty() || subDevices.count("") != 0 || oneIn(2)) continue;
      auto entry = subDevices.extract(
          std::next(subDevices.begin(), static_cast<std::ptrdiff_t>(below(subDevices.size()))));
      entry.key() = "";
      subDevices.insert(std::move(entry));
    }
  }

 private:
  /// So little in it that two of them often have the same configuration.
  NodePtr plainDevice(const std::string& id) {
    auto made = std::make_shared<DeviceNode>(id, oneIn(12) ? "other" : "", UNKNOWN);
    if (oneIn(4)) made->setGlobalStatus(health());
    addStatus(*made, NamedStatus("s", NamedStatus::TYPE_INT, static_cast<long>(below(3))));
    return made;
  }

  std::mt19937 engine_;
};

}  // namespace trees
