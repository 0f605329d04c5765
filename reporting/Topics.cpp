#include "reporting/Topics.h"

#include <mosquitto.h>

#include <charconv>
#include <cstdint>
#include <stdexcept>

namespace orv::reporting {

namespace {

// Whether a topic can carry these bytes: characters in UTF-8, none a control or a noncharacter.
bool areCharacters(const char* bytes, std::size_t size) {
  return mosquitto_validate_utf8(bytes, static_cast<int>(size)) == MOSQ_ERR_SUCCESS;
}

// How many bytes the first of them promises.
std::size_t sizeOfCharacter(char first) {
  const auto byte = static_cast<unsigned char>(first);
  if (byte < 0x80) return 1;
  if (byte < 0xe0) return 2;
  return byte < 0xf0 ? 3 : 4;
}

std::string encode(const std::string& text) {
  constexpr const char* digits = "0123456789ABCDEF";
  if (text.empty()) return "%";
  std::string level;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = sizeOfCharacter(text[at]);
    const bool isSpecial = std::string("/+#%").find(text[at]) != std::string::npos;
    if (!isSpecial && at + size <= text.size() && areCharacters(&text[at], size)) {
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

// Nothing when `encode` does not make such a level.
std::optional<std::string> decode(const std::string& level) {
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

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

}  // namespace

unsigned int Topics::partitionOf(const std::string& root) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const char character : root) {
    hash ^= static_cast<unsigned char>(character);
    hash *= 0x100000001b3U;
  }
  return static_cast<unsigned int>(hash % PARTITIONS);
}

Topics::Topics(const std::string& prefix)
    : events_(prefix + "/event/"),
      reporters_(prefix + "/reporter/"),
      requests_(prefix + "/request/") {
  if (prefix.empty() || prefix.front() == '$' || !areCharacters(prefix.data(), prefix.size()) ||
      mosquitto_pub_topic_check(prefix.c_str()) != MOSQ_ERR_SUCCESS) {
    throw std::invalid_argument("A broker does not take the prefix '" + prefix + "'");
  }
}

std::string Topics::event(const std::string& root) const {
  return events_ + std::to_string(partitionOf(root)) + "/" + encode(root);
}

std::string Topics::reporter(const std::string& name) const { return reporters_ + encode(name); }

std::string Topics::request(const std::string& name) const { return requests_ + encode(name); }

std::string Topics::allEvents() const { return events_ + "+/+"; }

std::string Topics::eventsOf(unsigned int partition) const {
  return events_ + std::to_string(partition) + "/+";
}

std::string Topics::allReporters() const { return reporters_ + "+"; }

std::optional<std::string> Topics::rootOf(const std::string& topic) const {
  const std::size_t slash = topic.rfind('/');
  if (!startsWith(topic, events_) || slash < events_.size()) return std::nullopt;
  std::optional<std::string> root = decode(topic.substr(slash + 1));
  if (!root || event(*root) != topic) return std::nullopt;
  return root;
}

std::optional<std::string> Topics::reporterOf(const std::string& topic) const {
  if (!startsWith(topic, reporters_)) return std::nullopt;
  return decode(topic.substr(reporters_.size()));
}

}  // namespace orv::reporting
