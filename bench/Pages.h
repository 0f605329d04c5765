// Open pages of a collector, beside events.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace bench {

// What the collector program spends on many open pages, each of which follows a root of its own,
// and how long news take to get there.
nlohmann::json measurePages(const std::string& settings, const std::string& collector, bool quick);

}  // namespace bench
