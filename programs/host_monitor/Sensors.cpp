#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <string>

#include "host_monitor/Facts.h"
#include "host_monitor/Identity.h"
#include "host_monitor/Part.h"
#include "host_monitor/Readers.h"

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using Class = orv::proto::monitoring::DeviceNode;

namespace {

struct Kind {
  const char* prefix;
  const char* measured;
  const char* unit;
  double scale;  // of the numbers in the files
};
constexpr std::array<Kind, 7> kinds = {{{"temp", "temperature", "celsius", 1e-3},
                                        {"fan", "fan speed", "rpm", 1},
                                        {"in", "voltage", "volts", 1e-3},
                                        {"curr", "current", "amperes", 1e-3},
                                        {"power", "power", "watts", 1e-6},
                                        {"energy", "energy", "joules", 1e-6},
                                        {"humidity", "humidity", "percent", 1e-3}}};

// One channel of a chip, and what it measures.
struct Channel {
  fs::path chip;
  std::string name;  // "temp1"
  const Kind& kind;

  std::optional<std::string> fact(const std::string& attribute) const {
    return line(chip / (name + "_" + attribute));
  }
  std::optional<double> value(const std::string& attribute) const {
    return times(number<double>(fact(attribute)), kind.scale);
  }
  bool isRaised(const std::string& alarm) const { return fact(alarm) == "1"; }
};

// The kind of a channel that has a reading; the file is one of a chip.
const Kind* kindOf(const std::string& file, const std::set<std::string>& files) {
  const std::size_t bar = file.find('_');
  const std::string name = file.substr(0, bar);
  const bool isRead =
      file == name + "_input" || (file == name + "_average" && files.count(name + "_input") == 0);
  const std::string prefix = name.substr(0, name.find_first_of("0123456789"));
  const auto found = std::find_if(kinds.begin(), kinds.end(),
                                  [&prefix](const Kind& kind) { return kind.prefix == prefix; });
  return isRead && found != kinds.end() ? &*found : nullptr;
}

// A pair of limits that a driver has not set up is upside down, or 0: many chips have such ones,
// and their alarms are raised all the time.
bool isSetUp(const std::optional<double>& lower, const std::optional<double>& upper) {
  if (lower && upper) return *lower < *upper;
  return (lower && *lower != 0) || (upper && *upper != 0);
}

void judge(const Channel& channel, const std::optional<double>& value, DeviceNode& device) {
  const std::string measured = channel.kind.measured;
  if (channel.isRaised("fault")) {
    worsen(device, GlobalStatus::LEVEL_ERROR, "fault");
    return;  // what it measures means nothing
  }
  const auto lowest = channel.value("lcrit");
  const auto crit = channel.value("crit");
  const auto emergency = channel.value("emergency");
  const bool hasHardLimits = isSetUp(lowest, crit);
  if (channel.isRaised("crit_alarm") || channel.isRaised("lcrit_alarm") ||
      channel.isRaised("emergency_alarm") ||
      (hasHardLimits && ((crit && value >= crit) || (lowest && value && *value < *lowest))) ||
      (isSetUp(std::nullopt, emergency) && value >= emergency)) {
    worsen(device, GlobalStatus::LEVEL_ERROR, "critical " + measured);
    return;
  }
  const auto min = channel.value("min");
  const auto max = channel.value("max");
  const bool hasLimits = isSetUp(min, max);
  if ((min || max) && !hasLimits) return;
  if (channel.isRaised("min_alarm") || (hasLimits && min && value && *value < *min)) {
    worsen(device, GlobalStatus::LEVEL_WARNING, measured + " below its minimum");
  } else if (channel.isRaised("max_alarm") || (hasLimits && max && value > max)) {
    worsen(device, GlobalStatus::LEVEL_WARNING, measured + " above its maximum");
  } else if (channel.isRaised("alarm")) {
    worsen(device, GlobalStatus::LEVEL_WARNING, measured + " alarm");
  }
}

void addChannel(const Channel& channel, const std::string& file, DeviceNode& device) {
  const std::string unit = channel.kind.unit;
  const std::string limitUnit = "_" + unit;
  const auto value = times(number<double>(line(channel.chip / file)), channel.kind.scale);
  addProperty(device, "label", channel.fact("label"));
  addProperty(device, "kernel_name", channel.chip.filename().string());
  setStatus(device, unit, value);
  for (const std::string limit : {"lcrit", "min", "max", "crit", "emergency"}) {
    if (!channel.fact(limit)) continue;
    setStatus(device, limit + limitUnit, channel.value(limit));
  }
  judge(channel, value, device);
}

Claims claimsOf(const fs::path& root, const fs::path& chip) {
  const std::string place = placeOf(root, chip);
  if (place.empty()) return {};
  const std::string name = claimOf(line(chip / "name"));
  const std::string exact = name.empty() ? "" : place + ":" + name;
  // What is no piece of hardware shares its place with others: "virtual/thermal/thermal_zone".
  if (place.rfind("virtual/", 0) == 0) return {exact};
  return {place, exact, pathOf(root, chip)};
}

}  // namespace

// The files are described in the kernel's Documentation/hwmon/sysfs-interface.rst.
void addSensors(const fs::path& root, DeviceNode& host) {
  const fs::path chips = root / "sys/class/hwmon";
  std::map<std::string, Claims> claims;
  for (const std::string& chip : entriesOf(chips)) claims[chip] = claimsOf(root, chips / chip);
  for (const auto& [chip, identity] : identitiesOf(claims)) {
    const std::string chipName = line(chips / chip / "name").value_or(chip);
    const auto files = entriesOf(chips / chip);
    for (const std::string& file : files) {
      const Kind* const kind = kindOf(file, files);
      if (kind == nullptr) continue;
      const Channel channel = {chips / chip, file.substr(0, file.find('_')), *kind};
      const fs::path id = fs::path("/" + identity) / channel.name;
      addChannel(channel, file, addPart(host, id, chipName, Class::SENSOR));
    }
  }
}
