#include "host_monitor/HostReader.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <system_error>

#include "host_monitor/Facts.h"
#include "host_monitor/Part.h"
#include "host_monitor/Readers.h"

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using Class = orv::proto::monitoring::DeviceNode;

std::shared_ptr<DeviceNode> makeHost(const fs::path& root, const std::string& id) {
  // Either will do: a container may hide much of both.
  std::error_code error;
  if (!fs::is_directory(root / "proc", error) && !fs::is_directory(root / "sys", error)) {
    throw std::runtime_error("no machine to be read: neither " + (root / "proc").string() +
                             " nor " + (root / "sys").string() + " is a directory");
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
  addMemory(root, host);
  addMemoryErrors(root, host);
  addProcessors(root, host);
  addBlockDevices(root, host);
  addNetworkInterfaces(root, host);
  addFilesystems(root, host);
  addSensors(root, host);
  addPowerSupplies(root, host);
  host.setGlobalStatus(GlobalStatus());
  for (const auto& [id, part] : host.getSubDevices()) {
    const auto level = part->getGlobalStatus().level;
    if (level != GlobalStatus::LEVEL_OK) worsen(host, level, id);
  }
}
