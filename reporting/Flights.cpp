#include "reporting/Flights.h"

#include <algorithm>

namespace orv::reporting {

namespace {

// A connection that lasts so long is good.
constexpr std::chrono::seconds proof(1);
// So many ends in a row are no accident.
constexpr unsigned int enoughEnds = 2;

}  // namespace

void Flights::connected(Time now) {
  window_ = isWindowSmall_ ? 1 : MOST;
  isConnectionGood_ = false;
  for (const auto& [root, doubt] : doubts_) {
    if (doubt.pauses.count() > 0) continue;
    retries_.drop(root);
    retries_.at(root, now + proof);
  }
}

Flights::Rest Flights::disconnected(Time now) {
  Rest rest;
  for (const auto& [number, root] : roots_) rest.roots.push_back(root);
  isWindowSmall_ = !roots_.empty();
  forget();
  // Of several nobody can say which was the reason. A narrow window soon leaves one alone.
  if (rest.roots.size() == 1) {
    const std::string& root = rest.roots.front();
    Doubt& doubt = doubts_[root];
    if (isConnectionGood_) ++doubt.ends;
    if (doubt.pauses.count() > 0 || doubt.ends >= enoughEnds) {
      refuse(root, now);
      rest.refused = root;
    }
  }
  return rest;
}

// A doubted root waits until nothing is on its way, and so do those behind it. That is what makes
// it go alone, also while the others never come to rest.
bool Flights::mayGo(const std::string& root) const {
  if (isDoubted(root)) return bytes_.empty();
  return roots_.size() < window_ && hasRoom();
}

bool Flights::hasRoom() const {
  const bool isAlone = roots_.size() == 1 && isDoubted(roots_.begin()->second);
  return !isAlone && allBytes_ < MOST_BYTES;
}

void Flights::goes(std::uint64_t number, const std::string& root, std::size_t bytes) {
  roots_.emplace(number, root);
  numbers_.emplace(root, number);
  goesBeside(number, bytes);
}

void Flights::goesBeside(std::uint64_t number, std::size_t bytes) {
  bytes_.emplace(number, bytes);
  allBytes_ += bytes;
}

// Whether it was an event of a root, and not what went out beside.
bool Flights::land(std::uint64_t number, std::string& root) {
  const auto bytes = bytes_.find(number);
  if (bytes == bytes_.end()) return false;
  allBytes_ -= bytes->second;
  bytes_.erase(bytes);
  const auto entry = roots_.find(number);
  if (entry == roots_.end()) return false;
  root = entry->second;
  roots_.erase(entry);
  numbers_.erase(root);
  if (root == tried_) tried_.reset();
  return true;
}

std::optional<std::string> Flights::taken(std::uint64_t number, Time now) {
  std::string root;
  if (!land(number, root)) return std::nullopt;
  trust(root);
  window_ = std::min(window_ + 1, MOST);
  if (!isConnectionGood_) {
    isConnectionGood_ = true;
    // Whoever was only suspected need not wait any longer.
    for (const auto& [other, doubt] : doubts_) {
      if (doubt.pauses.count() == 0) retries_.at(other, now);
    }
  }
  return root;
}

std::optional<std::string> Flights::refused(std::uint64_t number, Time now) {
  std::string root;
  if (!land(number, root)) return std::nullopt;
  refuse(root, now);
  return root;
}

void Flights::refuse(const std::string& root, Time now) {
  retries_.drop(root);
  retries_.at(root, now + doubts_[root].pauses.next());
}

void Flights::rest() {
  if (roots_.empty()) window_ = MOST;
}

void Flights::forget() {
  roots_.clear();
  numbers_.clear();
  bytes_.clear();
  allBytes_ = 0;
  tried_.reset();
}

void Flights::trust(const std::string& root) {
  if (doubts_.erase(root) == 0) return;
  retries_.drop(root);
  if (root == tried_) tried_.reset();
}

std::optional<std::string> Flights::retry(Time now) {
  if (tried_) return std::nullopt;
  retries_.advance(now);
  if (const std::string* const root = retries_.first()) tried_ = *root;
  return tried_;
}

Time Flights::retryDue() const { return tried_ ? Time::max() : retries_.due(); }

}  // namespace orv::reporting
