// The parts of a host, and what is said of each.
//
// A property or a status that every device of a kind has is always there: "unknown", or not set,
// where it cannot be read. One that only some devices have is there with its file.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "device_tree/DeviceNode.h"

// The identifier follows that of the host. A part takes the place of an earlier one, as a
// filesystem hides what was mounted there before.
orv::device_tree::DeviceNode& addPart(orv::device_tree::DeviceNode& host, const std::string& id,
                                      const std::string& name,
                                      orv::device_tree::DeviceNode::DeviceClass deviceClass);

void addProperty(orv::device_tree::DeviceNode& device, const std::string& name,
                 const std::optional<std::string>& value);
// Where it is known.
void addKnownProperty(orv::device_tree::DeviceNode& device, const std::string& name,
                      const std::optional<std::string>& value);

// Makes the device as unwell as this, unless it is more unwell already, and adds the text to what
// it says of itself.
void worsen(orv::device_tree::DeviceNode& device, orv::device_tree::GlobalStatus::Level level,
            const std::string& text);

// The value may be a text, an unsigned long or a double, whose types know "not set" from 0.
template <typename Value>
void setStatus(orv::device_tree::DeviceNode& device, const std::string& name,
               const std::optional<Value>& value) {
  using orv::device_tree::NamedStatus;
  constexpr auto type = std::is_same_v<Value, std::string>     ? NamedStatus::TYPE_STRING
                        : std::is_same_v<Value, unsigned long> ? NamedStatus::TYPE_UINT
                                                               : NamedStatus::TYPE_DOUBLE;
  std::string refusal;
  std::shared_ptr<NamedStatus> status = device.getStatus(name);
  if (!status) {
    if (!device.addStatus(NamedStatus(name, type), refusal)) throw std::logic_error(refusal);
    status = device.getStatus(name);
  }
  status->unsetValue();
  if (value) status->setValue(*value);
}
