#include "history/Recorder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory_resource>
#include <new>
#include <optional>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "history/Keeping.h"
#include "history/Packing.h"
#include "history/Rebuild.h"
#include "history/Store.h"

namespace orv::history {

using reporting::Event;
using reporting::Sequence;
using reporting::Step;
using reporting::Tree;
using std::chrono::steady_clock;

namespace {

constexpr std::chrono::milliseconds commitPause(400);
constexpr std::chrono::seconds watchPause(5);
// While somebody reads all the time, SQLite's log grows. Longer than that, it has to end; to wait
// for those who read now is tried now and then.
constexpr std::uint64_t mostLog = 64 << 20;
constexpr std::chrono::seconds logPause(5);
// A clock that is corrected by less stands still for so long.
constexpr std::chrono::seconds smallStep(1);
// Fewer bytes of events are no reason to record a tree again.
constexpr std::size_t leastBytes = 4096;
// For so long trees are recorded at one time when recording is possible again.
constexpr std::chrono::milliseconds catchUpTime(40);

Time systemTime() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

Kind kindOf(const Event& event) {
  switch (event.event_type()) {
    case Event::DEVICE_ADD:
      return Kind::ADDED;
    case Event::CONFIGURATION_CHANGE:
      return Kind::CONFIGURED;
    case Event::DEVICE_REMOVE:
      return Kind::REMOVED;
    default:
      return Kind::STATUS;
  }
}

// What the file is called without symbolic links, which SQLite follows as well. Two hard links
// would have a -wal and a lock each, and the file would be damaged.
std::string onlyNameOf(const std::string& file) {
  std::error_code error;
  const auto path = std::filesystem::weakly_canonical(file, error);
  if (error) throw Error(file + ": it cannot be opened: " + error.message());
  const auto links = std::filesystem::hard_link_count(path, error);
  if (!error && links > 1 && std::filesystem::is_regular_file(path, error)) {
    throw Error(file + ": it has several names (hard links), and only one may be left");
  }
  return path.string();
}

// Keeps other recorders from a file. SQLite's own locks would have them take turns.
class Lock {
 public:
  explicit Lock(const std::string& file) {
    const std::string name = onlyNameOf(file) + "-lock";
    descriptor_ = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);  // NOLINT(*-vararg)
    if (descriptor_ >= 0 && flock(descriptor_, LOCK_EX | LOCK_NB) == 0) return;
    const bool isTaken = errno == EWOULDBLOCK;
    const std::string reason = std::strerror(errno);
    if (descriptor_ >= 0) close(descriptor_);
    throw Error(isTaken ? file + ": another program records in it" : name + ": " + reason);
  }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() { close(descriptor_); }

 private:
  int descriptor_;
};

}  // namespace

class Recorder::Core {
 public:
  Core(std::string file, RecorderOptions options);

  std::vector<Resumed> resume();
  void record(const std::string& id, const Step& step);
  void forget(const std::string& id);
  void setConnected(bool isConnected);
  void serve();
  bool commit();
  const std::string& failure() const noexcept { return failure_; }

 private:
  struct Root {
    // According to the file; the number is 0 until that was looked at.
    RootEntry entry;
    std::optional<Sequence> recorded;  // nothing where a status change cannot follow
    std::size_t since = 0;             // bytes of events after the last whole tree
    std::size_t size = 0;              // of that tree
    bool isThere = false;
    // According to the steps that came.
    Sequence latest;
    Tree tree;
    bool isMissed = false;   // a step was not recorded
    bool isLeftOut = false;  // its entry in the file is damaged
    bool isDirty = false;    // the head is not in the file yet
  };

  template <typename Action>
  void attempt(const Action& action);
  void open();
  void fail(const std::string& reason);
  void tell(const std::string& problem) const {
    if (options_.problem) options_.problem(problem);
  }
  Time now() const { return options_.clock ? options_.clock() : systemTime(); }
  void begin();
  void setTime();
  bool load(const std::string& id, Root& root);
  void prime(Root& root, const Segment& segment);
  void append(Root& root, Row row);
  void appendWhole(Root& root, Kind kind);
  void appendGap(const std::string& reason);
  void write(const std::string& id, Root& root, const Event& event);
  void catchUp();
  void keep();
  void commitAll();

  std::string file_;
  RecorderOptions options_;
  std::string failure_;  // why nothing is recorded
  std::string told_;
  Packer packer_;
  std::optional<Lock> lock_;
  std::optional<Store> store_;
  std::optional<Transaction> transaction_;
  Keeping keeping_;
  bool isKeeping_ = true;
  bool isConnected_ = true;
  // Close together: each step is of another root, and what is scattered is slow to get at.
  std::pmr::unsynchronized_pool_resource memory_;
  std::pmr::unordered_map<std::string, Root> roots_{&memory_};
  std::vector<Root*> dirty_;
  std::vector<std::string> missed_;
  Root watch_;
  State state_;
  std::int64_t last_ = 0;
  std::int64_t lastRoot_ = 0;
  Time lastTime_;  // that was recorded since the clock was set back
  // Kept, because they reuse their memory.
  orv::proto::monitoring::DeviceNode tree_;
  std::string bytes_;
  steady_clock::time_point commitDue_, watchDue_, logDue_, retryDue_;
};

Recorder::Core::Core(std::string file, RecorderOptions options)
    : file_(std::move(file)),
      options_(std::move(options)),
      keeping_({options_.keepAge, options_.keepBytes},
               [this](const std::string& id) { roots_.erase(id); }) {
  attempt([this] { open(); });
}

// Does what needs the file. A failure ends the use of the file for a while.
template <typename Action>
void Recorder::Core::attempt(const Action& action) {
  try {
    action();
  } catch (const Error& error) {
    fail(error.what());
  } catch (const std::bad_alloc&) {
    fail(file_ + ": there is not enough memory");
  }
}

void Recorder::Core::open() {
  if (!lock_) lock_.emplace(file_);
  store_.emplace(file_, Database::Mode::WRITE);
  begin();
  state_ = store_->state();
  last_ = state_.last;
  if (last_ < store_->database().number("SELECT max(id) FROM event")) {
    store_->damaged("there is more than was recorded");
  }
  lastRoot_ = store_->database().number("SELECT max(number) FROM root");
  if (lastRoot_ < 0 || lastRoot_ > Store::largest) store_->damaged("the numbers of its roots");
  watch_ = {};
  if (last_ > 0) watch_.entry = store_->root(Store::watchRoot);
  lastTime_ = now();
  appendGap(failure_);
  const bool isNew = state_.last == 0;
  for (auto& [id, root] : roots_) {
    root.isMissed = root.isMissed || (isNew && root.tree);
    if (root.isMissed) missed_.push_back(id);
  }
  commitAll();
  keeping_.restart();
  isKeeping_ = true;
  failure_.clear();
  if (!std::exchange(told_, "").empty()) tell(file_ + ": it is recorded again");
}

void Recorder::Core::fail(const std::string& reason) {
  transaction_.reset();
  store_.reset();
  dirty_.clear();
  missed_.clear();
  for (auto& [id, root] : roots_) {
    root.isMissed = root.isMissed || root.isDirty;
    root.isDirty = false;
    root.isLeftOut = false;
    root.entry = {};
    root.recorded.reset();
  }
  failure_ = reason;
  retryDue_ = steady_clock::now() + options_.retryPause;
  if (std::exchange(told_, reason) != reason) tell("Nothing is recorded: " + reason);
}

void Recorder::Core::begin() {
  if (transaction_) return;
  transaction_.emplace(store_->database(), "BEGIN IMMEDIATE");
  commitDue_ = steady_clock::now() + commitPause;
}

void Recorder::Core::prime(Root& root, const Segment& segment) {
  root.recorded = sequenceOf(segment);
  root.size = unpackedSize(wholeOf(segment.rows.front()).tree);
  root.isThere = !wholeOf(segment.rows.front()).tree.empty();
  root.since = 0;
  for (const Row& row : segment.rows) {
    if (row.kind == Kind::STATUS) root.since += unpackedSize(row.data);
  }
}

// Whether the root can be recorded. What is damaged of one root is no reason to leave out others.
bool Recorder::Core::load(const std::string& id, Root& root) {
  if (root.entry.number != 0) return true;
  if (root.isLeftOut) return false;
  std::optional<RootEntry> entry;
  try {
    entry = store_->root(id);
  } catch (const Damage& damage) {
    root.isLeftOut = true;
    tell("The root " + id + " is not recorded: " + damage.what());
    return false;
  }
  if (!entry) {
    root.entry = {++lastRoot_, id, 0};
    return true;
  }
  root.entry = std::move(*entry);
  try {
    if (const auto segment = store_->segment(root.entry, last_)) prime(root, *segment);
  } catch (const Damage&) {
    root.recorded.reset();  // a whole tree comes next
  }
  return true;
}

// The row after the last one of its root.
void Recorder::Core::append(Root& root, Row row) {
  begin();
  row.id = ++last_;
  row.root = root.entry.number;
  row.previous = root.entry.head;
  row.time = lastTime_;
  root.entry.head = row.id;
  store_->append(std::move(row));
  if (!std::exchange(root.isDirty, true)) dirty_.push_back(&root);
}

void Recorder::Core::appendWhole(Root& root, Kind kind) {
  Row row;
  row.kind = kind;
  row.data = dataOf(root.latest);
  if (root.tree) {
    root.tree->toProtoBuf(tree_);
    tree_.SerializeToString(&bytes_);
    packer_.pack(bytes_, row.data);
  }
  root.size = unpackedSize(wholeOf(row).tree);
  root.since = 0;
  root.isThere = root.tree != nullptr;
  root.recorded = root.latest;
  append(root, std::move(row));
  root.isMissed = false;
}

// Nothing was recorded since the recorder was at work for the last time.
void Recorder::Core::appendGap(const std::string& reason) {
  Row row;
  row.kind = Kind::WATCH;
  row.data = dataOf(Watch{state_.seen, reason});
  append(watch_, std::move(row));
}

// What is recorded from here on is of now.
void Recorder::Core::setTime() {
  const Time time = now();
  if (time < lastTime_ - smallStep) {
    lastTime_ = time;
    Row row;
    row.kind = Kind::CLOCK;
    append(watch_, std::move(row));
  }
  lastTime_ = std::max(lastTime_, time);
}

void Recorder::Core::write(const std::string& id, Root& root, const Event& event) {
  begin();
  if (!load(id, root)) return;
  setTime();
  const Kind kind = kindOf(event);
  const bool isSameEpoch = root.recorded && root.recorded->epoch == root.latest.epoch;
  const bool isNext = isSameEpoch && root.latest.n == root.recorded->n + 1;
  // A whole tree ends a gap, and the first one of an epoch follows on nothing.
  const bool isSkipped = isSameEpoch && root.latest.n > root.recorded->n + 1;
  if (root.isMissed || isSkipped || (kind == Kind::STATUS && !isNext)) {
    return appendWhole(root, Kind::CAUGHT_UP);
  }
  if (kind != Kind::STATUS) return appendWhole(root, kind);
  event.SerializeToString(&bytes_);
  Row row;
  packer_.pack(bytes_, row.data);
  root.recorded = root.latest;
  root.since += bytes_.size();
  append(root, std::move(row));
  if (root.since > std::max(root.size, leastBytes)) appendWhole(root, Kind::CHECKPOINT);
}

void Recorder::Core::setConnected(bool isConnected) {
  if (isConnected == isConnected_) return;
  if (store_) {
    attempt([&] {
      if (!isConnected) return commitAll();
      if (now() - state_.seen <= watchPause) return;
      begin();
      setTime();
      appendGap("there was no connection to the broker");
    });
  }
  isConnected_ = isConnected;
}

void Recorder::Core::record(const std::string& id, const Step& step) {
  setConnected(true);
  Root& root = roots_[id];
  root.latest = step.sequence;
  root.tree = step.after;
  if (store_) attempt([&] { write(id, root, step.event); });
  // It failed now or before.
  if (!store_) root.isMissed = true;
}

void Recorder::Core::forget(const std::string& id) {
  Root& root = roots_[id];
  root.tree.reset();
  if (store_) {
    attempt([&] {
      begin();
      if (!load(id, root) || root.entry.head == 0 || (root.recorded && !root.isThere)) return;
      if (root.recorded) root.latest = *root.recorded;
      setTime();
      appendWhole(root, Kind::FORGOTTEN);
    });
  }
  if (!store_) root.isMissed = true;
}

void Recorder::Core::catchUp() {
  const auto end = steady_clock::now() + catchUpTime;
  while (!missed_.empty() && steady_clock::now() < end) {
    const std::string id = std::move(missed_.back());
    missed_.pop_back();
    const auto root = roots_.find(id);
    if (root == roots_.end() || !root->second.isMissed) continue;
    if (!load(id, root->second)) continue;
    const bool isThere = root->second.tree != nullptr;
    const bool isSame =
        root->second.recorded == root->second.latest && root->second.isThere == isThere;
    if (isSame || (!isThere && root->second.entry.head == 0)) {
      root->second.isMissed = false;
      continue;
    }
    if (!isThere && root->second.recorded) root->second.latest = *root->second.recorded;
    setTime();
    appendWhole(root->second, Kind::CAUGHT_UP);
  }
}

void Recorder::Core::commitAll() {
  begin();
  if (store_->database().isMoved()) store_->database().fail("it was moved or removed");
  store_->file();
  for (Root* const root : dirty_) {
    store_->setRoot(root->entry);
    root->isDirty = false;
  }
  state_.horizon = store_->state().horizon;
  state_.last = last_;
  // Until all is caught up on, some trees in the file are older than that.
  if (missed_.empty() && isConnected_) state_.seen = std::max(lastTime_, now());
  store_->setState(state_);
  transaction_->commit();
  transaction_.reset();
  dirty_.clear();
  watchDue_ = steady_clock::now() + watchPause;
}

void Recorder::Core::serve() {
  const auto time = steady_clock::now();
  if (!store_) {
    if (time >= retryDue_) attempt([this] { open(); });
    return;
  }
  attempt([&] {
    if (!missed_.empty()) catchUp();
    if (transaction_ ? time >= commitDue_ : time >= watchDue_) commitAll();
    if (!transaction_ && time >= logDue_ && store_->database().logSize() > mostLog) {
      logDue_ = time + logPause;
      store_->database().shortenLog();
    }
    // What is gone in the file could have come back and be missed.
    if (!transaction_ && missed_.empty() && isKeeping_) keep();
  });
}

// What is damaged and old is no reason to record nothing.
void Recorder::Core::keep() {
  try {
    keeping_.serve(*store_, now());
  } catch (const Damage& damage) {
    isKeeping_ = false;
    tell(std::string("What is too old is not let go: ") + damage.what());
  }
}

bool Recorder::Core::commit() {
  if (store_ && transaction_) attempt([this] { commitAll(); });
  return store_.has_value() && missed_.empty();
}

std::vector<Recorder::Resumed> Recorder::Core::resume() {
  std::vector<Resumed> resumed;
  if (!store_) return resumed;
  attempt([&] {
    if (transaction_) commitAll();
    for (std::int64_t number = 0; (number = store_->rootNumberAfter(number)) != 0;) {
      try {
        RootEntry entry = store_->root(number);
        const auto segment = store_->segment(entry, last_);
        Tree tree = segment ? treeOf(*store_, *segment) : nullptr;
        if (!tree) continue;
        resumed.push_back({entry.name, std::move(tree), sequenceOf(*segment)});
        Root& root = roots_[entry.name];
        if (root.entry.number != 0) continue;
        root.latest = resumed.back().sequence;
        root.tree = resumed.back().tree;
        prime(root, *segment);
        root.entry = std::move(entry);
      } catch (const Damage& damage) {
        tell(std::string("A tree is not taken from the history: ") + damage.what());
      }
    }
  });
  return resumed;
}

Recorder::Recorder(const std::string& file, RecorderOptions options)
    : core_(std::make_unique<Core>(file, std::move(options))) {}

Recorder::~Recorder() { core_->commit(); }

std::vector<Recorder::Resumed> Recorder::resume() { return core_->resume(); }

void Recorder::record(const std::string& root, const reporting::Step& step) {
  core_->record(root, step);
}

void Recorder::forget(const std::string& root) { core_->forget(root); }

void Recorder::setConnected(bool isConnected) { core_->setConnected(isConnected); }

void Recorder::serve() { core_->serve(); }

bool Recorder::commit() { return core_->commit(); }

const std::string& Recorder::failure() const noexcept { return core_->failure(); }

}  // namespace orv::history
