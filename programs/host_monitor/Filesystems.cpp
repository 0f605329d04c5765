#include <mntent.h>
#include <sys/statvfs.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "host_monitor/Part.h"
#include "host_monitor/Readers.h"

namespace fs = std::filesystem;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using Class = orv::proto::monitoring::DeviceNode;

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
      if (!readOnly && state.f_bavail < state.f_blocks / 10) {
        worsen(device, GlobalStatus::LEVEL_WARNING, "less than 10% free");
      }
    }
    setStatus(device, "free_bytes", free);
  }
}
