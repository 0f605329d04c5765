#include "reporting/Resends.h"

#include <algorithm>
#include <chrono>

namespace orv::reporting {

namespace {

constexpr std::chrono::seconds moment(1);

}  // namespace

void Resends::ask(const std::string& root, std::uint64_t n) {
  Root& entry = roots_[root];
  if (entry.sent && *entry.sent <= n) return;
  entry.asked = std::min(entry.asked.value_or(n), n);
  if (!entry.sent) agenda_.queue(root);
}

void Resends::drop(const std::string& root) {
  roots_.erase(root);
  agenda_.drop(root);
}

std::optional<std::pair<std::string, std::uint64_t>> Resends::next(Time now) {
  agenda_.advance(now);
  while (const std::string* const first = agenda_.first()) {
    const std::string root = *first;
    agenda_.drop(root);
    Root& entry = roots_.at(root);
    entry.sent = std::exchange(entry.asked, std::nullopt);
    if (!entry.sent) {
      roots_.erase(root);
      continue;
    }
    agenda_.at(root, now + moment);
    return std::pair(root, *entry.sent);
  }
  return std::nullopt;
}

}  // namespace orv::reporting
