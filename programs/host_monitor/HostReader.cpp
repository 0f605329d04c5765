#include "HostReader.h"

#include <mntent.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using orv::device_tree::NamedStatus;
using orv::device_tree::Property;
using Class = orv::proto::monitoring::DeviceNode;

namespace {

std::set<std::string> entries(const fs::path& directory) {
  std::set<std::string> names;
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    names.insert(entry->path().filename());
  }
  return names;
}

// The first line that starts so, without that start and the blanks around the rest.
std::optional<std::string> line(const fs::path& file, const std::string& start = "") {
  const std::string blanks(" \t:\0", 4);
  std::ifstream stream(file);
  for (std::string text; std::getline(stream, text);) {
    if (text.rfind(start, 0) != 0) continue;
    text.erase(text.find_last_not_of(blanks) + 1);
    return text.substr(std::min(text.size(), text.find_first_not_of(blanks, start.size())));
  }
  return std::nullopt;
}

// The number in that column of the text.
template <typename Number>
std::optional<Number> number(const std::optional<std::string>& text, unsigned int column = 0) {
  std::istringstream stream(text.value_or(""));
  for (std::string passedOver; column > 0; --column) stream >> passedOver;
  Number value{};
  return stream >> value ? std::optional(value) : std::nullopt;
}

template <typename Number>
std::optional<Number> times(const std::optional<Number>& count, Number unit) {
  return count ? std::optional(*count * unit) : std::nullopt;
}

void addProperty(DeviceNode& device, const std::string& name,
                 const std::optional<std::string>& value) {
  const Property property(name, Property::TYPE_STRING, value.value_or("unknown"));
  std::string refusal;
  if (!device.addProperty(property, refusal)) throw std::logic_error(refusal);
}

template <typename Value>
void setStatus(DeviceNode& device, const std::string& name, const std::optional<Value>& value) {
  constexpr auto type = std::is_same_v<Value, std::string>     ? NamedStatus::TYPE_STRING
                        : std::is_same_v<Value, long>          ? NamedStatus::TYPE_INT
                        : std::is_same_v<Value, unsigned long> ? NamedStatus::TYPE_UINT
                                                               : NamedStatus::TYPE_DOUBLE;
  std::string refusal;
  std::shared_ptr<NamedStatus> status = device.getStatus(name);
  if (!status) {
    if (!device.addStatus(NamedStatus(name, type), refusal)) throw std::logic_error(refusal);
    status = device.getStatus(name);
  }
  status->unsetValue();
  if (value) status->setValue(*value);
}

void warnIf(bool condition, DeviceNode& device, const std::string& text) {
  device.setGlobalStatus(condition ? GlobalStatus(GlobalStatus::LEVEL_WARNING, text)
                                   : GlobalStatus());
}

// A part takes the place of an earlier one, as a filesystem hides what was mounted there before.
DeviceNode& addPart(DeviceNode& host, const std::string& id, const std::string& name,
                    DeviceNode::DeviceClass deviceClass) {
  const auto part = std::make_shared<DeviceNode>(host.getDeviceId() + id, name, deviceClass);
  std::string refusal;
  if (!host.addSubDevice(part, true, refusal)) throw std::logic_error(refusal);
  return *part;
}

void addMemory(const fs::path& file, DeviceNode& host) {
  DeviceNode& memory = addPart(host, "/memory", "memory", Class::MEMORY);
  const auto total = number<unsigned long>(line(file, "MemTotal"));
  const auto available = number<unsigned long>(line(file, "MemAvailable"));
  addProperty(memory, "size", line(file, "MemTotal"));
  setStatus(memory, "available_bytes", times(available, 1024UL));
  warnIf(total && available && *available < *total / 20, memory, "less than 5% available");
}

void addProcessors(const fs::path& root, DeviceNode& host) {
  const auto model = line(root / "proc/cpuinfo", "model name");
  const double secondsPerTick = 1.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
  for (const std::string& name : entries(root / "sys/devices/system/cpu")) {
    if (name.rfind("cpu", 0) != 0 || name.find_last_not_of("0123456789") != 2) continue;
    DeviceNode& processor = addPart(host, "/" + name, name, Class::PROCESSOR);
    const auto ticks = line(root / "proc/stat", name + " ");
    addProperty(processor, "model", model);
    setStatus(processor, "state", std::optional<std::string>(ticks ? "online" : "offline"));
    setStatus(processor, "user_seconds", times(number<double>(ticks, 0), secondsPerTick));
    setStatus(processor, "system_seconds", times(number<double>(ticks, 2), secondsPerTick));
  }
}

void addBlockDevices(const fs::path& block, DeviceNode& host) {
  constexpr unsigned long sector = 512;
  for (const std::string& name : entries(block)) {
    const auto size = number<unsigned long>(line(block / name / "size"));
    if (!size || *size == 0) continue;  // a drive or a loop device with nothing in it
    DeviceNode& device = addPart(host, "/block/" + name, name, Class::STORAGE);
    addProperty(device, "model", line(block / name / "device/model"));
    addProperty(device, "size", std::to_string(*size * sector) + " bytes");
    const auto counters = line(block / name / "stat");
    setStatus(device, "read_bytes", times(number<unsigned long>(counters, 2), sector));
    setStatus(device, "written_bytes", times(number<unsigned long>(counters, 6), sector));
  }
}

void addNetworkInterfaces(const fs::path& interfaces, DeviceNode& host) {
  for (const std::string& name : entries(interfaces)) {
    const fs::path directory = interfaces / name;
    if (!line(directory / "mtu")) continue;  // a file of the bonding driver
    DeviceNode& device = addPart(host, "/net/" + name, name, Class::NETWORK);
    addProperty(device, "address", line(directory / "address"));
    addProperty(device, "mtu", line(directory / "mtu"));
    setStatus(device, "state", line(directory / "operstate"));
    const auto speed = line(directory / "speed");  // -1 where it means nothing
    setStatus(device, "speed_mbit", speed == "-1" ? std::nullopt : number<unsigned long>(speed));
    for (const std::string counter : {"rx_bytes", "tx_bytes", "rx_errors", "tx_errors"}) {
      setStatus(device, counter, number<unsigned long>(line(directory / "statistics" / counter)));
    }
    // An interface that nobody brought up has no carrier to be read, and nothing is wrong with it.
    warnIf(line(directory / "carrier") == "0", device, "link down");
  }
}

void addFilesystems(const fs::path& root, DeviceNode& host) {
  const std::unique_ptr<FILE, int (*)(FILE*)> mounts(setmntent((root / "proc/mounts").c_str(), "r"),
                                                     endmntent);
  std::set<std::string> sources;  // what is mounted in several places is one filesystem
  while (const mntent* mount = mounts ? getmntent(mounts.get()) : nullptr) {
    const std::string place = mount->mnt_dir;
    const std::string source = mount->mnt_fsname;
    const bool onDevice = source.rfind("/dev/", 0) == 0 && sources.insert(source).second;
    if (!onDevice && place != "/") continue;
    DeviceNode& device = addPart(host, "/fs" + place, place, Class::STORAGE);
    addProperty(device, "mount_point", place);
    addProperty(device, "source", source);
    addProperty(device, "type", std::string(mount->mnt_type));
    const bool readOnly = hasmntopt(mount, "ro") != nullptr;
    setStatus(device, "access", std::optional<std::string>(readOnly ? "ro" : "rw"));

    struct statvfs state = {};
    std::optional<unsigned long> free;
    if (statvfs((root / fs::path(place).relative_path()).c_str(), &state) == 0) {
      free = state.f_bavail * state.f_frsize;
      warnIf(!readOnly && state.f_bavail < state.f_blocks / 10, device, "less than 10% free");
    }
    setStatus(device, "free_bytes", free);
  }
}

void addSensors(const fs::path& chips, DeviceNode& host) {
  for (const std::string& chip : entries(chips)) {
    const std::string chipId = "/" + chip + "/";
    const std::string chipName = line(chips / chip / "name").value_or(chip);
    for (const std::string& file : entries(chips / chip)) {
      const std::string sensor = file.substr(0, file.find("_input"));
      if (sensor == file || sensor.rfind("temp", 0) != 0) continue;
      DeviceNode& device = addPart(host, chipId + sensor, chipName, Class::SENSOR);
      addProperty(device, "label", line(chips / chip / (sensor + "_label")));
      const auto celsius = times(number<double>(line(chips / chip / file)), 0.001);
      const auto limit = times(number<double>(line(chips / chip / (sensor + "_crit"))), 0.001);
      setStatus(device, "celsius", celsius);
      warnIf(celsius && limit && *celsius >= *limit, device, "critical temperature");
    }
  }
}

}  // namespace

std::shared_ptr<DeviceNode> makeHost(const fs::path& root, const std::string& id) {
  const fs::path needed = root / "proc/stat";
  if (!std::ifstream(needed)) {
    throw std::runtime_error("cannot read " + needed.string() + ": " +
                             std::generic_category().message(errno));
  }
  const fs::path kernel = root / "proc/sys/kernel";
  const auto name = line(kernel / "hostname").value_or("unknown");
  auto host = std::make_shared<DeviceNode>(id.empty() ? name : id, name, Class::HOST);
  addProperty(*host, "machine", line(kernel / "arch"));
  addProperty(*host, "kernel", line(kernel / "osrelease"));
  return host;
}

void updateHost(const fs::path& root, DeviceNode& host) {
  setStatus(host, "load", number<double>(line(root / "proc/loadavg")));
  setStatus(host, "uptime_seconds", number<double>(line(root / "proc/uptime")));
  std::string refusal;
  for (const std::string& id : host.getSubDeviceIds(false)) {
    if (!host.removeSubDevice(id, false, refusal)) throw std::logic_error(refusal);
  }
  addMemory(root / "proc/meminfo", host);
  addProcessors(root, host);
  addBlockDevices(root / "sys/block", host);
  addNetworkInterfaces(root / "sys/class/net", host);
  addFilesystems(root, host);
  addSensors(root / "sys/class/hwmon", host);
  std::string unwell;
  for (const auto& [id, part] : host.getSubDevices()) {
    if (part->getGlobalStatus() == GlobalStatus()) continue;
    unwell += (unwell.empty() ? "" : ", ") + id;
  }
  warnIf(!unwell.empty(), host, unwell);
}
