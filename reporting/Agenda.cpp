#include "reporting/Agenda.h"

namespace orv::reporting {

void Agenda::queue(const std::string& id) { queue(id, last_++); }

void Agenda::queueAhead(const std::string& id) { queue(id, first_--); }

void Agenda::queue(const std::string& id, std::int64_t turn) {
  const auto [entry, isNew] = places_.try_emplace(id, Place{turn, {}});
  if (!isNew) {
    Place& place = entry->second;
    if (place.turn != 0) return;
    times_.erase({place.time, id});
    place.turn = turn;
  }
  turns_.emplace(turn, id);
}

void Agenda::at(const std::string& id, Time time) {
  const auto [entry, isNew] = places_.try_emplace(id, Place{0, time});
  if (!isNew) {
    Place& place = entry->second;
    if (place.turn != 0 || place.time <= time) return;
    times_.erase({place.time, id});
    place.time = time;
  }
  times_.emplace(time, id);
}

void Agenda::drop(const std::string& id) {
  const auto entry = places_.find(id);
  if (entry == places_.end()) return;
  const Place place = entry->second;
  if (place.turn != 0) turns_.erase(place.turn);
  if (place.turn == 0) times_.erase({place.time, id});
  places_.erase(entry);
}

void Agenda::advance(Time now) {
  while (!times_.empty() && times_.begin()->first <= now) {
    const std::string id = times_.begin()->second;  // a copy: the entry goes
    queue(id);
  }
}

const std::string* Agenda::first() const {
  return turns_.empty() ? nullptr : &turns_.begin()->second;
}

Time Agenda::due() const {
  if (!turns_.empty()) return Time::min();
  return times_.empty() ? Time::max() : times_.begin()->first;
}

}  // namespace orv::reporting
