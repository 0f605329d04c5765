// What users choose to see in the metrics beside what is always there.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

struct MetricOptions {
  // Properties that become labels of orv_device_info, by the name of the label.
  std::map<std::string, std::string> properties;
  // Statuses whose texts become series of orv_device_state, and the texts that always have one.
  std::map<std::string, std::vector<std::string>> states;
};

// The options of the command line; they are refused without `http`.
void addMetricOptions(CLI::App& app, MetricOptions& options, CLI::Option* http);
