// A Linux machine as a device tree: the host and, below it, its memory, processors, block devices,
// network interfaces, filesystems, sensors and power supplies. docs/host_monitor.md lists what is
// said of each, and by what it is known.
//
// `root` is the directory that has the machine's proc, sys and run/udev. A property that cannot be
// read is "unknown", a status that cannot be read is not set.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "device_tree/DeviceNode.h"

// The host without parts; an empty identifier stands for the machine's own name. Throws
// std::runtime_error when there is no machine to be read.
std::shared_ptr<orv::device_tree::DeviceNode> makeHost(const std::filesystem::path& root,
                                                       const std::string& id);

// Brings the host up to date: its own values in place, its parts anew.
void updateHost(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
