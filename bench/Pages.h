// Open pages of a collector, beside events.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace bench {

// What the collector program spends on many open pages, each of which follows a root of its own,
// and how long news take to get there. `report` is run in a process of its own, see there; a root
// is called root-N, and a status of its topmost device says when its latest change was due.
nlohmann::json measurePages(const std::string& broker, const std::string& collector,
                            const std::function<void(int control)>& report, bool quick);

}  // namespace bench
