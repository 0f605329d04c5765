#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "history/Export.h"

namespace orv::history {

/// A moment in UTC, in milliseconds.
using Time = std::chrono::time_point<std::chrono::system_clock, std::chrono::milliseconds>;

/// As RFC 3339 writes it: "2026-11-24T10:15:51.250Z".
ORV_HISTORY_EXPORT std::string textOf(Time time);

/// Reads what RFC 3339 allows, with any offset and any number of digits behind the second, and also
/// "now", "90s ago", "5m ago", "2h ago" and "3d ago". Nothing for all else.
ORV_HISTORY_EXPORT std::optional<Time> timeOf(const std::string& text, Time now);

}  // namespace orv::history
