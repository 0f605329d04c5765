#include <array>
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

struct Reading {
  const char* file;
  const char* status;
  double scale;
};
constexpr std::array<Reading, 7> readings = {{{"voltage_now", "volts", 1e-6},
                                              {"current_now", "amperes", 1e-6},
                                              {"power_now", "watts", 1e-6},
                                              {"energy_now", "joules", 3.6e-3},  // of uWh
                                              {"temp", "celsius", 0.1},
                                              {"capacity", "charge_percent", 1},
                                              {"cycle_count", "charge_cycles", 1}}};

std::string claimOfSupply(const fs::path& directory) {
  const std::string serial = claimOf(line(directory / "serial_number"));
  const std::string model = claimOf(line(directory / "model_name"));
  return serial.empty() || model.empty() ? serial : model + "_" + serial;
}

void judge(const fs::path& directory, DeviceNode& device) {
  const std::string health = line(directory / "health").value_or("Unknown");
  const std::string charge = line(directory / "capacity_level").value_or("Unknown");
  if (health == "Dead" || health == "Unspecified failure" || health == "Over voltage") {
    worsen(device, GlobalStatus::LEVEL_ERROR, health);
  } else if (health != "Good" && health != "Unknown") {
    worsen(device, GlobalStatus::LEVEL_WARNING, health);
  }
  if (charge == "Critical") worsen(device, GlobalStatus::LEVEL_ERROR, "charge critical");
  if (charge == "Low") worsen(device, GlobalStatus::LEVEL_WARNING, "charge low");
}

}  // namespace

// The files are described in the kernel's Documentation/ABI/testing/sysfs-class-power.
void addPowerSupplies(const fs::path& root, DeviceNode& host) {
  const fs::path supplies = root / "sys/class/power_supply";
  std::map<std::string, Claims> claims;
  for (const std::string& name : entriesOf(supplies)) {
    claims[name] = {claimOfSupply(supplies / name)};
  }
  for (const auto& [name, identity] : identitiesOf(claims)) {
    const fs::path directory = supplies / name;
    DeviceNode& device = addPart(host, "/power/" + identity, name, Class::POWER_SUPPLY);
    addProperty(device, "type", line(directory / "type"));
    addKnownProperty(device, "model", line(directory / "model_name"));
    addKnownProperty(device, "maker", line(directory / "manufacturer"));
    addKnownProperty(device, "serial", line(directory / "serial_number"));
    if (const auto state = line(directory / "status")) setStatus(device, "state", state);
    for (const std::string flag : {"online", "present"}) {
      const auto text = line(directory / flag);
      if (text) setStatus(device, flag, number<unsigned long>(text));
    }
    for (const auto& [file, status, scale] : readings) {
      const auto text = line(directory / file);
      if (text) setStatus(device, status, times(number<double>(text), scale));
    }
    judge(directory, device);
  }
}
