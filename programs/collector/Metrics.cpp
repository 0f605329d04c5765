#include "collector/Metrics.h"

#include <algorithm>
#include <array>
#include <boost/variant/apply_visitor.hpp>
#include <boost/variant/get.hpp>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "device_tree/Walk.h"

using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;
using orv::proto::monitoring::DeviceNode_DeviceClass_Name;
using orv::reporting::Condition;
using Samples = std::vector<Exposition::Sample>;
using Subject = Exposition::Subject;

namespace {

constexpr std::array<const char*, 3> levelNames = {"ok", "warning", "error"};
const std::array<std::pair<const char*, Condition>, 4> conditionNames = {
    {{"current", Condition::CURRENT},
     {"out_of_date", Condition::OUT_OF_DATE},
     {"reporter_gone", Condition::REPORTER_GONE},
     {"not_arrived", Condition::AWAITED}}};

std::string label(std::string_view name, const std::string& value) {
  std::string labels;
  addLabel(labels, name, value);
  return labels;
}

// Series of one status may come from statuses that have one name here: the first counts.
void add(Samples& samples, Subject subject, double value) {
  if (samples.empty() || samples.back().subject != subject) samples.push_back({subject, value});
}

// What becomes of the devices, one after the other.
class DeviceMetrics {
 public:
  DeviceMetrics(Exposition& metrics, const MetricOptions& options);

  // The labels are those of the root.
  void addTree(const std::string& rootLabels, const DeviceNode& tree);

 private:
  void addDevice(const std::string& rootLabels, const DeviceNode& device,
                 const std::string& deviceLabel, const DeviceNode* parent);
  void addStatus(const NamedStatus& status, Subject subject);
  void addState(const std::string& name, const std::string& state, Subject subject);
  Samples& samplesOf(const std::string& status);

  Exposition& metrics_;
  const MetricOptions& options_;
  Samples& info_;
  std::array<Samples*, 3> health_{};
  Exposition::Series* states_ = nullptr;
  std::unordered_map<std::string, Samples*> statuses_;  // by the name of the status
};

DeviceMetrics::DeviceMetrics(Exposition& metrics, const MetricOptions& options)
    : metrics_(metrics),
      options_(options),
      info_(
          metrics.family("orv_device_info",
                         "Name, class and parent of the device, and the chosen properties.")[""]) {
  auto& health = metrics.family(
      "orv_device_health", "1 for the level that the health of the device has, 0 for the others.");
  std::transform(levelNames.begin(), levelNames.end(), health_.begin(),
                 [&health](const char* name) { return &health[label("level", name)]; });
  states_ = &metrics.family("orv_device_state",
                            "1 for the text that the status of the device has, 0 for others.");
}

void DeviceMetrics::addTree(const std::string& rootLabels, const DeviceNode& tree) {
  // Of two devices that have one label, the first counts.
  std::unordered_set<std::string> labels;
  const auto addOnce = [&](const DeviceNode& device, const DeviceNode* parent) {
    const auto [deviceLabel, isNew] = labels.insert(labelOf(device.getDeviceId()));
    if (isNew) addDevice(rootLabels, device, *deviceLabel, parent);
  };
  addOnce(tree, nullptr);
  orv::device_tree::Walk walk(tree);
  while (const auto* device = walk.next()) addOnce(**device, &walk.parent());
}

void DeviceMetrics::addDevice(const std::string& rootLabels, const DeviceNode& device,
                              const std::string& deviceLabel, const DeviceNode* parent) {
  std::string labels = rootLabels;
  addLabel(labels, "device", deviceLabel);
  const Subject subject = metrics_.addSubject(labels);
  addLabel(labels, "name", labelOf(device.getName()));
  addLabel(labels, "class", DeviceNode_DeviceClass_Name(device.getDeviceClass()));
  if (parent != nullptr) addLabel(labels, "parent", labelOf(parent->getDeviceId()));
  for (const auto& [labelName, name] : options_.properties) {
    const auto property = device.getProperties().find(name);
    if (property == device.getProperties().end() || !property->second) continue;
    if (const auto* const text = boost::get<std::string>(&property->second->value)) {
      addLabel(labels, labelName, labelOf(*text));
    }
  }
  add(info_, metrics_.addSubject(labels), 1);
  const auto level = static_cast<std::size_t>(device.getGlobalStatus().level);
  for (std::size_t at = 0; at < health_.size(); ++at) {
    add(*health_.at(at), subject, at == level ? 1 : 0);
  }
  for (const auto& [key, status] : device.getStatuses()) {
    if (status && status->isValueSet()) addStatus(*status, subject);
  }
}

void DeviceMetrics::addStatus(const NamedStatus& status, Subject subject) {
  const auto addValue = [&](const auto& value) {
    if constexpr (std::is_arithmetic_v<std::decay_t<decltype(value)>>) {
      add(samplesOf(status.getName()), subject, static_cast<double>(value));
    } else if (!options_.states.empty()) {
      addState(status.getName(), value, subject);
    }
  };
  boost::apply_visitor(addValue, status.getValue());
}

void DeviceMetrics::addState(const std::string& name, const std::string& state, Subject subject) {
  const auto chosen = options_.states.find(name);
  if (chosen == options_.states.end()) return;
  const std::string present = labelOf(state);
  const auto addOne = [&](const std::string& text) {
    std::string labels = label("status", labelOf(name));
    addLabel(labels, "state", text);
    add((*states_)[labels], subject, text == present ? 1 : 0);
  };
  std::for_each(chosen->second.begin(), chosen->second.end(), addOne);
  addOne(present);
}

// Two names may become one name of a metric. So what had to be changed stands in a label.
Samples& DeviceMetrics::samplesOf(const std::string& status) {
  const auto [entry, isNew] = statuses_.try_emplace(status, nullptr);
  if (isNew) {
    const std::string name = nameOf(labelOf(status));
    auto& family = metrics_.family(
        "orv_status_" + name,
        "The status of the device. It is true while the root is up, however long ago it changed, "
        "and the last one known while it is not.",
        "untyped");
    entry->second = &family[name == status ? "" : label("status", labelOf(status))];
  }
  return *entry->second;
}

// What becomes of the roots, one after the other.
class RootMetrics {
 public:
  explicit RootMetrics(Exposition& metrics)
      : up_(metrics.family("orv_root_up",
                           "Whether the tree of the root is current. If not, what is told of its "
                           "devices is old.")),
        conditions_(metrics.family("orv_root_condition",
                                   "1 for the condition of the root, 0 for the others.")),
        devices_(metrics.family("orv_root_devices",
                                "How many of the devices of the root have the level.")),
        info_(metrics.family("orv_root_info", "Who reports the root.")),
        last_(metrics.family("orv_root_last_event_timestamp_seconds",
                             "When the last event of the root was applied.")),
        behind_(metrics.family(
            "orv_root_out_of_date",
            "1 for a root whose tree is out of date or has not arrived, with the reason.")) {}

  void add(const Fleet::Root& root, const orv::reporting::Collector::View& view, Subject subject);

 private:
  static void put(Exposition::Series& series, const std::string& labels, Subject subject,
                  double value) {
    series[labels].push_back({subject, value});
  }

  Exposition::Series& up_;
  Exposition::Series& conditions_;
  Exposition::Series& devices_;
  Exposition::Series& info_;
  Exposition::Series& last_;
  Exposition::Series& behind_;
};

void RootMetrics::add(const Fleet::Root& root, const orv::reporting::Collector::View& view,
                      Subject subject) {
  put(up_, "", subject, view.condition == Condition::CURRENT ? 1 : 0);
  for (const auto& [name, condition] : conditionNames) {
    put(conditions_, label("condition", name), subject, view.condition == condition ? 1 : 0);
  }
  put(info_, label("reporter", labelOf(view.reporter)), subject, 1);
  if (view.condition == Condition::OUT_OF_DATE || view.condition == Condition::AWAITED) {
    put(behind_, label("reason", labelOf(view.reason)), subject, 1);
  }
  if (const auto& summary = root.summary; summary.own) {
    const std::array<std::size_t, 3> counts = {summary.devices - summary.warnings - summary.errors,
                                               summary.warnings, summary.errors};
    for (std::size_t level = 0; level < counts.size(); ++level) {
      put(devices_, label("level", levelNames.at(level)), subject,
          static_cast<double>(counts.at(level)));
    }
  }
  if (view.tree) {
    const std::chrono::duration<double> time = root.lastEvent.time_since_epoch();
    put(last_, "", subject, time.count());
  }
}

void addCollector(const Fleet& fleet, Exposition& metrics) {
  const Subject none = metrics.addSubject("");
  metrics.family("orv_collector_connected",
                 "Whether the collector itself has a broker. Without one, every root is out of "
                 "date.")[""] = {{none, fleet.isConnected() ? 1.0 : 0.0}};
  auto& events =
      metrics.family("orv_collector_events_total", "Events that were applied.", "counter");
  for (const auto& [type, number] : fleet.events()) {
    std::string name = orv::reporting::Event::EventType_Name(type);
    for (char& letter : name) letter = static_cast<char>(std::tolower(letter));
    events[label("type", name)] = {{none, static_cast<double>(number)}};
  }
  const auto counter = [&](const char* name, const char* help, std::uint64_t value) {
    metrics.family(name, help, "counter")[""] = {{none, static_cast<double>(value)}};
  };
  using Outcome = orv::reporting::Follower::Outcome;
  const auto& counters = fleet.counters();
  const auto outcome = [&counters](Outcome which) {
    return counters.outcomes.at(static_cast<std::size_t>(which));
  };
  counter("orv_collector_gaps_total", "Events dropped because what comes before them is missing.",
          outcome(Outcome::GAP));
  counter("orv_collector_old_events_total", "Events dropped because they are old.",
          outcome(Outcome::OLD));
  counter("orv_collector_refused_total", "Events dropped because they break a rule.",
          outcome(Outcome::REFUSED));
  counter("orv_collector_strangers_total", "Messages that are none of the protocol's.",
          counters.strangers);
  counter("orv_collector_requests_total", "Trees that were asked for.", counters.requests);
}

void addHistory(const HistorySource& history, Exposition& metrics) {
  if (history.file.empty()) return;
  metrics.family("orv_history_recording",
                 "Whether what happens is recorded in the history.")[""] = {
      {metrics.addSubject(""), history.failure().empty() ? 1.0 : 0.0}};
}

}  // namespace

Exposition metricsOf(const Fleet& fleet, const HistorySource& history, const Partitions& partitions,
                     const MetricOptions& options) {
  constexpr std::size_t enough = 500;  // devices under one lock, unless one root has more
  std::vector<std::string> ids;
  Exposition metrics;
  addHistory(history, metrics);
  {
    const auto guard = fleet.lock();
    addCollector(fleet, metrics);
    for (const auto& [id, root] : fleet.roots()) {
      if (partitions.contain(id)) ids.push_back(id);
    }
  }
  DeviceMetrics devices(metrics, options);
  RootMetrics roots(metrics);
  std::unordered_set<std::string> labels;
  for (auto id = ids.begin(); id != ids.end();) {
    const auto guard = fleet.lock();
    for (std::size_t met = 0; id != ids.end() && met < enough; ++id) {
      const auto root = fleet.roots().find(*id);
      // Gone since, or its label is that of another.
      if (root == fleet.roots().end() || !labels.insert(labelOf(*id)).second) continue;
      const auto view = fleet.view(*id);
      const std::string rootLabels = label("root", labelOf(*id));
      roots.add(root->second, view, metrics.addSubject(rootLabels));
      if (view.tree) devices.addTree(rootLabels, *view.tree);
      met += 1 + root->second.summary.devices;
    }
  }
  return metrics;
}
