#include "reporting/Roster.h"

#include <utility>

#include "reporting/Mark.h"
#include "reporting/Topics.h"

namespace orv::reporting {

bool Roster::put(const std::string& root, const Sequence& latest, const std::string& heldBack) {
  const unsigned int partition = Topics::partitionOf(root);
  Part& part = parts_[partition];
  auto entry = part.roots.find(root);
  const bool isNew = entry == part.roots.end();
  if (isNew) {
    entry = part.roots.emplace(root, Root{latest, heldBack, hashOf(root)}).first;
  } else {
    part.sum -= markOf(entry->second.hash, entry->second.latest);
  }
  Root& known = entry->second;
  part.sum += markOf(known.hash, latest);
  known.latest = latest;
  if (!isNew && known.heldBack == heldBack) return false;
  known.heldBack = heldBack;
  change(partition, part);
  return true;
}

void Roster::change(unsigned int partition, Part& part) {
  part.isChanged = true;
  owed_.insert(partition);
}

bool Roster::drop(const std::string& root) {
  const unsigned int partition = Topics::partitionOf(root);
  const auto part = parts_.find(partition);
  if (part == parts_.end()) return false;
  const auto entry = part->second.roots.find(root);
  if (entry == part->second.roots.end()) return false;
  part->second.sum -= markOf(entry->second.hash, entry->second.latest);
  part->second.roots.erase(entry);
  change(partition, part->second);
  return true;
}

void Roster::owe(unsigned int partition) {
  if (parts_.count(partition) > 0) owed_.insert(partition);
}

bool Roster::repeat(unsigned int partition) {
  const auto part = parts_.find(partition);
  const bool isAnnounced = part != parts_.end() && owed_.count(partition) == 0;
  if (!isAnnounced || part->second.isRepeated) return false;
  part->second.isRepeated = true;
  announced_.insert(partition);
  return true;
}

void Roster::oweEvenIfEmpty(unsigned int partition) {
  parts_.try_emplace(partition);
  owe(partition);
}

void Roster::doubtKept() {
  for (auto& [partition, part] : parts_) part.isDoubted = true;
}

bool Roster::foundKept(unsigned int partition, std::uint64_t version) {
  const auto part = parts_.find(partition);
  if (part == parts_.end() || part->second.version != version) return false;
  part->second.isDoubted = false;
  return true;
}

bool Roster::oweDoubted() {
  bool isAny = false;
  for (auto& [partition, part] : parts_) {
    isAny = isAny || part.isDoubted;
    if (part.isDoubted) owed_.insert(partition);
  }
  return isAny;
}

void Roster::oweAll() {
  for (auto& [partition, part] : parts_) change(partition, part);
}

std::uint64_t Roster::announce(std::uint64_t version) {
  for (auto& [partition, part] : parts_) part.isRepeated = false;
  for (const unsigned int partition : owed_) {
    Part& part = parts_.at(partition);
    if (std::exchange(part.isChanged, false) || part.version == 0) part.version = ++version;
    announced_.insert(partition);
  }
  owed_.clear();
  return version;
}

std::optional<unsigned int> Roster::next() const {
  if (announced_.empty()) return std::nullopt;
  return *announced_.begin();
}

std::string Roster::list(unsigned int partition, std::uint64_t start) {
  announced_.erase(partition);
  const auto entry = parts_.find(partition);
  Part& part = entry->second;
  part.isDoubted = false;
  if (part.roots.empty()) {
    if (owed_.count(partition) == 0) parts_.erase(entry);
    return "";
  }
  orv::proto::monitoring::RootList list;
  list.set_start(start);
  list.set_version(part.version);
  for (const auto& [id, root] : part.roots) {
    orv::proto::monitoring::RootState& state = *list.add_roots();
    state.set_root(id);
    state.set_epoch(root.latest.epoch);
    state.set_n(root.latest.n);
    if (!root.heldBack.empty()) state.set_held_back(root.heldBack);
  }
  return list.SerializeAsString();
}

void Roster::describe(orv::proto::monitoring::ReporterState& state) const {
  for (const auto& [partition, part] : parts_) {
    if (part.version == 0 || part.roots.empty()) continue;
    orv::proto::monitoring::PartState& summary = *state.add_parts();
    summary.set_partition(partition);
    summary.set_version(part.version);
    summary.set_roots(part.roots.size());
    summary.set_sum(part.sum);
  }
}

}  // namespace orv::reporting
