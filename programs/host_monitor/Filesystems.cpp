#include <mntent.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "host_monitor/Part.h"
#include "host_monitor/Readers.h"

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using Class = orv::proto::monitoring::DeviceNode;

namespace {

// The sources of filesystems that can be written themselves, whatever a mount allows: a service
// sees every mount read-only. The kernel's filesystems/proc.rst, 3.5, describes the lines.
std::set<std::string> writableSources(const fs::path& root) {
  std::set<std::string> sources;
  std::ifstream file(root / "proc/self/mountinfo");
  for (std::string text; std::getline(file, text);) {
    std::istringstream rest(text.substr(std::min(text.find(" - "), text.size())));
    std::string dash, type, source, options;
    if (rest >> dash >> type >> source >> options && options.rfind("rw", 0) == 0) {
      sources.insert(source);
    }
  }
  return sources;
}

}  // namespace

void addFilesystems(const fs::path& root, DeviceNode& host) {
  const std::unique_ptr<FILE, int (*)(FILE*)> mounts(setmntent((root / "proc/mounts").c_str(), "r"),
                                                     endmntent);
  const std::set<std::string> writable = writableSources(root);
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
    const bool readOnly = hasmntopt(mount, "ro") != nullptr && writable.count(source) == 0;
    setStatus(device, "access", std::optional<std::string>(readOnly ? "ro" : "rw"));

    struct statvfs state = {};
    std::optional<unsigned long> free;
    if (statvfs((root / fs::path(place).relative_path()).c_str(), &state) == 0) {
      free = state.f_bavail * state.f_frsize;
      if (!readOnly && state.f_bavail < state.f_blocks / 10) {
        worsen(device, GlobalStatus::LEVEL_WARNING, "less than 10% free");
      }
    }
    setStatus(device, "free_bytes", free);
  }
}
