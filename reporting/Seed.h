#pragma once

#include <cstdint>

#include "reporting/Export.h"

namespace orv::reporting {

/// A number from the system's random device, for a process or a connection that shall differ from
/// every other one. Any thread may call it. Throws std::exception when there is no such device.
ORV_REPORTING_EXPORT std::uint64_t drawSeed();

}  // namespace orv::reporting
