#include "reporting/Requests.h"

#include <algorithm>

namespace orv::reporting {

namespace {

using std::chrono::milliseconds;

// What is due at about the same time is due together, so that the roots of one reporter are asked
// for by few messages. What has no patience is not held up for that.
constexpr milliseconds grainAtFirst(10);
constexpr milliseconds grainAgain(100);
constexpr milliseconds longestWait = std::chrono::seconds(10);

Time roundUp(Time time, milliseconds grain) {
  const Time::duration over = time.time_since_epoch() % grain;
  return over == Time::duration(0) ? time : time + (grain - over);
}

}  // namespace

void Requests::need(const std::string& id, Time now, milliseconds patience, std::size_t bytes,
                    std::mt19937_64& random) {
  // One that is needed already keeps its pauses: else each new sign of it would begin them anew.
  const auto [entry, isNew] = needed_.try_emplace(id, Needed{pauses_, patience, bytes});
  Needed& needed = entry->second;
  if (isNew) {
    needed.pauses.next();
  } else if (!agenda_.contains(id)) {
    agenda_.at(id, roundUp(now + needed.pauses.next(random), grainAgain));
    return;
  } else if (needed.pauses.count() > 1 || patience >= needed.patience) {
    return;
  }
  needed.patience = patience;
  std::uniform_int_distribution<milliseconds::rep> wait(0, patience.count());
  const Time due = now + milliseconds(wait(random));
  agenda_.at(id, patience == milliseconds(0) ? due : roundUp(due, grainAtFirst));
}

void Requests::drop(const std::string& id) {
  const auto entry = needed_.find(id);
  if (entry == needed_.end()) return;
  makeRoom(id);
  agenda_.drop(id);
  needed_.erase(entry);
}

void Requests::rest(const std::string& id) {
  if (needed_.count(id) == 0) return;
  makeRoom(id);
  agenda_.drop(id);
}

void Requests::makeRoom(const std::string& id) {
  if (!awaited_.contains(id)) return;
  awaited_.drop(id);
  --count_;
  bytes_ -= needed_.at(id).bytes;
}

unsigned int Requests::timesAsked(const std::string& id) const {
  const auto entry = needed_.find(id);
  return entry == needed_.end() ? 0 : entry->second.pauses.count() - 1;
}

std::optional<std::string> Requests::next(Time now, std::mt19937_64& random) {
  awaited_.advance(now);
  while (const std::string* const first = awaited_.first()) makeRoom(std::string(*first));
  agenda_.advance(now);
  const std::string* const first = agenda_.first();
  if (first == nullptr || isFull()) return std::nullopt;
  std::string id = *first;
  agenda_.drop(id);
  Needed& needed = needed_.at(id);
  const milliseconds pause = needed.pauses.next(random);
  agenda_.at(id, roundUp(now + pause, grainAgain));
  awaited_.at(id, roundUp(now + std::min(pause, longestWait), grainAgain));
  ++count_;
  bytes_ += needed.bytes;
  return id;
}

}  // namespace orv::reporting
