#include "collector/Json.h"

#include <ctime>

std::string textOf(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts = {};
  gmtime_r(&seconds, &parts);
  std::string text(32, '\0');
  text.resize(std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts));
  return text;
}

Json jsonOf(const std::string& id, const Fleet::Summary& summary) {
  const auto worst = summary.worst();
  Json json = {{"id", id},
               {"name", summary.name},
               {"health", worst ? textOf(*worst) : "?"},
               {"health_since", textOf(summary.healthSince)},
               {"condition", textOf(summary.condition)},
               {"condition_since", textOf(summary.conditionSince)},
               {"devices", summary.devices},
               {"warnings", summary.warnings},
               {"errors", summary.errors}};
  // What the reporter says of the root as a whole.
  if (summary.own) json["global_status"] = jsonOf(summary.own->toProtoBuf());
  return json;
}

void addHead(const orv::reporting::Collector::View& view, Json& json) {
  json["condition"] = textOf(view.condition);
  json["reason"] = view.reason;
  json["reporter"] = view.reporter;
  json["sequence"] = view.sequence.text();
}
