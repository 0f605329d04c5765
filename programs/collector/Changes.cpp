#include "collector/Changes.h"

#include <algorithm>

void Changes::add(std::uint64_t version, const std::string& part) {
  version_ = version;
  changes_.emplace_back(version, part);
  if (changes_.size() <= most) return;
  forgotten_ = changes_.front().first;
  changes_.pop_front();
}

void Changes::addAll(std::uint64_t version) {
  version_ = version;
  forgotten_ = version;
  changes_.clear();
}

std::optional<std::set<std::string>> Changes::after(std::uint64_t version) const {
  if (version < forgotten_ || version > version_) return std::nullopt;
  const auto isKnown = [version](const auto& change) { return change.first <= version; };
  std::set<std::string> parts;
  std::for_each(std::partition_point(changes_.begin(), changes_.end(), isKnown), changes_.end(),
                [&parts](const auto& change) { parts.insert(change.second); });
  return parts;
}
