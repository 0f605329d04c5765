#include "history/Reader.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "device_tree/Summary.h"
#include "device_tree/Walk.h"
#include "history/Packing.h"
#include "history/Rebuild.h"
#include "history/Store.h"

namespace orv::history {

using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;
using reporting::Event;
using reporting::Tree;
using std::chrono::milliseconds;
namespace monitoring = orv::proto::monitoring;

namespace {

// What one call looks at, in rows. A large row counts as several.
constexpr std::size_t mostWork = 100'000;
constexpr std::size_t bytesOfWork = 512;
constexpr std::size_t rowsAtOnce = 500;
constexpr std::size_t bytesAtOnce = 1 << 20;

std::size_t workOf(const Row& row) {
  const std::string_view packed =
      row.kind == Kind::STATUS ? std::string_view(row.data) : wholeOf(row).tree;
  return 1 + unpackedSize(packed) / bytesOfWork;
}

// A row and how many of its lines were answered. Their text is "row.lines".
struct Place {
  static constexpr std::uint32_t all = UINT32_MAX;
  std::int64_t row = 0;
  std::uint32_t lines = 0;

  std::string text() const { return std::to_string(row) + '.' + std::to_string(lines); }

  static Place parse(const std::string& text) {
    Place place;
    const char* const end = text.data() + text.size();
    const auto row = std::from_chars(text.data(), end, place.row);
    const bool hasTwo = row.ec == std::errc() && row.ptr != end && *row.ptr == '.';
    const auto lines = std::from_chars(hasTwo ? row.ptr + 1 : end, end, place.lines);
    if (lines.ec != std::errc() || lines.ptr != end || place.row < 1) {
      throw std::invalid_argument("'" + text + "' is no place in a history");
    }
    return place;
  }
};

// Rows (low, high] by number.
struct Range {
  std::int64_t low;
  std::int64_t high;

  bool isEmpty() const { return low >= high; }
};

// Hands out the rows of a range, a few at a time and in the order of the question: of one root, or
// of all.
class Rows {
 public:
  Rows(Store& store, std::optional<RootEntry> root, Range range, bool isNewestFirst)
      : store_(store), root_(std::move(root)), range_(range), isNewestFirst_(isNewestFirst) {
    if (!root_) return;
    for (Row& watch : store.watches()) {
      if (range.low < watch.id && watch.id <= range.high) watches_.push_back(std::move(watch));
    }
    if (!isNewestFirst_) std::reverse(watches_.begin(), watches_.end());
  }

  // Empty at the end.
  std::vector<Row> next() {
    if (range_.isEmpty()) return {};
    if (!root_) return ofAll();
    std::vector<Row> rows = isNewestFirst_ ? newestOfRoot() : oldestOfRoot();
    if (isNewestFirst_) std::reverse(rows.begin(), rows.end());
    return withWatches(std::move(rows));
  }

 private:
  std::vector<Row> ofAll() {
    std::vector<Row> rows;
    std::size_t bytes = 0;
    while (!range_.isEmpty() && rows.size() < rowsAtOnce && bytes < bytesAtOnce) {
      rows.push_back(store_.row(isNewestFirst_ ? range_.high-- : ++range_.low));
      bytes += rows.back().data.size();
    }
    return rows;
  }

  // What there is of the segment that ends at `high`, in ascending order.
  std::vector<Row> segmentUpTo(std::int64_t high) {
    auto segment = store_.segment(*root_, high);
    if (!segment) return {};
    std::vector<Row> rows = std::move(segment->rows);
    rows.erase(rows.begin(), std::find_if(rows.begin(), rows.end(),
                                          [this](const Row& row) { return row.id > range_.low; }));
    return rows;
  }

  std::vector<Row> newestOfRoot() {
    std::vector<Row> rows = segmentUpTo(range_.high);
    range_.high = rows.empty() ? range_.low : rows.front().id - 1;
    return rows;
  }

  std::vector<Row> oldestOfRoot() {
    const auto boundAfter = [this](std::int64_t id) {
      const std::int64_t whole = store_.wholeAfter(root_->number, id);
      return whole == 0 ? range_.high : std::min(range_.high, whole - 1);
    };
    std::int64_t high = boundAfter(range_.low);
    std::vector<Row> rows = segmentUpTo(high);
    if (rows.empty() && high < range_.high) {
      high = boundAfter(high + 1);
      rows = segmentUpTo(high);
    }
    // Where a whole tree was not filed a second time there is more than one segment.
    while (!rows.empty() && rows.front().previous > range_.low) {
      std::vector<Row> earlier = segmentUpTo(rows.front().previous);
      std::move(rows.begin(), rows.end(), std::back_inserter(earlier));
      rows = std::move(earlier);
    }
    range_.low = rows.empty() ? range_.high : high;
    return rows;
  }

  std::vector<Row> withWatches(std::vector<Row> rows) {
    const auto isBefore = [this](const Row& one, const Row& other) {
      return isNewestFirst_ ? one.id > other.id : one.id < other.id;
    };
    // Those that come before the rows of the next time.
    auto end = watches_.begin();
    while (end != watches_.end() &&
           (range_.isEmpty() || (isNewestFirst_ ? end->id > range_.high : end->id <= range_.low))) {
      ++end;
    }
    std::vector<Row> merged;
    std::merge(std::make_move_iterator(watches_.begin()), std::make_move_iterator(end),
               std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()),
               std::back_inserter(merged), isBefore);
    watches_.erase(watches_.begin(), end);
    return merged;
  }

  Store& store_;
  std::optional<RootEntry> root_;
  Range range_;
  bool isNewestFirst_;
  std::vector<Row> watches_;
};

std::string watchText(const Row& row) {
  if (row.kind == Kind::CLOCK) return "The clock of the recorder was set back";
  const Watch watch = watchOf(row);
  std::string text = "Nothing was recorded since " + textOf(watch.seen);
  if (!watch.reason.empty()) text += ": " + watch.reason;
  return text;
}

bool isWatch(const Row& row) { return row.kind == Kind::WATCH || row.kind == Kind::CLOCK; }

// The first watch says nothing: there was nothing before.
bool isSilent(const Row& row) { return row.kind == Kind::WATCH && watchOf(row).seen == Time(); }

const DeviceNode* find(const Tree& tree, const std::string& id) {
  const DeviceNode* found = nullptr;
  if (tree) {
    const DeviceNode& root = *tree;
    orv::device_tree::anyNode(root, [&](const DeviceNode& node) {
      found = node.getDeviceId() == id ? &node : nullptr;
      return found != nullptr;
    });
  }
  return found;
}

void addBelow(const Tree& tree, const std::string& device, std::set<std::string>& ids) {
  const DeviceNode* const found = find(tree, device);
  if (found == nullptr) return;
  orv::device_tree::anyNode(*found, [&ids](const DeviceNode& node) {
    ids.insert(node.getDeviceId());
    return false;
  });
}

std::optional<double> numberOf(const monitoring::NamedStatus& status) {
  std::optional<double> number;
  if (status.has_int_value()) number = static_cast<double>(status.int_value());
  if (status.has_uint_value()) number = static_cast<double>(status.uint_value());
  if (status.has_double_value()) number = status.double_value();
  if (number && std::isnan(*number)) return std::nullopt;
  return number;
}

// Thins out the course of a number.
class Thinning {
 public:
  Thinning(Time since, Time until, std::size_t most)
      : since_(since),
        until_(until),
        length_(std::max<std::int64_t>(
            1, ((until - since).count() + static_cast<std::int64_t>(most) - 1) /
                   static_cast<std::int64_t>(most))) {}

  void add(Time time, std::optional<double> value) {
    if (time < since_ || time >= until_) return;  // the clock was set back
    const std::int64_t number = (time - since_).count() / length_;
    if (!value) {
      const auto last = spans_.empty() ? spans_.end() : std::prev(spans_.end());
      if (last != spans_.end()) last->second.isUnknown = true;
      return;
    }
    const auto [place, isNew] =
        spans_.try_emplace(number, Span{time, *value, *value, *value, false});
    Span& span = place->second;
    span.smallest = std::min(span.smallest, *value);
    span.largest = std::max(span.largest, *value);
    span.last = *value;
    span.isUnknown = false;
  }

  std::vector<Span> spans() const {
    std::vector<Span> result;
    result.reserve(spans_.size());
    for (const auto& [number, span] : spans_) result.push_back(span);
    return result;
  }

 private:
  Time since_;
  Time until_;
  std::int64_t length_;
  std::map<std::int64_t, Span> spans_;
};

}  // namespace

class Reader::Core {
 public:
  explicit Core(const std::string& file) : store_(file, Database::Mode::READ) {}

  // Whatever one operation reads is of one state of the file.
  template <typename Action>
  auto read(const Action& action) {
    const Transaction transaction(store_.database(), "BEGIN");
    return action();
  }

  std::vector<Root> roots();
  std::optional<Time> oldest();
  std::optional<Moment> treeAt(const std::string& id, Time time);
  Page<Change> changes(const Question& question);
  Page<Recorded> events(const Question& question);
  Course values(const std::string& id, const std::string& device, const std::string& status,
                Time since, Time until, std::size_t most);

 private:
  using Take = std::function<std::vector<Change>(const Row&)>;

  std::optional<RootEntry> rootOf(const std::string& id);
  const std::string& nameOf(std::int64_t root);
  reporting::Sequence sequenceAt(const Row& row);
  Time seenAt(std::int64_t place, Time time);
  Range rangeOf(const Question& question);
  template <typename Answer, typename Make>
  Page<Answer> answer(const Question& question, const Make& make);
  std::vector<Change> linesOf(const Row& row, const std::string& device);
  std::optional<std::set<std::string>> below(const Row& row, const RootEntry& root,
                                             const std::string& device);
  std::optional<double> valueIn(const Tree& tree, const std::string& device,
                                const std::string& status) const;

  Store store_;
  std::map<std::int64_t, std::string> names_;
  // Of the row of each root that was looked at last: that and its sequence.
  std::map<std::int64_t, std::pair<Row, reporting::Sequence>> sequences_;
  // The devices below one, which stay the same up to the next whole tree.
  std::int64_t belowOf_ = 0;
  std::int64_t belowUntil_ = 0;
  std::set<std::string> below_;
};

std::optional<RootEntry> Reader::Core::rootOf(const std::string& id) {
  if (id.empty()) return std::nullopt;  // that is the one of the watches
  return store_.root(id);
}

const std::string& Reader::Core::nameOf(std::int64_t root) {
  const auto known = names_.find(root);
  if (known != names_.end()) return known->second;
  return names_.emplace(root, store_.root(root).name).first->second;
}

std::vector<Root> Reader::Core::roots() {
  std::vector<Root> roots;
  for (std::int64_t number = 0; (number = store_.rootNumberAfter(number)) != 0;) {
    Root& root = roots.emplace_back();
    try {
      RootEntry entry = store_.root(number);
      root.id = std::move(entry.name);
      const Row row = store_.row(entry.head);
      root.isThere = row.kind == Kind::STATUS || !wholeOf(row).tree.empty();
      root.changed = row.time;
    } catch (const Damage& damage) {
      root.damage = damage.what();
    }
  }
  std::sort(roots.begin(), roots.end(),
            [](const Root& one, const Root& other) { return one.id < other.id; });
  return roots;
}

std::optional<Time> Reader::Core::oldest() {
  const auto row = store_.rowFrom(store_.state().horizon);
  if (!row) return std::nullopt;
  return row->time;
}

// Up to when it is known that nothing else happened.
Time Reader::Core::seenAt(std::int64_t place, Time time) {
  Time seen = store_.state().seen;
  for (const Row& watch : store_.watches()) {  // the newest first
    if (watch.id <= place) break;
    if (watch.kind == Kind::WATCH) seen = watchOf(watch).seen;
  }
  return std::min(seen, time);
}

std::optional<Moment> Reader::Core::treeAt(const std::string& id, Time time) {
  const std::int64_t place = store_.placeOf(time);
  const auto root = rootOf(id);
  if (!root || place < store_.state().horizon) return std::nullopt;
  const auto segment = store_.segment(*root, place);
  if (!segment) return std::nullopt;
  Moment moment{treeOf(store_, *segment), sequenceOf(*segment), segment->rows.back().time,
                seenAt(place, time)};
  // What was caught up on had happened at some time before.
  if (segment->following == Kind::CAUGHT_UP) moment.seen = moment.since;
  moment.seen = std::max(moment.seen, moment.since);
  return moment;
}

Range Reader::Core::rangeOf(const Question& question) {
  const std::int64_t horizon = store_.state().horizon;
  // The row at the horizon is what the next ones lead on from.
  Range range{horizon > 1 ? horizon : 0, store_.state().last};
  if (question.since) {
    range.low = std::max(range.low, store_.placeOf(*question.since - milliseconds(1)));
  }
  if (question.until) range.high = store_.placeOf(*question.until - milliseconds(1));
  return range;
}

// Goes through the rows of the question and collects what `make` makes of each.
template <typename Answer, typename Make>
Page<Answer> Reader::Core::answer(const Question& question, const Make& make) {
  if (!question.device.empty() && question.root.empty()) {
    throw std::invalid_argument("A device is asked for, but not of which root");
  }
  Place begin;
  if (!question.after.empty()) begin = Place::parse(question.after);
  std::optional<RootEntry> root;
  if (!question.root.empty()) {
    root = rootOf(question.root);
    if (!root) return {};
  }
  Range range = rangeOf(question);
  if (begin.row > 0 && question.isNewestFirst) range.high = std::min(range.high, begin.row);
  if (begin.row > 0 && !question.isNewestFirst) range.low = std::max(range.low, begin.row - 1);
  Page<Answer> page;
  std::size_t work = 0;
  Rows source(store_, root, range, question.isNewestFirst);
  for (std::vector<Row> rows = source.next(); !rows.empty(); rows = source.next()) {
    for (const Row& row : rows) {
      if (isSilent(row)) continue;
      Place place{row.id, row.id == begin.row ? begin.lines : 0};
      if (place.lines == Place::all) continue;
      if (work > mostWork) {
        page.next = place.text();
        return page;
      }
      work += workOf(row);
      std::vector<Answer> made = make(row);
      for (; place.lines < made.size(); ++place.lines) {
        if (page.answers.size() >= question.most) {
          page.next = place.text();
          return page;
        }
        page.answers.push_back(std::move(made[place.lines]));
      }
    }
  }
  return page;
}

// The devices that the question is about, at the row. Nothing where all are meant.
std::optional<std::set<std::string>> Reader::Core::below(const Row& row, const RootEntry& root,
                                                         const std::string& device) {
  if (device.empty()) return std::nullopt;
  if (row.id < belowOf_ || row.id >= belowUntil_) {
    const auto segment = store_.segment(root, row.id);
    below_.clear();
    if (segment) addBelow(treeOf(store_, segment->rows.front()), device, below_);
    belowOf_ = segment ? segment->rows.front().id : row.id;
    const std::int64_t end = store_.wholeAfter(root.number, row.id);
    belowUntil_ = end == 0 ? store_.state().last + 1 : end;
  }
  return below_;
}

std::vector<Change> Reader::Core::linesOf(const Row& row, const std::string& device) {
  std::vector<Change> changes;
  const auto add = [&](const std::string& root, const std::string& where, std::string text) {
    changes.push_back({row.time, root, where, std::move(text), {}});
    changes.back().place = Place{row.id, static_cast<std::uint32_t>(changes.size())}.text();
  };
  if (isWatch(row)) {
    add("", "", watchText(row));
    return changes;
  }
  if (row.kind == Kind::CHECKPOINT) return changes;
  RootEntry root = store_.root(row.root);
  auto devices = below(row, root, device);
  Tree before;
  Tree after;
  if (row.kind != Kind::STATUS) {
    if (const auto segment = store_.segment(root, row.id - 1)) before = treeOf(store_, *segment);
    after = treeOf(store_, row);
    if (devices) addBelow(before, device, *devices);
  }
  const auto isMeant = [&](const std::string& id) { return !devices || devices->count(id) > 0; };
  if (row.kind == Kind::CAUGHT_UP && isMeant(root.name)) {
    add(root.name, root.name, root.name + ": what changed before was not recorded");
  }
  if (row.kind == Kind::FORGOTTEN) {
    if (isMeant(root.name))
      add(root.name, root.name, root.name + ": its reporter lists it no longer");
    return changes;
  }
  for (auto& line :
       orv::device_tree::utils::GetSummary(eventOf(store_, root.name, row), before, after)) {
    if (isMeant(line.deviceId)) add(root.name, line.deviceId, std::move(line.text));
  }
  return changes;
}

Page<Change> Reader::Core::changes(const Question& question) {
  belowUntil_ = 0;
  return answer<Change>(question, [&](const Row& row) { return linesOf(row, question.device); });
}

// A status change has the sequence of the row before it and one more.
reporting::Sequence Reader::Core::sequenceAt(const Row& row) {
  reporting::Sequence sequence = wholeOf(row).sequence;
  const auto known = sequences_.find(row.root);
  if (row.kind == Kind::STATUS) {
    if (known != sequences_.end() && known->second.first.id == row.previous) {
      sequence = known->second.second;
      ++sequence.n;
    } else if (known != sequences_.end() && known->second.first.previous == row.id &&
               known->second.first.kind == Kind::STATUS) {
      sequence = known->second.second;
      --sequence.n;
    } else if (const auto segment = store_.segment(store_.root(row.root), row.id)) {
      sequence = sequenceOf(*segment);
    }
  }
  Row place = row;
  place.data.clear();
  sequences_[row.root] = {std::move(place), sequence};
  return sequence;
}

Page<Recorded> Reader::Core::events(const Question& question) {
  names_.clear();
  sequences_.clear();
  return answer<Recorded>(question, [this](const Row& row) {
    std::vector<Recorded> recorded;
    if (isWatch(row)) return recorded;
    const reporting::Sequence sequence = sequenceAt(row);
    if (row.kind == Kind::CHECKPOINT) return recorded;
    const std::string& name = nameOf(row.root);
    recorded.push_back({row.time, name, sequence, eventOf(store_, name, row),
                        row.kind == Kind::CAUGHT_UP || row.kind == Kind::FORGOTTEN});
    return recorded;
  });
}

std::optional<double> Reader::Core::valueIn(const Tree& tree, const std::string& device,
                                            const std::string& status) const {
  const DeviceNode* const found = find(tree, device);
  if (found == nullptr) return std::nullopt;
  const auto held = found->getStatus(status);
  if (!held) return std::nullopt;
  if (held->getType() == NamedStatus::TYPE_STRING) {
    throw std::invalid_argument("The status " + status + " of " + device + " is no number");
  }
  return numberOf(held->toProtoBuf());
}

Course Reader::Core::values(const std::string& id, const std::string& device,
                            const std::string& status, Time since, Time until, std::size_t most) {
  Course course;
  const auto root = rootOf(id);
  if (!root || since >= until || most == 0) return course;
  Thinning thinning(since, until, most);
  std::optional<double> value;
  const std::int64_t first = std::max(store_.placeOf(since), store_.state().horizon);
  if (const auto segment = store_.segment(*root, first)) {
    value = valueIn(treeOf(store_, *segment), device, status);
    thinning.add(std::max(since, segment->rows.front().time), value);
  }
  std::size_t work = 0;
  Rows source(store_, root, {first, store_.placeOf(until - milliseconds(1))}, false);
  for (std::vector<Row> rows = source.next(); !rows.empty(); rows = source.next()) {
    for (const Row& row : rows) {
      if (row.kind == Kind::CHECKPOINT || row.kind == Kind::CLOCK) continue;
      if (row.kind == Kind::WATCH) {
        thinning.add(watchOf(row).seen, std::nullopt);
        thinning.add(row.time, value);
        continue;
      }
      work += workOf(row);
      if (row.kind != Kind::STATUS) {
        value = valueIn(treeOf(store_, row), device, status);
        thinning.add(row.time, value);
        continue;
      }
      const auto bytes = unpack(row.data);
      if (!bytes) store_.damaged("the event of row " + std::to_string(row.id));
      // To read a message takes much longer than to look whether it can say anything.
      if (bytes->find(device) == std::string::npos || bytes->find(status) == std::string::npos) {
        continue;
      }
      const Event event = eventOf(store_, root->name, row);
      for (const auto& change :
           event.GetExtension(monitoring::StatusChangeEvent::base).named_status_changes()) {
        if (change.device_id() != device || change.status().name() != status) continue;
        value = numberOf(change.status());
        thinning.add(row.time, value);
      }
    }
    if (work <= mostWork || rows.back().time >= until) continue;
    course.next = std::max(rows.back().time, since + milliseconds(1));
    break;
  }
  course.spans = thinning.spans();
  return course;
}

Reader::Reader(const std::string& file) : core_(std::make_unique<Core>(file)) {}
Reader::~Reader() = default;
Reader::Reader(Reader&&) noexcept = default;

std::vector<Root> Reader::roots() {
  return core_->read([&] { return core_->roots(); });
}

std::optional<Time> Reader::oldest() {
  return core_->read([&] { return core_->oldest(); });
}

std::optional<Moment> Reader::treeAt(const std::string& root, Time time) {
  return core_->read([&] { return core_->treeAt(root, time); });
}

Page<Change> Reader::changes(const Question& question) {
  return core_->read([&] { return core_->changes(question); });
}

Page<Recorded> Reader::events(const Question& question) {
  return core_->read([&] { return core_->events(question); });
}

Course Reader::values(const std::string& root, const std::string& device, const std::string& status,
                      Time since, Time until, std::size_t most) {
  return core_->read([&] { return core_->values(root, device, status, since, until, most); });
}

}  // namespace orv::history
