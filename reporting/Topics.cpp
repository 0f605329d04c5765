#include "reporting/Topics.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "reporting/Mark.h"

namespace orv::reporting {

namespace {

// How many bytes the character at that place has, 0 for one that a topic cannot carry: bytes that
// are not UTF-8, a control character or a noncharacter.
std::size_t sizeOfCharacter(const std::string& text, std::size_t at) {
  const auto first = static_cast<unsigned char>(text[at]);
  if (first < 0x80) return first < 0x20 || first == 0x7f ? 0 : 1;
  const std::size_t size = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
  if (first < 0xc2 || first > 0xf4 || text.size() - at < size) return 0;
  std::uint32_t point = first & (0xffU >> (size + 1));
  for (std::size_t next = at + 1; next < at + size; ++next) {
    const auto byte = static_cast<unsigned char>(text[next]);
    if ((byte & 0xc0U) != 0x80) return 0;
    point = (point << 6U) | (byte & 0x3fU);
  }
  constexpr std::array<std::uint32_t, 5> least = {0, 0, 0xa0, 0x800, 0x10000};
  const bool isSurrogate = point >= 0xd800 && point < 0xe000;
  const bool isNoncharacter = (point & 0xfffeU) == 0xfffe || (point >= 0xfdd0 && point < 0xfdf0);
  return point < least.at(size) || point > 0x10ffff || isSurrogate || isNoncharacter ? 0 : size;
}

bool isPrefix(const std::string& text) {
  if (text.empty() || text.front() == '$' || text.find_first_of("+#") != std::string::npos) {
    return false;
  }
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t size = sizeOfCharacter(text, at);
    if (size == 0) return false;
    at += size;
  }
  return true;
}

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

}  // namespace

unsigned int Topics::partitionOf(const std::string& root) {
  return static_cast<unsigned int>(hashOf(root) % PARTITIONS);
}

Topics::Topics(const std::string& prefix)
    : events_(prefix + "/event/"),
      states_(prefix + "/state/"),
      gone_(prefix + "/gone/"),
      roots_(prefix + "/roots/"),
      requests_(prefix + "/request/") {
  if (!isPrefix(prefix)) {
    throw std::invalid_argument("A broker does not take the prefix '" + prefix + "'");
  }
}

std::string Topics::encode(const std::string& text) {
  constexpr const char* digits = "0123456789ABCDEF";
  constexpr std::string_view special = "/+#%";
  if (text.empty()) return "%";
  std::string level;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = sizeOfCharacter(text, at);
    const bool isSpecial = special.find(text[at]) != std::string_view::npos;
    if (!isSpecial && size > 0) {
      level.append(text, at, size);
      at += size;
    } else {
      const auto byte = static_cast<unsigned char>(text[at]);
      level.append({'%', digits[byte >> 4U], digits[byte & 15U]});
      ++at;
    }
  }
  return level;
}

std::optional<std::string> Topics::decode(const std::string& level) {
  std::string text;
  if (level != "%") {
    for (std::size_t at = 0; at < level.size(); ++at) {
      unsigned int byte = static_cast<unsigned char>(level[at]);
      if (level[at] == '%' && at + 2 < level.size()) {
        std::from_chars(&level[at + 1], &level[at + 3], byte, 16);
        at += 2;
      }
      text += static_cast<char>(byte);
    }
  }
  if (encode(text) != level) return std::nullopt;
  return text;
}

std::string Topics::event(const std::string& root) const {
  return events_ + std::to_string(partitionOf(root)) + "/" + encode(root);
}

std::string Topics::state(const std::string& name) const { return states_ + encode(name); }

std::string Topics::gone(const std::string& name) const { return gone_ + encode(name); }

std::string Topics::roots(unsigned int partition, const std::string& name) const {
  return roots_ + std::to_string(partition) + "/" + encode(name);
}

std::string Topics::request(const std::string& name) const { return requests_ + encode(name); }

std::string Topics::allStates() const { return states_ + "+"; }

std::string Topics::allGone() const { return gone_ + "+"; }

std::string Topics::allEvents() const { return events_ + "+/+"; }

std::string Topics::eventsOf(unsigned int partition) const {
  return events_ + std::to_string(partition) + "/+";
}

std::string Topics::allRoots() const { return roots_ + "+/+"; }

std::string Topics::rootsOf(unsigned int partition) const {
  return roots_ + std::to_string(partition) + "/+";
}

std::string Topics::rootsOf(const std::string& name) const { return roots_ + "+/" + encode(name); }

std::optional<std::string> Topics::rootOf(const std::string& topic) const {
  if (!startsWith(topic, events_)) return std::nullopt;
  const std::string level = topic.substr(topic.rfind('/') + 1);
  std::optional<std::string> root = decode(level);
  if (!root) return std::nullopt;
  const std::string rest = std::to_string(partitionOf(*root)) + "/" + level;
  if (topic.compare(events_.size(), std::string::npos, rest) != 0) return std::nullopt;
  return root;
}

std::optional<std::string> Topics::reporterOf(const std::string& topic) const {
  for (const std::string* const start : {&states_, &gone_}) {
    if (startsWith(topic, *start)) return decode(topic.substr(start->size()));
  }
  return std::nullopt;
}

std::optional<std::pair<unsigned int, std::string>> Topics::listOf(const std::string& topic) const {
  if (!startsWith(topic, roots_)) return std::nullopt;
  const std::string rest = topic.substr(roots_.size());
  unsigned int partition = PARTITIONS;
  std::from_chars(rest.data(), rest.data() + rest.size(), partition);
  const std::optional<std::string> name = decode(rest.substr(rest.find('/') + 1));
  if (!name || partition >= PARTITIONS || roots(partition, *name) != topic) return std::nullopt;
  return std::pair(partition, *name);
}

}  // namespace orv::reporting
