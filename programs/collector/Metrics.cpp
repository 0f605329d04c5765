#include "collector/Metrics.h"

#include <prometheus/text_serializer.h>

#include <array>
#include <boost/locale/utf.hpp>
#include <boost/variant/apply_visitor.hpp>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <type_traits>
#include <unordered_set>

#include "device_tree/Walk.h"

using orv::device_tree::DeviceNode;
using orv::proto::monitoring::DeviceNode_DeviceClass_Name;
using orv::reporting::Condition;
using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace {

using Labels = std::vector<ClientMetric::Label>;
using Series = std::vector<ClientMetric>;

// The first 256 bytes of the text, in whole characters, with U+FFFD in place of each byte that is
// not part of a character, and of NUL, at which Prometheus stops to read.
std::string labelOf(const std::string& text) {
  constexpr std::size_t mostBytes = 256;
  using Utf8 = boost::locale::utf::utf_traits<char>;
  std::string result;
  for (auto at = text.begin(); at != text.end();) {
    auto end = at;
    const auto point = Utf8::decode(end, text.end());
    const bool isGood = boost::locale::utf::is_valid_codepoint(point) && point != 0;
    if (!isGood) end = at + 1;
    const std::string character = isGood ? std::string(at, end) : "\xEF\xBF\xBD";
    if (result.size() + character.size() > mostBytes) break;
    result += character;
    at = end;
  }
  return result;
}

void add(Series& series, Labels labels, double value) {
  ClientMetric& metric = series.emplace_back();
  metric.label = std::move(labels);
  metric.gauge.value = metric.counter.value = value;  // the family says which of the two counts
}

void addInfo(const std::string& root, const DeviceNode& device, const std::string& label,
             Series& series) {
  const std::string& kind = DeviceNode_DeviceClass_Name(device.getDeviceClass());
  add(series,
      {{"root", root}, {"device", label}, {"name", labelOf(device.getName())}, {"class", kind}}, 1);
}

constexpr std::array<const char*, 3> levelNames = {"ok", "warning", "error"};

void addHealth(const std::string& root, const DeviceNode& device, const std::string& label,
               Series& series) {
  int level = 0;
  for (const char* const name : levelNames) {
    add(series, {{"root", root}, {"device", label}, {"level", name}},
        device.getGlobalStatus().level == level ? 1 : 0);
    ++level;
  }
}

void addStatuses(const std::string& root, const DeviceNode& device, const std::string& label,
                 Series& series) {
  std::unordered_set<std::string> names;
  for (const auto& [key, status] : device.getStatuses()) {
    if (!status || !status->isValueSet()) continue;
    const auto addNumber = [&, name = &status->getName()](const auto& value) {
      if constexpr (std::is_arithmetic_v<std::decay_t<decltype(value)>>) {
        const auto [text, isNew] = names.insert(labelOf(*name));
        if (!isNew) return;
        add(series, {{"root", root}, {"device", label}, {"status", *text}},
            static_cast<double>(value));
      }
    };
    boost::apply_visitor(addNumber, status->getValue());
  }
}

// The families that grow with the number of devices.
struct Family {
  const char* name;
  const char* help;
  void (*add)(const std::string& root, const DeviceNode& device, const std::string& label,
              Series& series);
};
const std::array<Family, 3> families = {{
    {"orv_device_info", "Name and class of the device.", addInfo},
    {"orv_device_health", "1 for the level that the health of the device has, 0 for the others.",
     addHealth},
    {"orv_device_status",
     "A status of the device that is a number. It is true while the root is up, however long ago "
     "it changed, and the last one known while it is not.",
     addStatuses},
}};

const std::array<std::pair<const char*, Condition>, 4> conditionNames = {
    {{"current", Condition::CURRENT},
     {"out_of_date", Condition::OUT_OF_DATE},
     {"reporter_gone", Condition::REPORTER_GONE},
     {"not_arrived", Condition::AWAITED}}};

MetricFamily counter(const char* name, const char* help, std::uint64_t value) {
  MetricFamily result = {name, help, MetricType::Counter, {}};
  add(result.metric, {}, static_cast<double>(value));
  return result;
}

}  // namespace

Metrics::Metrics(const Fleet& fleet, const Partitions& partitions) : fleet_(fleet) {
  constexpr std::size_t enough = 500;  // devices in a piece, unless one root has more
  const auto guard = fleet.lock();
  std::unordered_set<std::string> labels;
  std::size_t devices = 0;
  for (const auto& [id, root] : fleet.roots()) {
    if (!partitions.contain(id)) continue;
    const auto [label, isNew] = labels.insert(labelOf(id));
    if (!isNew) continue;
    if (!roots_.empty() && devices + root.summary.devices > enough) {
      ends_.push_back(roots_.size());
      devices = 0;
    }
    devices += 1 + root.summary.devices;
    roots_.emplace_back(id, *label);
  }
  ends_.push_back(roots_.size());
}

std::vector<MetricFamily> Metrics::collect() const {
  const auto guard = fleet_.lock();
  return family_ == families.size() ? collectTotals() : collectDevices();
}

std::vector<MetricFamily> Metrics::collectDevices() const {
  const Family& family = families.at(family_);
  MetricFamily result = {family.name, piece_ == 0 ? family.help : "", MetricType::Gauge, {}};
  for (std::size_t at = piece_ == 0 ? 0 : ends_[piece_ - 1]; at < ends_[piece_]; ++at) {
    if (fleet_.roots().count(roots_[at].first) == 0) continue;  // gone since
    const auto view = fleet_.view(roots_[at].first);
    if (!view.tree) continue;
    std::unordered_set<std::string> labels;
    orv::device_tree::anyNode(*view.tree, [&](const DeviceNode& device) {
      // Of two that have one label, the first counts: a reader refuses the whole answer when two
      // series are equal.
      const auto [label, isNew] = labels.insert(labelOf(device.getDeviceId()));
      if (isNew) family.add(roots_[at].second, device, *label, result.metric);
      return false;
    });
  }
  return {std::move(result)};
}

std::vector<MetricFamily> Metrics::collectTotals() const {
  MetricFamily up = {"orv_root_up",
                     "Whether the tree of the root is current. If not, what is told of its devices "
                     "is old.",
                     MetricType::Gauge,
                     {}};
  MetricFamily conditions = {"orv_root_condition",
                             "1 for the condition of the root, 0 for the others.",
                             MetricType::Gauge,
                             {}};
  MetricFamily health = {"orv_root_devices",
                         "How many of the devices of the root have the level.",
                         MetricType::Gauge,
                         {}};
  MetricFamily info = {"orv_root_info", "Who reports the root.", MetricType::Gauge, {}};
  MetricFamily connected = {"orv_collector_connected",
                            "Whether the collector itself has a broker. Without one, every root is "
                            "out of date.",
                            MetricType::Gauge,
                            {}};
  add(connected.metric, {}, fleet_.isConnected() ? 1 : 0);
  MetricFamily last = {"orv_root_last_event_timestamp_seconds",
                       "When the last event of the root was applied.",
                       MetricType::Gauge,
                       {}};
  MetricFamily behind = {
      "orv_root_out_of_date",
      "1 for a root whose tree is out of date or has not arrived, with the reason.",
      MetricType::Gauge,
      {}};
  for (const auto& [id, label] : roots_) {
    const auto entry = fleet_.roots().find(id);
    if (entry == fleet_.roots().end()) continue;
    const auto view = fleet_.view(id);
    if (view.condition == Condition::OUT_OF_DATE || view.condition == Condition::AWAITED) {
      add(behind.metric, {{"root", label}, {"reason", labelOf(view.reason)}}, 1);
    }
    add(up.metric, {{"root", label}}, view.condition == Condition::CURRENT ? 1 : 0);
    for (const auto& [name, condition] : conditionNames) {
      add(conditions.metric, {{"root", label}, {"condition", name}},
          view.condition == condition ? 1 : 0);
    }
    add(info.metric, {{"root", label}, {"reporter", labelOf(view.reporter)}}, 1);
    if (const auto& summary = entry->second.summary; summary.own) {
      const std::array<std::size_t, 3> counts = {
          summary.devices - summary.warnings - summary.errors, summary.warnings, summary.errors};
      for (std::size_t level = 0; level < counts.size(); ++level) {
        add(health.metric, {{"root", label}, {"level", levelNames.at(level)}},
            static_cast<double>(counts.at(level)));
      }
    }
    if (view.tree) {
      const std::chrono::duration<double> time = entry->second.lastEvent.time_since_epoch();
      add(last.metric, {{"root", label}}, time.count());
    }
  }
  MetricFamily events = {
      "orv_collector_events_total", "Events that were applied.", MetricType::Counter, {}};
  for (const auto& [type, number] : fleet_.events()) {
    std::string name = orv::reporting::Event::EventType_Name(type);
    for (char& letter : name) letter = static_cast<char>(std::tolower(letter));
    add(events.metric, {{"type", name}}, static_cast<double>(number));
  }
  using Outcome = orv::reporting::Follower::Outcome;
  const auto& counters = fleet_.counters();
  const auto outcome = [&counters](Outcome which) {
    return counters.outcomes.at(static_cast<std::size_t>(which));
  };
  return {
      std::move(up),
      std::move(conditions),
      std::move(info),
      std::move(health),
      std::move(behind),
      std::move(last),
      std::move(events),
      std::move(connected),
      counter("orv_collector_gaps_total",
              "Events dropped because what comes before them is missing.", outcome(Outcome::GAP)),
      counter("orv_collector_old_events_total", "Events dropped because they are old.",
              outcome(Outcome::OLD)),
      counter("orv_collector_refused_total", "Events dropped because they break a rule.",
              outcome(Outcome::REFUSED)),
      counter("orv_collector_strangers_total", "Messages that are none of the protocol's.",
              counters.strangers),
      counter("orv_collector_requests_total", "Trees that were asked for.", counters.requests)};
}

std::string Metrics::next() {
  std::string text;
  while (text.empty() && family_ <= families.size()) {
    text = prometheus::TextSerializer().Serialize(collect());
    if (piece_ > 0) text.erase(0, text.find('\n') + 1);  // the type: the first piece has told it
    if (++piece_ == ends_.size() || family_ == families.size()) {
      piece_ = 0;
      ++family_;
    }
  }
  return text;
}
