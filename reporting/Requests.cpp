#include "reporting/Requests.h"

#include <algorithm>

namespace orv::reporting {

void Requests::need(const std::string& id, Time earliest, std::mt19937_64& random) {
  // One that is needed already keeps its pauses: else each new sign of it would begin them anew.
  const auto [entry, isNew] = needed_.try_emplace(id, pauses_);
  if (isNew) agenda_.at(id, earliest + entry->second.next(random));
}

void Requests::drop(const std::string& id) {
  if (needed_.erase(id) > 0) agenda_.drop(id);
}

unsigned int Requests::timesAsked(const std::string& id) const {
  const auto entry = needed_.find(id);
  return entry == needed_.end() ? 0 : entry->second.count() - 1;
}

std::optional<std::string> Requests::next(Time now, std::mt19937_64& random) {
  agenda_.advance(now);
  const std::string* const first = agenda_.first();
  if (first == nullptr) return std::nullopt;
  // Each second has its own number: what was not used before is not saved up for a burst.
  if (newSecond_ <= now) {
    newSecond_ = now + std::chrono::seconds(1);
    left_ = mostEachSecond_;
  }
  if (left_ == 0) return std::nullopt;
  --left_;
  std::string id = *first;
  agenda_.drop(id);
  agenda_.at(id, now + needed_.at(id).next(random));
  return id;
}

Time Requests::due(Time now) const {
  return left_ == 0 && now < newSecond_ ? std::max(newSecond_, agenda_.due()) : agenda_.due();
}

}  // namespace orv::reporting
