#include <string>

#include "host_monitor/Facts.h"
#include "host_monitor/Part.h"
#include "host_monitor/Readers.h"

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using Class = orv::proto::monitoring::DeviceNode;

namespace {

std::optional<std::string> megabytes(const std::optional<std::string>& count) {
  return count ? std::optional(*count + " MB") : std::nullopt;
}

// Corrected errors are told and not judged: one in months is nothing, many in an hour are much.
void setErrors(DeviceNode& device, const fs::path& directory, const std::string& prefix) {
  const auto uncorrected = number<unsigned long>(line(directory / (prefix + "ue_count")));
  setStatus(device, "corrected_errors",
            number<unsigned long>(line(directory / (prefix + "ce_count"))));
  setStatus(device, "uncorrected_errors", uncorrected);
  if (uncorrected.value_or(0) > 0) {
    worsen(device, GlobalStatus::LEVEL_ERROR, "uncorrected memory errors");
  }
}

}  // namespace

void addMemory(const fs::path& root, DeviceNode& host) {
  const fs::path file = root / "proc/meminfo";
  DeviceNode& memory = addPart(host, "/memory", "memory", Class::MEMORY);
  const auto total = number<unsigned long>(line(file, "MemTotal"));
  const auto available = number<unsigned long>(line(file, "MemAvailable"));
  addProperty(memory, "size", line(file, "MemTotal"));
  setStatus(memory, "available_bytes", times(available, 1024UL));
  if (total && available && *available < *total / 20) {
    worsen(memory, GlobalStatus::LEVEL_WARNING, "less than 5% available");
  }
}

// The files are described in the kernel's Documentation/admin-guide/RAS and
// Documentation/ABI/testing/sysfs-devices-edac. Controllers and modules are numbered by their
// slots.
void addMemoryErrors(const fs::path& root, DeviceNode& host) {
  const fs::path controllers = root / "sys/devices/system/edac/mc";
  for (const std::string& name : entriesOf(controllers)) {
    const fs::path directory = controllers / name;
    if (!line(directory / "ue_count")) continue;
    const std::string id = "/memory/" + name;
    DeviceNode& controller = addPart(host, id, name, Class::MEMORY);
    addProperty(controller, "model", line(directory / "mc_name"));
    addProperty(controller, "size", megabytes(line(directory / "size_mb")));
    setErrors(controller, directory, "");
    for (const std::string& slot : entriesOf(directory)) {
      if (!line(directory / slot / "dimm_ue_count")) continue;
      const auto label = line(directory / slot / "dimm_label");
      const bool isLabelled = label && !label->empty();
      const fs::path moduleId = fs::path(id) / slot;
      DeviceNode& module = addPart(host, moduleId, isLabelled ? *label : slot, Class::MEMORY);
      addProperty(module, "location", line(directory / slot / "dimm_location"));
      addProperty(module, "model", line(directory / slot / "dimm_mem_type"));
      addProperty(module, "size", megabytes(line(directory / slot / "size")));
      setErrors(module, directory / slot, "dimm_");
    }
  }
}
