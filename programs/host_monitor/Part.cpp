#include "host_monitor/Part.h"

#include <algorithm>

using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using orv::device_tree::Property;

DeviceNode& addPart(DeviceNode& host, const std::string& id, const std::string& name,
                    DeviceNode::DeviceClass deviceClass) {
  const auto part = std::make_shared<DeviceNode>(host.getDeviceId() + id, name, deviceClass);
  std::string refusal;
  if (!host.addSubDevice(part, true, refusal)) throw std::logic_error(refusal);
  return *part;
}

void addProperty(DeviceNode& device, const std::string& name,
                 const std::optional<std::string>& value) {
  const Property property(name, Property::TYPE_STRING, value.value_or("unknown"));
  std::string refusal;
  if (!device.addProperty(property, refusal)) throw std::logic_error(refusal);
}

void addKnownProperty(DeviceNode& device, const std::string& name,
                      const std::optional<std::string>& value) {
  if (value && !value->empty()) addProperty(device, name, value);
}

void worsen(DeviceNode& device, GlobalStatus::Level level, const std::string& text) {
  const GlobalStatus& before = device.getGlobalStatus();
  const std::string all = before.message.empty() ? text : before.message + ", " + text;
  device.setGlobalStatus(GlobalStatus(std::max(before.level, level), all));
}
