// Shows a fleet over HTTP: a page, the JSON that the page reads, and metrics.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class Fleet;
struct HistorySource;
struct MetricOptions;

// Answers on threads of its own until what it returns is let go; the fleet must outlive that.
// Port 0 is any that is free. `log` gets the address of the page. Throws std::runtime_error when it
// cannot listen there.
std::shared_ptr<void> serveHttp(const std::string& address, std::uint16_t port, Fleet& fleet,
                                const MetricOptions& metricOptions, const HistorySource& history,
                                const std::function<void(const std::string&)>& log);
