#include "reporting/Peer.h"

#include <algorithm>
#include <utility>

namespace orv::reporting {

namespace {

// More processes of one name are not remembered.
constexpr std::size_t mostEarlier = 16;

}  // namespace

Peer::Verdict Peer::take(const orv::proto::monitoring::ReporterState& state, bool isRetained,
                         Time now, Roots& unlisted) {
  const bool isOnline = state.online();
  if (isKnown_ && state.start() == start_) {
    // The will of a connection that is over can come after the first state of the next one.
    if (state.connection() < connection_) return Verdict::OLD;
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
  }
  // A will does not replace the list: it is as old as its connection, and may have no room for one.
  if (!isKnown_ || isOnline) {
    unlisted = std::move(roots_);
    roots_.clear();
    for (const auto& root : state.roots()) {
      roots_[root.root()] = {{root.epoch(), root.n()}, root.held_back()};
      unlisted.erase(root.root());
    }
  }
  isKnown_ = true;
  start_ = state.start();
  connection_ = state.connection();
  resends_ = state.resends();
  isOnline_ = isOnline;
  isConfirmed_ = !isOnline || !isRetained;
  heard_ = now;
  return Verdict::TAKEN;
}

bool Peer::giveUp(Time now, Time::duration silence) {
  const bool isGone = isConfirmed_ && !isOnline_;
  if (isGone || now - heard_ <= silence) return false;
  isOnline_ = false;
  isConfirmed_ = true;
  return true;
}

}  // namespace orv::reporting
