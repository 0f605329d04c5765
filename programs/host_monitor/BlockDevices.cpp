#include <algorithm>
#include <string>

#include "host_monitor/Facts.h"
#include "host_monitor/Identity.h"
#include "host_monitor/Part.h"
#include "host_monitor/Readers.h"

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using Class = orv::proto::monitoring::DeviceNode;
using Text = std::optional<std::string>;

namespace {

// The first that is there and says something.
Text firstOf(std::initializer_list<Text> texts) {
  const auto found = std::find_if(texts.begin(), texts.end(),
                                  [](const Text& text) { return text && !text->empty(); });
  return found == texts.end() ? std::nullopt : *found;
}

// One block device: its directory in sys, and its file in the database of udev.
struct Disk {
  Disk(const fs::path& root, const std::string& kernelName)
      : name(kernelName),
        directory(root / "sys/block" / kernelName),
        udev(root / "run/udev/data" / ("b" + line(directory / "dev").value_or(""))) {}

  Text fact(const std::string& file) const { return line(directory / file); }
  Text known(const std::string& key) const { return line(udev, "E:" + key + "="); }

  Text model() const {
    return firstOf({fact("device/model"), fact("device/name"), known("ID_MODEL")});
  }
  Text serial() const {
    return firstOf({fact("device/serial"), fact("serial"), known("ID_SERIAL_SHORT")});
  }

  const std::string name;
  const fs::path directory;
  const fs::path udev;
};

std::string joined(const std::string& kind, const std::string& claim) {
  return claim.empty() ? "" : kind + claim;
}

Claims claimsOf(const Disk& disk) {
  // A serial number is that of a whole controller or card, and two makers may give the same one:
  // "Acme_SSD_S1-n1" of nvme0n1, "boot0" of mmcblk0boot0.
  const std::size_t number = disk.name.find_first_of("0123456789");
  const std::size_t within = disk.name.find_first_not_of("0123456789", number);
  std::string serial = claimOf(disk.serial());
  if (!serial.empty()) {
    if (const std::string model = claimOf(disk.model()); !model.empty()) {
      serial.insert(0, model + "_");
    }
    if (within != std::string::npos) serial += "-" + disk.name.substr(within);
  }
  return {
      claimOf(firstOf({disk.fact("wwid"), disk.fact("device/wwid")})),
      joined("wwn.", claimOf(firstOf({disk.known("ID_WWN_WITH_EXTENSION"), disk.known("ID_WWN")}))),
      claimOf(firstOf({disk.fact("dm/uuid"), disk.known("DM_UUID")})),
      joined("md.", claimOf(firstOf({disk.fact("md/uuid"), disk.known("MD_UUID")}))),
      serial,
      claimOf(disk.known("ID_SERIAL")),
      joined("file.", claimOf(disk.fact("loop/backing_file")))};
}

// The state of a disk as its driver has it, or of an array of disks.
void setState(const Disk& disk, DeviceNode& device) {
  const Text state = firstOf({disk.fact("device/state"), disk.fact("md/array_state")});
  if (!state) return;
  setStatus(device, "state", state);
  for (const char* const lost : {"offline", "transport-offline", "dead", "broken"}) {
    if (state == lost) worsen(device, GlobalStatus::LEVEL_ERROR, *state);
  }
  for (const char* const held : {"blocked", "quiesce", "resetting", "connecting"}) {
    if (state == held) worsen(device, GlobalStatus::LEVEL_WARNING, *state);
  }
}

void setArray(const Disk& disk, DeviceNode& device) {
  const auto missing = number<unsigned long>(disk.fact("md/degraded"));
  if (!missing) return;  // no array of that kind
  setStatus(device, "missing_disks", missing);
  setStatus(device, "action", disk.fact("md/sync_action"));
  if (*missing > 0) worsen(device, GlobalStatus::LEVEL_WARNING, "degraded");
}

// What is worn out of an eMMC, in steps of 10 %, of the worse of its two kinds of memory.
void setWear(const Disk& disk, DeviceNode& device) {
  const Text used = disk.fact("device/life_time");
  const auto reserve = number<unsigned long>(disk.fact("device/pre_eol_info"));
  if (!used || !reserve) return;
  const auto steps = std::max(number<unsigned long>(used, 0), number<unsigned long>(used, 1));
  setStatus(device, "life_used_percent", steps == 0UL ? std::nullopt : times(steps, 10UL));
  if (*reserve == 2) worsen(device, GlobalStatus::LEVEL_WARNING, "80% of the reserve are used");
  if (*reserve == 3) worsen(device, GlobalStatus::LEVEL_ERROR, "90% of the reserve are used");
}

void addDisk(const Disk& disk, const std::string& identity, unsigned long sectors,
             DeviceNode& host) {
  constexpr unsigned long sector = 512;
  DeviceNode& device = addPart(host, "/block/" + identity, disk.name, Class::STORAGE);
  addProperty(device, "model", disk.model());
  addKnownProperty(device, "serial", disk.serial());
  addKnownProperty(device, "mapped_name", disk.fact("dm/name"));
  addKnownProperty(device, "file", disk.fact("loop/backing_file"));
  addProperty(device, "size", std::to_string(sectors * sector) + " bytes");
  const Text counters = disk.fact("stat");
  setStatus(device, "read_bytes", times(number<unsigned long>(counters, 2), sector));
  setStatus(device, "written_bytes", times(number<unsigned long>(counters, 6), sector));
  if (const Text errors = disk.fact("device/ioerr_cnt")) {
    setStatus(device, "io_errors", number<unsigned long>(errors));
  }
  setState(disk, device);
  setArray(disk, device);
  setWear(disk, device);
}

}  // namespace

// The files are described in the kernel's Documentation/ABI: stable/sysfs-block,
// testing/sysfs-block-dm, and in Documentation/admin-guide/md.rst,
// Documentation/driver-api/mmc/mmc-dev-attrs.rst.
void addBlockDevices(const fs::path& root, DeviceNode& host) {
  std::map<std::string, unsigned long> sectors;
  std::map<std::string, Claims> claims;
  for (const std::string& name : entriesOf(root / "sys/block")) {
    const Disk disk(root, name);
    const auto size = number<unsigned long>(disk.fact("size"));
    if (!size || *size == 0) continue;         // a drive or a loop device with nothing in it
    if (disk.fact("hidden") == "1") continue;  // one of several ways to a disk that is listed too
    sectors[name] = *size;
    claims[name] = claimsOf(disk);
  }
  for (const auto& [name, identity] : identitiesOf(claims)) {
    addDisk(Disk(root, name), identity, sectors[name], host);
  }
}
