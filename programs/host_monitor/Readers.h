// One function for each kind of part. It adds those that it finds below `root`, which has the
// machine's proc, sys and run/udev. The source of each is named after what it reads.
#pragma once

#include <filesystem>

#include "device_tree/DeviceNode.h"

void addMemory(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
void addMemoryErrors(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
void addProcessors(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
void addBlockDevices(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
void addNetworkInterfaces(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
void addFilesystems(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
void addSensors(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
void addPowerSupplies(const std::filesystem::path& root, orv::device_tree::DeviceNode& host);
