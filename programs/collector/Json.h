// What the collector tells of a fleet, as JSON.
#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

#include "collector/Fleet.h"

using Json = nlohmann::ordered_json;

// The text of it. Bytes that are not UTF-8 become U+FFFD.
std::string dump(const Json& json);

// In UTC, as RFC 3339 has it.
std::string textOf(std::chrono::system_clock::time_point time);

// A root in a list of the fleet.
Json jsonOf(const std::string& id, const Fleet::Summary& summary);

// What there is to tell of a root beside its tree.
void addHead(const orv::reporting::Collector::View& view, Json& json);

// The form that Protocol Buffers give the message of a tree; they write fewer levels than a tree
// may have. It is written and released by recursion. No tree that arrives has more than 98 levels:
// what parses its message refuses more.
Json jsonOf(const orv::device_tree::DeviceNode& root);

// The same of one device without those below it.
Json ownJsonOf(const orv::device_tree::DeviceNode& device);
