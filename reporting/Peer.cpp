#include "reporting/Peer.h"

#include <algorithm>
#include <tuple>

#include "reporting/Topics.h"

namespace orv::reporting {

namespace {

// More processes of one name are not remembered.
constexpr std::size_t mostEarlier = 16;

}  // namespace

Peer::Verdict Peer::take(const orv::proto::monitoring::ReporterState& state, bool isRetained,
                         Time now, News& news) {
  const bool isOnline = state.online();
  const auto before = std::tuple(start_, isOnline_, isConfirmed_);
  bool wasSetBack = false;
  if (isKnown_ && state.start() == start_) {
    // The will of a connection that is over can come after the first state of the next one.
    if (state.connection() < connection_) return Verdict::OLD;
    // A will has the version of the moment when its connection began.
    if (isOnline && state.version() < version_) {
      if (state.connection() == connection_) return Verdict::OLD;
      wasSetBack = true;
      forgetVersions();
      for (auto& [partition, part] : parts_) part.wasSetBack = true;
    }
  } else if (isKnown_) {
    if (!isOnline) return Verdict::OLD;
    const bool isEarlier =
        std::find(earlier_.begin(), earlier_.end(), state.start()) != earlier_.end();
    if (isEarlier && isOnline_) {
      const bool isNew = rival_ != state.start();
      rival_ = state.start();
      return isNew ? Verdict::RIVAL : Verdict::OLD;
    }
    earlier_.push_back(start_);
    if (earlier_.size() > mostEarlier) earlier_.pop_front();
    forgetVersions();
  }
  isKnown_ = true;
  start_ = state.start();
  connection_ = state.connection();
  if (isOnline) version_ = state.version();
  isOnline_ = isOnline;
  isConfirmed_ = !isOnline || !isRetained;
  heard_ = now;
  news.isOther = wasSetBack || before != std::tuple(start_, isOnline_, isConfirmed_);
  spokenOf_.clear();
  for (const auto& told : state.parts()) {
    if (told.partition() >= first_ && told.partition() <= last_) spokenOf_.insert(told.partition());
  }
  // A will tells nothing of the parts: it is as old as its connection.
  if (!isOnline) return Verdict::TAKEN;

  for (const auto& told : state.parts()) {
    if (told.partition() < first_ || told.partition() > last_) continue;
    Part& part = parts_[told.partition()];
    part.isGone = false;
    if (part.version > told.version()) continue;  // its list is later than this state
    part.agrees = part.version == told.version() && part.roots.size() == told.roots() &&
                  part.sum == told.sum();
    if (isRetained) continue;
    if (!part.agrees) part.isAwaited = true;
    if (part.version < told.version()) {
      news.announced.push_back(told.partition());
    } else if (!part.agrees) {
      news.differing.push_back(told.partition());
    } else if (!part.isConfirmed || part.isAwaited) {
      part.isConfirmed = part.isInStep = true;
      part.isAwaited = false;
      news.agreed.push_back(told.partition());
    }
  }
  for (auto& [partition, part] : parts_) {
    const bool isLater = part.version > state.version();
    if (isLater || part.isGone || spokenOf_.count(partition) > 0) continue;
    part.isGone = true;
    part.isConfirmed = part.agrees = false;
    news.gone.push_back(partition);
  }
  return Verdict::TAKEN;
}

bool Peer::take(unsigned int partition, const orv::proto::monitoring::RootList& list,
                bool isRetained, Time now, Roots& unlisted) {
  if (!isKnown_ || list.start() != start_) return false;
  if (list.version() < version_ && spokenOf_.count(partition) == 0) return false;
  Part& part = parts_[partition];
  // What the broker had kept is of no more use where the reporter itself was heard.
  if (list.version() < part.version || (isRetained && part.isConfirmed)) return false;
  heard_ = now;
  unlisted = std::move(part.roots);
  const bool wasAwaited = part.isAwaited;
  part = {};
  for (const auto& root : list.roots()) {
    if (Topics::partitionOf(root.root()) != partition) continue;
    part.roots[root.root()] = {{root.epoch(), root.n()}, root.held_back()};
    unlisted.erase(root.root());
  }
  part.version = list.version();
  part.isAwaited = wasAwaited;
  part.isConfirmed = part.agrees = !isRetained;
  return true;
}

void Peer::forgetVersions() {
  for (auto& [partition, part] : parts_) {
    part.version = 0;
    part.isConfirmed = part.agrees = false;
  }
}

const Peer::Part* Peer::part(unsigned int partition) const {
  const auto entry = parts_.find(partition);
  return entry == parts_.end() ? nullptr : &entry->second;
}

const Peer::Listed* Peer::find(unsigned int partition, const std::string& root) const {
  const Part* const listing = part(partition);
  if (listing == nullptr) return nullptr;
  const auto entry = listing->roots.find(root);
  return entry == listing->roots.end() ? nullptr : &entry->second;
}

void Peer::reviewed(unsigned int partition) {
  const auto entry = parts_.find(partition);
  Part& part = entry->second;
  part.isInStep = part.wasSetBack = false;
  if (part.isGone) parts_.erase(entry);
}

void Peer::forget(Time now) {
  std::map<unsigned int, Part> parts = std::move(parts_);
  *this = Peer(now, first_, last_);
  parts_ = std::move(parts);
  forgetVersions();
  for (auto& [partition, part] : parts_) part.isGone = true;
}

void Peer::doubt() {
  isConfirmed_ = false;
  for (auto& [partition, part] : parts_) part.isConfirmed = part.agrees = false;
}

bool Peer::giveUp(Time now, Time::duration silence) {
  const bool isGone = isConfirmed_ && !isOnline_;
  if (isGone || now - heard_ <= silence) return false;
  isOnline_ = false;
  isConfirmed_ = true;
  return true;
}

bool Peer::isLongGone(Time now, Time::duration age) {
  if (isOnline_ || now - heard_ <= age) return false;
  heard_ = now;
  return true;
}

}  // namespace orv::reporting
