#include "collector/MetricOptions.h"

#include <CLI/CLI.hpp>
#include <sstream>

#include "collector/Exposition.h"

namespace {

void addProperty(MetricOptions& options, const std::string& name) {
  const auto [entry, isNew] = options.properties.emplace("property_" + nameOf(name), name);
  if (isNew || entry->second == name) return;
  throw CLI::ValidationError("--metric-property", "'" + entry->second + "' and '" + name +
                                                      "' become one label, " + entry->first);
}

// NAME or NAME=STATE,STATE...
void addState(MetricOptions& options, const std::string& text) {
  const std::size_t end = text.find('=');
  if (end == 0) throw CLI::ValidationError("--metric-state", "no name before '='");
  auto& states = options.states[text.substr(0, end)];
  if (end == std::string::npos) return;
  std::istringstream rest(text.substr(end + 1));
  for (std::string state; std::getline(rest, state, ',');) states.push_back(labelOf(state));
}

}  // namespace

void addMetricOptions(CLI::App& app, MetricOptions& options, CLI::Option* http) {
  const auto each = [&options](void (*add)(MetricOptions&, const std::string&)) {
    return [&options, add](const std::vector<std::string>& texts) {
      for (const std::string& text : texts) add(options, text);
    };
  };
  app.add_option_function<std::vector<std::string>>(
         "--metric-property", each(addProperty),
         "with --http: make this property of devices the label\n"
         "property_NAME of orv_device_info; may be given several times")
      ->option_text("NAME")
      ->allow_extra_args(false)
      ->needs(http);
  app.add_option_function<std::vector<std::string>>(
         "--metric-state", each(addState),
         "with --http: make this status, a text, series of orv_device_state:\n"
         "1 for the text that it has, and 0 for the others that are given\n"
         "here; may be given several times")
      ->option_text("NAME[=TEXT,TEXT...]")
      ->allow_extra_args(false)
      ->needs(http);
}
