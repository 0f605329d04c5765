// What the fuzzer holds trees against: a tree built step by step by the editing operations, and all
// that is in a tree as a text.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/PlainDefinition.h"

namespace plain {

namespace proto = orv::proto::monitoring;
using orv::device_tree::Property;

inline void walk(const NodePtr& node, std::vector<NodePtr>& nodes) {
  nodes.push_back(node);
  for (const auto& [key, subDevice] : node->getSubDevices()) walk(subDevice, nodes);
}

inline std::vector<NodePtr> walk(const NodePtr& root) {
  std::vector<NodePtr> nodes;
  if (root) walk(root, nodes);
  return nodes;
}

inline NodePtr construct(const proto::DeviceNode& message) {
  auto node = std::make_shared<DeviceNode>(message.id(), message.name(), message.device_class());
  std::string error;
  const auto require = [&](bool done) {
    if (!done) throw std::runtime_error(node->formatMessage(error));
  };
  for (const auto& property : message.properties()) {
    require(node->addProperty(Property(property), error));
  }
  node->setGlobalStatus(GlobalStatus(message.global_status()));
  for (const auto& status : message.statuses()) {
    require(node->addStatus(NamedStatus(status), error));
  }
  for (const auto& subDevice : message.sub_devices()) {
    require(node->addSubDevice(construct(subDevice), true, error));
  }
  return node;
}

// Everything that a tree holds, each value with its kind and bits, with `identity` also which
// objects hold it.
inline std::string dump(const DeviceNode& node, bool identity) {
  std::string out;
  const auto number = [&out](auto value) { out += std::to_string(value) + ' '; };
  const auto text = [&](const std::string& value) { number(value.size()), out += value; };
  const auto object = [&](const void* address) {
    if (identity) number(reinterpret_cast<std::uintptr_t>(address));
  };
  text(node.getDeviceId());
  text(node.getName());
  number(static_cast<int>(node.getDeviceClass()));
  number(static_cast<int>(node.getGlobalStatus().level));
  text(node.getGlobalStatus().message);
  out += "\nproperties ";
  for (const auto& [key, property] : node.getProperties()) {
    text(key), object(property.get()), text(property->name);
    number(static_cast<int>(property->type)), text(boost::get<std::string>(property->value));
  }
  out += "\nstatuses ";
  for (const auto& [key, status] : node.getStatuses()) {
    text(key), object(status.get()), text(status->getName());
    number(static_cast<int>(status->getType())), number(static_cast<int>(status->isValueSet()));
    const auto& value = status->getValue();
    number(value.which());
    if (const auto* signedNumber = boost::get<long>(&value)) number(*signedNumber);
    if (const auto* unsignedNumber = boost::get<unsigned long>(&value)) number(*unsignedNumber);
    if (const auto* words = boost::get<std::string>(&value)) text(*words);
    if (const auto* real = boost::get<double>(&value)) {
      std::uint64_t bits;
      std::memcpy(&bits, real, sizeof bits);
      number(bits);
    }
  }
  out += "\nsub-devices {";
  for (const auto& [key, subDevice] : node.getSubDevices()) {
    text(key), object(subDevice.get());
    out += dump(*subDevice, identity);
  }
  return out + "}\n";
}

// Whether a message says all there is in the tree: every object is filed under its own name or
// identifier, no identifier is empty or that of a node above, and types, levels and kinds of values
// are those that a message has.
inline bool isRegular(const DeviceNode& node, std::set<std::string> idsAbove = {}) {
  const auto known = [](int value, int end) { return value >= 0 && value < end; };
  if (!known(node.getGlobalStatus().level, 3)) return false;
  for (const auto& [key, property] : node.getProperties()) {
    if (key != property->name || property->type != Property::TYPE_STRING) return false;
  }
  for (const auto& [key, status] : node.getStatuses()) {
    static constexpr int KIND_OF_TYPE[] = {3, 0, 1, 2};  // the place in NamedStatus::Value
    if (key != status->getName() || !known(status->getType(), 4)) return false;
    if (status->isValueSet() && status->getValue().which() != KIND_OF_TYPE[status->getType()]) {
      return false;
    }
  }
  idsAbove.insert(node.getDeviceId());
  return std::all_of(node.getSubDevices().begin(), node.getSubDevices().end(), [&](auto& entry) {
    const auto& [key, subDevice] = entry;
    return !key.empty() && key == subDevice->getDeviceId() && idsAbove.count(key) == 0 &&
           isRegular(*subDevice, idsAbove);
  });
}

}  // namespace plain
