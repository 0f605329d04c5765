#pragma once

#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <vector>

#include "device_tree/Utils.h"

namespace nodes {

using namespace orv::device_tree;
namespace proto = orv::proto::monitoring;
using Event = proto::DeviceToOrvServiceEvent;
using NodePtr = std::shared_ptr<DeviceNode>;
using utils::EventHelper;

template <typename Message>
Message parse(const std::string& text) {
  Message message;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &message)) << text;
  return message;
}

inline void attach(DeviceNode& parent, const NodePtr& subDevice) {
  std::string error;
  EXPECT_TRUE(parent.addSubDevice(subDevice, false, error)) << error;
}

inline NodePtr node(const std::string& id, const std::vector<NodePtr>& subDevices = {}) {
  auto made = std::make_shared<DeviceNode>(id, "name of " + id, proto::DeviceNode::UNKNOWN);
  for (const auto& subDevice : subDevices) attach(*made, subDevice);
  return made;
}

}  // namespace nodes
