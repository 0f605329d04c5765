// By what a device is known from one start of the machine to the next.
//
// The kernel names disks, chips and interfaces in the order in which it finds them, and that order
// changes. So a device is named by what it says of itself, or by its place in the machine.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

// By what a device may be known, the best first. An empty text is no claim.
using Claims = std::vector<std::string>;

// The identity of each device, from its claims; both by the name that the kernel gave it. That is
// the first claim that no other device makes, otherwise the kernel's name. So two that claim the
// same are told apart, whichever comes first.
std::map<std::string, std::string> identitiesOf(const std::map<std::string, Claims>& devices);

// A number or text that a maker gave to one device, as part of an identifier. Empty for what makers
// put there who gave none: nothing but zeros, "unknown" and the like.
std::string claimOf(const std::optional<std::string>& given);

// The place in the machine of the device that an entry of a class in sys belongs to, say
// sys/class/net/eth0: its path below /sys/devices, as in "pci0000:00/0000:00:17.0/ata/1/host".
// Numbers that the kernel counts up as it finds devices are left out of it. Empty where there is no
// device.
std::string placeOf(const std::filesystem::path& root, const std::filesystem::path& entry);

// The same with these numbers.
std::string pathOf(const std::filesystem::path& root, const std::filesystem::path& entry);
