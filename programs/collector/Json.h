// What the collector tells of a fleet, as JSON.
#pragma once

#include <chrono>
#include <string>

#include "TreeJson.h"
#include "collector/Fleet.h"

// In UTC, as RFC 3339 has it.
std::string textOf(std::chrono::system_clock::time_point time);

// A root in a list of the fleet.
Json jsonOf(const std::string& id, const Fleet::Summary& summary);

// What there is to tell of a root beside its tree.
void addHead(const orv::reporting::Collector::View& view, Json& json);
