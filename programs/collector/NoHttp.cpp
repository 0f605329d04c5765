// Stands in for Http.cpp where what that needs is not installed.
#include <stdexcept>

#include "collector/Http.h"

std::shared_ptr<void> serveHttp(const std::string& /*address*/, std::uint16_t /*port*/,
                                Fleet& /*fleet*/, const MetricOptions& /*metricOptions*/,
                                const HistorySource& /*history*/,
                                const std::function<void(const std::string&)>& /*log*/) {
  throw std::runtime_error("--http: built without zlib and nlohmann-json");
}
