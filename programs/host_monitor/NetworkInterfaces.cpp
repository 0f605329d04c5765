#include <fstream>
#include <string>
#include <system_error>

#include "host_monitor/Facts.h"
#include "host_monitor/Identity.h"
#include "host_monitor/Part.h"
#include "host_monitor/Readers.h"

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using Class = orv::proto::monitoring::DeviceNode;

namespace {

// The address that a bonding interface keeps of one below it while that has another one.
std::string bondedAddressOf(const fs::path& root, const std::string& name) {
  const fs::path bonds = root / "proc/net/bonding";
  for (const std::string& bond : entriesOf(bonds)) {
    std::ifstream stream(bonds / bond);
    bool isIt = false;
    for (std::string text; std::getline(stream, text);) {
      if (text.rfind("Slave Interface: ", 0) == 0) isIt = text.substr(17) == name;
      if (isIt && text.rfind("Permanent HW addr: ", 0) == 0) return claimOf(text.substr(19));
    }
  }
  return "";
}

// Whether it is no hardware: a VLAN has the address of the interface below it.
bool isMadeUp(const fs::path& directory) {
  std::error_code error;
  return fs::canonical(directory, error).parent_path().parent_path().filename() == "virtual";
}

// The address that the interface was made with, whatever it has been given since.
std::string permanentAddressOf(const fs::path& root, const fs::path& directory) {
  if (isMadeUp(directory)) return "";
  constexpr const char* isPermanent = "0";
  if (line(directory / "addr_assign_type") == isPermanent) {
    return claimOf(line(directory / "address"));
  }
  if (std::string bonded = bondedAddressOf(root, directory.filename()); !bonded.empty()) {
    return bonded;
  }
  // In the database of udev it is "enx" or "wlx" and the twelve digits that it had when it was
  // found.
  const std::string number = line(directory / "ifindex").value_or("");
  const auto named = line(root / "run/udev/data" / ("n" + number), "E:ID_NET_NAME_MAC=");
  if (!named || named->size() != 15) return "";
  std::string address;
  for (std::size_t at = 3; at < named->size(); at += 2) {
    address += (at == 3 ? "" : ":") + named->substr(at, 2);
  }
  return claimOf(address);
}

Claims claimsOf(const fs::path& root, const fs::path& directory) {
  const auto port = line(directory / "dev_port");  // of a device with several
  const std::string suffix = port && port != "0" ? "/" + *port : "";
  Claims claims = {permanentAddressOf(root, directory)};
  for (const std::string& path : {placeOf(root, directory), pathOf(root, directory)}) {
    claims.push_back(path.empty() ? "" : path + suffix);
  }
  return claims;
}

}  // namespace

// The files are described in the kernel's Documentation/ABI/testing/sysfs-class-net.
void addNetworkInterfaces(const fs::path& root, DeviceNode& host) {
  const fs::path interfaces = root / "sys/class/net";
  std::map<std::string, Claims> claims;
  for (const std::string& name : entriesOf(interfaces)) {
    if (!line(interfaces / name / "mtu")) continue;  // a file of the bonding driver
    claims[name] = claimsOf(root, interfaces / name);
  }
  for (const auto& [name, identity] : identitiesOf(claims)) {
    const fs::path directory = interfaces / name;
    DeviceNode& device = addPart(host, "/net/" + identity, name, Class::NETWORK);
    addProperty(device, "address", line(directory / "address"));
    addProperty(device, "mtu", line(directory / "mtu"));
    setStatus(device, "state", line(directory / "operstate"));
    setStatus(device, "speed_mbit", number<unsigned long>(line(directory / "speed")));
    for (const std::string counter : {"rx_bytes", "tx_bytes", "rx_errors", "tx_errors"}) {
      setStatus(device, counter, number<unsigned long>(line(directory / "statistics" / counter)));
    }
    // An interface that nobody brought up has no carrier to be read, and nothing is wrong with it.
    if (line(directory / "carrier") == "0") {
      worsen(device, GlobalStatus::LEVEL_WARNING, "link down");
    }
  }
}
