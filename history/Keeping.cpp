#include "history/Keeping.h"

#include <algorithm>
#include <utility>

#include "history/Rebuild.h"

namespace orv::history {

namespace {

// At one time: so many rows are let go, and so many roots looked at, and some more. It takes some
// ten milliseconds. A large row counts as several.
constexpr std::size_t mostWork = 2000;
constexpr std::size_t bytesOfWork = 1024;
constexpr std::size_t mostRoots = 500;
constexpr std::size_t mostSegments = 500;
constexpr std::chrono::seconds pause(10);
// Of what is there, so much is let go at once where the file is too large.
constexpr std::int64_t share = 20;
// It is looked at all the time. So a clock that moves by more was set, and it can be wrong: nothing
// is too old until it has gone on from there for a while.
constexpr std::chrono::minutes leastJump(10);
constexpr std::chrono::hours patience(1);

std::uint64_t usedBytes(Database& database) {
  const std::int64_t pages =
      database.number("PRAGMA page_count") - database.number("PRAGMA freelist_count");
  return static_cast<std::uint64_t>(pages * database.number("PRAGMA page_size"));
}

}  // namespace

std::optional<std::int64_t> Keeping::horizonOf(Store& store, Time now) {
  const std::int64_t old = store.state().horizon;
  std::int64_t horizon = old;
  const Time oldest = now - rule_.age;
  if (rule_.age.count() > 0 && now >= trusted_) {
    const auto first = store.rowFrom(old + 1);
    if (first && first->time <= oldest) horizon = std::max(horizon, store.placeOfOld(oldest, now));
  }
  // A twentieth is left free for what comes until this is looked at again.
  if (rule_.bytes > 0 && usedBytes(store.database()) > rule_.bytes - rule_.bytes / 20) {
    const std::int64_t last = store.state().last;
    horizon = std::max(horizon, std::min(last, old + (last - old) / share + 1));
  }
  if (horizon == old) return std::nullopt;
  return horizon;
}

void Keeping::serve(Store& store, Time now) {
  if (now - looked_ > leastJump || looked_ - now > leastJump) trusted_ = now + patience;
  looked_ = now;
  if (!horizon_) {
    if (now < next_ && next_ - now <= pause) return;
    next_ = now + pause;
    horizon_ = horizonOf(store, now);
    if (!horizon_) return;
    root_ = -1;
  }
  Transaction transaction(store.database(), "BEGIN IMMEDIATE");
  State state = store.state();
  state.horizon = *horizon_;
  store.setState(state);
  const std::vector<RootEntry> roots = store.rootsAfter(root_, mostRoots);
  Old old;
  for (auto root = roots.begin(); root != roots.end() && old.work < mostWork; ++root) {
    if (!letGo(store, *root, old)) break;
    root_ = root->number;
  }
  store.erase(std::move(old.rows));
  if (roots.empty()) {
    horizon_.reset();
    if (rule_.bytes > 0) next_ = now;  // it may not have been enough
  }
  transaction.commit();
}

void Keeping::Old::add(const Row& row) {
  rows.push_back(row.id);
  work += 1 + row.data.size() / bytesOfWork;
}

// Takes the segments that end before the horizon. Whether that was all.
bool Keeping::letGo(Store& store, const RootEntry& root, Old& old) {
  const std::vector<std::int64_t> wholes = store.wholesUpTo(root.number, *horizon_, mostSegments);
  for (std::size_t i = 0; i + 1 < wholes.size(); ++i) {
    if (old.work >= mostWork) return false;
    store.eraseWhole(root.number, wholes[i]);
    try {
      const auto segment = store.segment(root, wholes[i + 1] - 1);
      if (!segment) continue;
      for (const Row& row : segment->rows) old.add(row);
    } catch (const Damage&) {
      continue;  // what is left of it stays, and nobody asks for it
    }
  }
  if (wholes.size() == mostSegments) return false;
  if (!wholes.empty() && root.number != Store::watchRoot && wholes.back() == root.head) {
    letGoRoot(store, root, old);
  }
  return true;
}

// Where the root was removed.
void Keeping::letGoRoot(Store& store, const RootEntry& root, Old& old) {
  try {
    const Row last = store.row(root.head);
    if (!wholeOf(last).tree.empty()) return;
    store.eraseWhole(root.number, last.id);
    store.eraseRoot(root);
    gone_(root.name);
    old.add(last);
  } catch (const Damage&) {
    return;  // it stays as it is
  }
}

}  // namespace orv::history
