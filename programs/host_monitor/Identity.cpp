#include "host_monitor/Identity.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <set>
#include <system_error>

#include "host_monitor/Facts.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* digits = "0123456789";

bool isAlnum(char letter) { return std::isalnum(static_cast<unsigned char>(letter)) != 0; }

// Whether it is what makers write who have no number to give.
bool isNone(std::string text) {
  static const std::set<std::string> none = {
      "0123456789", "0123456789abcdef", "123456789abcdef", "123456789",
      "1234567890", "default",          "defaultstring",   "na",
      "none",       "notapplicable",    "notavailable",    "notspecified",
      "null",       "serial",           "serialnumber",    "tobefilledbyoem",
      "unknown",    "unspecified"};
  for (const char* const start : {"naa.", "eui.", "nvme.", "t10.", "uuid.", "0x"}) {
    if (text.rfind(start, 0) == 0) text.erase(0, std::string(start).size());
  }
  std::string plain;
  for (const char letter : text) {
    if (isAlnum(letter)) {
      plain += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
  }
  return plain.find_first_not_of(plain.substr(0, 1)) == std::string::npos || none.count(plain) != 0;
}

// Of "nvme0", "i2c-3" or "usb1" the place where the number begins. The rest has letters and digits
// only: "coretemp.0" and "0000:00:1f.2" are given by the firmware, or by how the machine is built.
std::size_t countedFrom(const std::string& text) {
  const std::size_t from = text.find_last_not_of(digits) + 1;
  if (from == 0 || from == text.size() ||
      std::isalpha(static_cast<unsigned char>(text.front())) == 0) {
    return text.size();
  }
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(from);
  const bool isPlain = std::all_of(text.begin(), end - 1,
                                   [](char letter) { return isAlnum(letter) || letter == '_'; });
  return isPlain && (isAlnum(*(end - 1)) || *(end - 1) == '-' || *(end - 1) == '_') ? from
                                                                                    : text.size();
}

// "3-0048" below "i2c-3" and "target2:0:0" below "host2" repeat the number of what they are below.
std::string withoutRepeated(const std::string& text, const std::string& number) {
  const std::size_t from = text.find_first_of(digits);
  if (number.empty() || from == std::string::npos ||
      text.compare(from, number.size(), number) != 0) {
    return text;
  }
  const std::size_t end = from + number.size();
  const bool isWhole = end < text.size() && (text[end] == ':' || text[end] == '-');
  return isWhole ? text.substr(0, from) + text.substr(end + 1) : text;
}

// Below /sys/devices, the path of the device that an entry of a class belongs to. Empty where there
// is none: the interface lo, or a chip that a driver has made up.
fs::path ownerOf(const fs::path& root, const fs::path& entry) {
  std::error_code error;
  fs::path owner = fs::canonical(entry / "device", error);
  if (error) {
    owner = fs::canonical(entry, error).parent_path();
    if (owner.filename() == entry.parent_path().filename()) owner = owner.parent_path();
  }
  const fs::path devices = fs::canonical(root / "sys/devices", error);
  if (error) return {};
  const fs::path path = owner.lexically_relative(devices);
  const bool isDevice = !path.empty() && *path.begin() != ".." && path != "." && path != "virtual";
  return isDevice ? path : fs::path();
}

}  // namespace

std::map<std::string, std::string> identitiesOf(const std::map<std::string, Claims>& devices) {
  std::map<std::string, std::size_t> claimants;
  for (const auto& [name, claims] : devices) {
    for (const std::string& claim : std::set<std::string>(claims.begin(), claims.end())) {
      ++claimants[claim];
    }
  }
  std::map<std::string, std::string> identities;
  for (const auto& [name, claims] : devices) {
    const auto own = std::find_if(claims.begin(), claims.end(), [&](const std::string& claim) {
      return !claim.empty() && claimants[claim] == 1 && devices.count(claim) == 0;
    });
    identities[name] = own == claims.end() ? name : *own;
  }
  return identities;
}

std::string claimOf(const std::optional<std::string>& given) {
  std::string claim;
  for (const char letter : given.value_or("")) {
    const bool isShown = letter > ' ' && letter <= '~';
    if (isShown || (!claim.empty() && claim.back() != '_')) claim += isShown ? letter : '_';
  }
  claim.erase(claim.find_last_not_of('_') + 1);
  return isNone(claim) ? "" : claim;
}

std::string placeOf(const fs::path& root, const fs::path& entry) {
  std::string place;
  std::string number;  // that was left out last
  fs::path met = root / "sys/devices";
  for (const std::string component : ownerOf(root, entry)) {
    met /= component;
    std::string text = withoutRepeated(component, number);
    if (const std::size_t from = countedFrom(text); text == component && from < text.size()) {
      number = text.substr(from);
      text.erase(text[from - 1] == '-' ? from - 1 : from);
      // Of which of a controller's ports it is, the controller itself knows.
      const auto port = line(met / "ata_port" / component / "port_no");
      if (port) text += "/" + *port;
    }
    place += (place.empty() ? "" : "/") + text;
  }
  return place;
}

std::string pathOf(const fs::path& root, const fs::path& entry) { return ownerOf(root, entry); }
