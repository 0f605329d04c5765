#include <unistd.h>

#include <string>

#include "host_monitor/Facts.h"
#include "host_monitor/Part.h"
#include "host_monitor/Readers.h"

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using Class = orv::proto::monitoring::DeviceNode;

void addProcessors(const fs::path& root, DeviceNode& host) {
  if (!line(root / "proc/stat")) return;  // then nobody knows which of them are at work
  const auto model = line(root / "proc/cpuinfo", "model name");
  const double secondsPerTick = 1.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
  for (const std::string& name : entriesOf(root / "sys/devices/system/cpu")) {
    if (name.rfind("cpu", 0) != 0 || name.find_last_not_of("0123456789") != 2) continue;
    DeviceNode& processor = addPart(host, "/" + name, name, Class::PROCESSOR);
    const auto ticks = line(root / "proc/stat", name + " ");
    addProperty(processor, "model", model);
    setStatus(processor, "state", std::optional<std::string>(ticks ? "online" : "offline"));
    setStatus(processor, "user_seconds", times(number<double>(ticks, 0), secondsPerTick));
    setStatus(processor, "system_seconds", times(number<double>(ticks, 2), secondsPerTick));
  }
}
