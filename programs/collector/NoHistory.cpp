// Stands in for FleetHistory.cpp and HistoryHttp.cpp where what they need is not installed.
#include <stdexcept>

#include "collector/FleetHistory.h"
#include "collector/HistoryHttp.h"

struct FleetHistory::Core {};

FleetHistory::FleetHistory(const HistoryOptions& /*options*/,
                           std::function<void(const std::string&)> /*log*/) {
  throw std::runtime_error("--history: built without SQLite");
}
FleetHistory::~FleetHistory() = default;
void FleetHistory::resume(Fleet& /*fleet*/) {}
void FleetHistory::record(const std::string& /*root*/, const orv::reporting::Step& /*step*/) {}
void FleetHistory::forget(const std::string& /*root*/) {}
void FleetHistory::serve(bool /*isConnected*/) {}
std::string FleetHistory::failure() const { return ""; }

std::optional<HttpAnswer> answerHistory(const HistorySource& /*source*/,
                                        const HttpRequest& /*request*/) {
  return std::nullopt;
}
