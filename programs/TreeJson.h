// Trees as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "device_tree/DeviceNode.h"

using Json = nlohmann::ordered_json;

// The text of it. Bytes that are not UTF-8 become U+FFFD.
std::string dump(const Json& json);

Json jsonOf(const orv::proto::monitoring::GlobalStatus& health);

// The form that Protocol Buffers give the message of a tree; they write fewer levels than a tree
// may have. It is written and released by recursion. No tree that arrives has more than 98 levels:
// what parses its message refuses more.
Json jsonOf(const orv::device_tree::DeviceNode& root);

// The same of one device without those below it.
Json ownJsonOf(const orv::device_tree::DeviceNode& device);
