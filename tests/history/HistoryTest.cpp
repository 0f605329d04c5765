// What a recorder records is what readers find: random histories, faults of the file, times.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "history/Reader.h"
#include "history/Recorder.h"
#include "tests/Nodes.h"

namespace {

using namespace std::chrono_literals;
using namespace orv::history;
using nodes::node;
using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;
using orv::device_tree::utils::EventHelper;
using orv::reporting::Event;
using orv::reporting::Sequence;
using orv::reporting::Tree;
namespace fs = std::filesystem;

std::string bytesOf(const Tree& tree) {
  return tree ? tree->toProtoBuf().SerializeAsString() : "none";
}

// A directory that goes with the test.
class Place {
 public:
  Place() { fs::create_directories(path_); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  ~Place() { fs::remove_all(path_); }
  std::string file() const { return (path_ / "history").string(); }

 private:
  fs::path path_ =
      fs::temp_directory_path() / ("orv_history_" + std::to_string(std::random_device()()));
};

// What a collector would have, and the truth about it.
class Fleet {
 public:
  struct Was {
    Time time;
    std::string root;
    std::string bytes;
    Sequence sequence;
  };

  explicit Fleet(unsigned int seed) : random_(seed) {}

  unsigned int pick(unsigned int count) { return static_cast<unsigned int>(random_()) % count; }

  // Something happens to a root. What is told to the recorder is kept as the truth.
  void step(Recorder& recorder) {
    const std::string id = "r" + std::to_string(pick(4));
    Tree& live = live_[id];
    const std::string value = std::to_string(++values_);
    std::string error;
    const unsigned int kind = pick(40);
    const Tree snapshot = live ? std::make_shared<DeviceNode>(*live) : nullptr;
    if (!live) {
      live = node(id, {node("a", {node("b")})});
      live->addStatus(NamedStatus("s", NamedStatus::TYPE_STRING, value), error);
      for (const char* name : {"a", "b"}) {
        const auto device = live->getDeviceById(name);
        device->addStatus(NamedStatus("n", NamedStatus::TYPE_INT, 0L), error);
        device->addProperty({"p", {}, value}, error);
      }
      if (pick(3) == 0) nodes::attach(*live, node("b"));  // one identifier for two
    } else if (kind == 0) {
      live.reset();
    } else if (kind == 1) {
      live->getDeviceById("a")->getProperties().at("p")->value = value;
    } else if (kind < 8) {
      live->getDeviceById("b")->setGlobalStatus({{}, value});
    } else if (kind < 25) {
      live->getDeviceById(kind < 16 ? "a" : "b")->getStatus("n")->setValue(std::stol(value));
    } else {
      live->getStatus("s")->setValue(std::string(pick(4) == 0 ? 900 : 1, 'x') + value);
    }
    Event event;
    if (!EventHelper::ComputeEvent(snapshot, live, event)) return;
    Sequence& sequence = sequences_[id];
    if (event.event_type() == Event::DEVICE_ADD) sequence = {random_(), 0};
    ++sequence.n;
    const Tree before = held_[id];
    ASSERT_TRUE(EventHelper::ApplyEvent(event, held_[id], error)) << error;
    recorder.record(id, {sequence, event, before, held_[id]});
    was_.push_back({now, id, bytesOf(held_[id]), sequence});
  }

  const std::vector<Was>& was() const { return was_; }
  const Tree& held(const std::string& id) { return held_[id]; }
  const Sequence& sequence(const std::string& id) { return sequences_[id]; }

  Time now{std::chrono::hours(500'000)};

 private:
  std::mt19937 random_;
  std::map<std::string, Tree> live_;
  std::map<std::string, Tree> held_;
  std::map<std::string, Sequence> sequences_;
  std::vector<Was> was_;
  unsigned int values_ = 0;
};

// Without a place for problems there must not be any.
RecorderOptions optionsOf(Fleet& fleet, std::vector<std::string>* problems = nullptr) {
  RecorderOptions options;
  options.retryPause = 0ms;
  options.clock = [&fleet] { return fleet.now; };
  options.problem = [problems](const std::string& problem) {
    if (problems == nullptr) {
      ADD_FAILURE() << problem;
    } else {
      problems->push_back(problem);
    }
  };
  return options;
}

TEST(History, EveryMomentIsFoundAsItWas) {
  for (unsigned int seed = 0; seed < 15; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const Place place;
    Fleet fleet(seed);
    auto recorder = std::make_unique<Recorder>(place.file(), optionsOf(fleet));
    for (int i = 0; i < 400; ++i) {
      fleet.now += 1ms * (1 + fleet.pick(1000));
      fleet.step(*recorder);
      if (fleet.pick(50) == 0) recorder->commit();
      if (fleet.pick(100) == 0) {  // a process that ends, and one that begins
        recorder.reset();
        recorder = std::make_unique<Recorder>(place.file(), optionsOf(fleet));
        const auto resumed = recorder->resume();
        for (const auto& root : resumed) {
          ASSERT_EQ(bytesOf(root.tree), bytesOf(fleet.held(root.root)));
          ASSERT_EQ(root.sequence, fleet.sequence(root.root));
        }
      }
    }
    ASSERT_TRUE(recorder->commit());
    Reader reader(place.file());
    for (const auto& was : fleet.was()) {
      const auto moment = reader.treeAt(was.root, was.time);
      ASSERT_TRUE(moment);
      ASSERT_EQ(bytesOf(moment->tree), was.bytes);
      ASSERT_EQ(moment->sequence, was.sequence);
      ASSERT_EQ(moment->since, was.time);
      ASSERT_EQ(moment->seen, was.time);
    }
    // Events between two moments lead from one to the other, page by page and in both directions.
    for (int i = 0; i < 20; ++i) {
      Question question;
      question.root = "r" + std::to_string(fleet.pick(4));
      question.since = fleet.was()[fleet.pick(300)].time;
      question.until = *question.since + 1ms * fleet.pick(100'000);
      question.most = 1 + fleet.pick(7);
      const auto first = reader.treeAt(question.root, *question.since - 1ms);
      const auto last = reader.treeAt(question.root, *question.until - 1ms);
      Tree tree = first ? first->tree : nullptr;
      std::vector<std::vector<Recorded>> all(2);
      for (const bool isNewestFirst : {false, true}) {
        question.isNewestFirst = isNewestFirst;
        question.after.clear();
        do {
          auto page = reader.events(question);
          std::move(page.answers.begin(), page.answers.end(),
                    std::back_inserter(all[isNewestFirst ? 1 : 0]));
          question.after = page.next;
        } while (!question.after.empty());
      }
      std::reverse(all[1].begin(), all[1].end());
      ASSERT_EQ(all[0].size(), all[1].size());
      std::string error;
      for (std::size_t n = 0; n < all[0].size(); ++n) {
        ASSERT_EQ(all[0][n].sequence, all[1][n].sequence);
        ASSERT_TRUE(EventHelper::ApplyEvent(all[0][n].event, tree, error)) << error;
      }
      ASSERT_EQ(bytesOf(tree), bytesOf(last ? last->tree : nullptr));
    }
  }
}

std::vector<std::string> textsOf(const Page<Change>& page) {
  std::vector<std::string> texts;
  for (const Change& change : page.answers) texts.push_back(change.root + "|" + change.text);
  return texts;
}

std::string read(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

void write(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

// Whatever is left of a file, no tree is told that was not so. Returns how many trees were told.
int checkDamaged(const std::string& file, Fleet& fleet) {
  int told = 0;
  try {
    Reader reader(file);
    for (int i = 0; i < 8; ++i) {
      const auto& was = fleet.was()[fleet.pick(static_cast<unsigned int>(fleet.was().size()))];
      try {
        const auto moment = reader.treeAt(was.root, was.time);
        if (!moment) continue;
        EXPECT_EQ(bytesOf(moment->tree), was.bytes);
        EXPECT_EQ(moment->sequence, was.sequence);
        ++told;
      } catch (const Error&) {
        continue;
      }
    }
    Question question;
    if (fleet.pick(2) == 0) question.root = "r1";
    question.isNewestFirst = fleet.pick(2) == 0;
    reader.changes(question);
    reader.values("r1", "a", "n", Time(), fleet.now, 10);
    reader.roots();
  } catch (const Error&) {
    return told;
  }
  return told;
}

TEST(History, OfDamagedFilesTellsNothingThatWasNotSo) {
  const Place place;
  Fleet fleet(1);
  {
    Recorder recorder(place.file(), optionsOf(fleet));
    for (int i = 0; i < 600; ++i) fleet.now += 1s, fleet.step(recorder);
  }
  const std::string whole = read(place.file());
  int told = 0;
  for (int round = 0; round < 1000; ++round) {
    SCOPED_TRACE(round);
    std::string bytes = whole;
    const auto size = static_cast<unsigned int>(bytes.size());
    // A few bytes, or a part that a disk gave back as something else.
    for (unsigned int count = 1 + fleet.pick(16); count > 0; --count) {
      bytes[fleet.pick(size)] = static_cast<char>(fleet.pick(256));
    }
    if (fleet.pick(4) == 0)
      bytes.replace(std::size_t{4096} * fleet.pick(size / 4096), 4096, whole, 8192, 4096);
    if (fleet.pick(20) == 0) bytes.resize(fleet.pick(size));
    for (const char* end : {"-wal", "-shm"}) fs::remove(place.file() + end);
    write(place.file(), bytes);
    told += checkDamaged(place.file(), fleet);
    if (HasFailure()) return;
    std::vector<std::string> problems;
    Fleet other(static_cast<unsigned int>(round));
    Recorder recorder(place.file(), optionsOf(other, &problems));
    for (const auto& root : recorder.resume()) {
      ASSERT_EQ(bytesOf(root.tree), bytesOf(fleet.held(root.root))) << root.root;
    }
    other.step(recorder);
    recorder.commit();
  }
  EXPECT_GT(told, 1000);  // most of a file is right
}

TEST(History, SaysWhatIsWrongWithAFile) {
  const Place place;
  Fleet fleet(1);
  std::vector<std::string> problems;
  const auto expect = [&](const std::string& file, const std::string& reason) {
    Recorder recorder(file, optionsOf(fleet, &problems));
    recorder.serve();
    EXPECT_EQ(recorder.failure(), file + ": " + reason);
    EXPECT_FALSE(recorder.commit());
  };
  Recorder first(place.file(), optionsOf(fleet));
  expect(place.file(), "another program records in it");
  fleet.step(first);
  EXPECT_TRUE(first.commit());
  fs::create_symlink(place.file(), place.file() + "-symbolic");
  expect(place.file() + "-symbolic", "another program records in it");
  fs::create_hard_link(place.file(), place.file() + "-hard");
  expect(place.file() + "-hard", "it has several names (hard links), and only one may be left");
  fs::create_directory(place.file() + "1");
  expect(place.file() + "1", "it cannot be opened: Is a directory");
  write(place.file() + "2", std::string(10'000, 'x'));
  expect(place.file() + "2", "this is no history, or the file is damaged");
  {
    Recorder recorder(place.file() + "3", optionsOf(fleet));
    EXPECT_EQ(recorder.failure(), "");
  }
  EXPECT_EQ(fs::status(place.file() + "3").permissions(), fs::perms(0640));
  std::string later = read(place.file() + "3");
  later[63] = 3;
  write(place.file() + "4", later);
  expect(place.file() + "4", "this history was written by a later version of this program");
  EXPECT_EQ(problems.size(), 6U) << "once each";
  EXPECT_THROW(Reader(place.file() + "5"), Error);
  EXPECT_FALSE(fs::exists(place.file() + "5"));
}

// What version 1.4.0 wrote had a row for each event. A recorder that commits each one writes the
// same.
TEST(History, ReadsAndContinuesAFileOfTheFirstForm) {
  const Place place;
  Fleet fleet(10);
  {
    Recorder recorder(place.file(), optionsOf(fleet));
    for (int i = 0; i < 100; ++i) fleet.now += 1s, fleet.step(recorder), recorder.commit();
  }
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(place.file().c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, "PRAGMA user_version = 1", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(database);
  const auto expectAll = [&] {
    Reader reader(place.file());
    for (const auto& was : fleet.was()) {
      ASSERT_EQ(bytesOf(reader.treeAt(was.root, was.time).value().tree), was.bytes);
    }
  };
  expectAll();
  {
    Recorder recorder(place.file(), optionsOf(fleet));
    for (int i = 0; i < 100; ++i) fleet.now += 1s, fleet.step(recorder);
  }
  expectAll();
  EXPECT_EQ(read(place.file())[63], 2) << "an earlier version must not read blocks";
}

TEST(History, GoesOnAfterAFullDiskAndSaysWhatItMissed) {
  const Place place;
  Fleet fleet(7);
  std::vector<std::string> problems;
  Recorder recorder(place.file(), optionsOf(fleet, &problems));
  const auto play = [&](int steps) {
    for (int i = 0; i < steps; ++i) {
      fleet.now += 1s;
      fleet.step(recorder);
      recorder.commit();
    }
  };
  play(100);
  const Time last = fleet.now;
  // What a full disk does to a program that writes.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  rlimit full = before;
  full.rlim_cur = 4096;
  setrlimit(RLIMIT_FSIZE, &full);
  play(50);
  recorder.serve();
  setrlimit(RLIMIT_FSIZE, &before);
  const std::string reason = recorder.failure();
  EXPECT_EQ(reason, place.file() + ": the disk is full");
  EXPECT_EQ(problems.back(), "Nothing is recorded: " + reason);
  EXPECT_LE(problems.size(), 2U) << "once for each reason";
  fleet.now += 1s;
  recorder.serve();
  for (const std::string id : {"r0", "r1", "r2", "r3"}) {
    EXPECT_LE(Reader(place.file()).treeAt(id, fleet.now)->seen, last) << "not caught up on yet";
  }
  fleet.now += 1s;
  recorder.serve();
  EXPECT_EQ(problems.back(), place.file() + ": it is recorded again");
  ASSERT_TRUE(recorder.commit());
  const Time again = fleet.now;
  play(20);
  Reader reader(place.file());
  for (const std::string id : {"r0", "r1", "r2", "r3"}) {
    const auto missed = reader.treeAt(id, last + 40s);
    ASSERT_TRUE(missed);
    EXPECT_LE(missed->seen, last);
    const auto now = reader.treeAt(id, again + 20s);
    ASSERT_TRUE(now);
    EXPECT_EQ(bytesOf(now->tree), bytesOf(fleet.held(id)));
    EXPECT_EQ(now->sequence, fleet.sequence(id));
    EXPECT_EQ(now->seen, again + 20s);
  }
  Question question;
  question.since = last + 1s;
  const auto texts = textsOf(reader.changes(question));
  EXPECT_EQ(std::count(texts.begin(), texts.end(),
                       "|Nothing was recorded since " + textOf(last) + ": " + reason),
            1);
}

TEST(History, BeginsAnewWithAllTreesWhereItsFileWasMovedAway) {
  const Place place;
  Fleet fleet(9);
  std::vector<std::string> problems;
  Recorder recorder(place.file(), optionsOf(fleet, &problems));
  for (int i = 0; i < 50; ++i) fleet.step(recorder);
  ASSERT_TRUE(recorder.commit());
  for (const char* end : {"", "-wal", "-shm"}) {
    fs::rename(place.file() + end, place.file() + "-old" + end);
  }
  fleet.step(recorder);
  EXPECT_FALSE(recorder.commit());
  EXPECT_EQ(recorder.failure(), place.file() + ": it was moved or removed");
  for (int i = 0; i < 2; ++i) recorder.serve();
  ASSERT_TRUE(recorder.commit());
  Reader reader(place.file());
  for (const std::string id : {"r0", "r1", "r2", "r3"}) {
    const auto moment = reader.treeAt(id, fleet.now);
    EXPECT_EQ(bytesOf(moment ? moment->tree : nullptr), bytesOf(fleet.held(id)));
  }
  EXPECT_EQ(Reader(place.file() + "-old").roots().size(), 4U);
}

TEST(History, KeepsWhatItShallKeep) {
  for (const bool isByAge : {true, false}) {
    const Place place;
    Fleet fleet(3);
    RecorderOptions options = optionsOf(fleet);
    if (isByAge) options.keepAge = 1h;
    if (!isByAge) options.keepBytes = 600'000;
    Recorder recorder(place.file(), options);
    for (int i = 0; i < 15'000; ++i) {
      fleet.now += 1s;
      fleet.step(recorder);
      if (i % 10 != 0) continue;
      recorder.commit();
      recorder.serve();
    }
    recorder.commit();
    EXPECT_LT(fs::file_size(place.file()), isByAge ? 1'500'000U : 600'000U);
    Reader reader(place.file());
    const Time oldest = reader.oldest().value();
    if (isByAge) {
      EXPECT_LT(fleet.now - oldest, 62min);
      EXPECT_GT(fleet.now - oldest, 59min);
    }
    std::map<std::string, bool> isThere;
    for (const auto& was : fleet.was()) {
      isThere[was.root] = was.bytes != "none";
      const auto moment = reader.treeAt(was.root, was.time);
      ASSERT_EQ(moment.has_value(), was.time >= oldest) << textOf(was.time);
      if (!moment) continue;
      ASSERT_EQ(bytesOf(moment->tree), was.bytes);
    }
  }
}

// A time asks for what was recorded last at that time or before it.
TEST(History, KeepsItsOrderWhenTheClockIsSetBack) {
  const Place place;
  Fleet fleet(5);
  Recorder recorder(place.file(), optionsOf(fleet));
  const Time begin = fleet.now;
  for (int i = 0; i < 100; ++i) fleet.now += 1s, fleet.step(recorder);
  fleet.now = begin + 30s;
  for (int i = 0; i < 30; ++i) fleet.now += 1s, fleet.step(recorder);
  ASSERT_TRUE(recorder.commit());
  Reader reader(place.file());
  for (Time time = begin; time < begin + 110s; time += 500ms) {
    for (const std::string id : {"r0", "r1", "r2", "r3"}) {
      // Where something later was recorded of any root, that is the place that counts.
      const Fleet::Was* expected = nullptr;
      std::size_t end = 0;
      for (std::size_t n = 0; n < fleet.was().size(); ++n) {
        if (fleet.was()[n].time <= time) end = n + 1;
      }
      for (std::size_t n = 0; n < end; ++n) {
        if (fleet.was()[n].root == id) expected = &fleet.was()[n];
      }
      const auto moment = reader.treeAt(id, time);
      ASSERT_EQ(moment.has_value(), expected != nullptr);
      if (expected == nullptr) continue;
      ASSERT_EQ(bytesOf(moment->tree), expected->bytes);
    }
  }
  EXPECT_EQ(textsOf(reader.changes({})).back().rfind("|The clock", 0), std::string::npos);
}

TEST(History, KeepsWhatAWrongClockWouldLetGo) {
  const Place place;
  Fleet fleet(8);
  RecorderOptions options = optionsOf(fleet);
  options.keepAge = 24h;
  auto recorder = std::make_unique<Recorder>(place.file(), options);
  const Time begin = fleet.now;
  const auto play = [&] {
    for (int i = 0; i < 50; ++i) fleet.now += 1s, fleet.step(*recorder);
    ASSERT_TRUE(recorder->commit());
  };
  const auto stay = [&](std::chrono::minutes time) {
    for (const Time end = fleet.now + time; fleet.now < end; fleet.now += 5min) {
      for (int i = 0; i < 50; ++i) recorder->serve();
    }
  };
  const auto expectAll = [&] {
    Reader reader(place.file());
    for (const auto& was : fleet.was()) {
      if (was.time < begin) continue;
      const auto moment = reader.treeAt(was.root, was.time);
      ASSERT_TRUE(moment) << textOf(was.time);
      ASSERT_EQ(bytesOf(moment->tree), was.bytes) << textOf(was.time);
    }
  };
  play();
  // The machine starts without knowing the time, is started once more, and learns it.
  for (int i = 0; i < 2; ++i) {
    fleet.now = Time(1h);
    recorder.reset();
    recorder = std::make_unique<Recorder>(place.file(), options);
    play();
  }
  stay(2h);
  fleet.now = begin + 1h;
  play();
  expectAll();
  stay(2h);
  expectAll();
  const Time right = fleet.now;
  fleet.now += 1000h;
  stay(30min);
  recorder.reset();
  recorder = std::make_unique<Recorder>(place.file(), options);
  stay(30min);
  fleet.now = right;
  stay(2h);
  expectAll();
  // What was recorded in the future does not hold up the rest.
  play();
  const Time later = fleet.now;
  stay(30h);
  play();
  stay(10min);
  EXPECT_FALSE(Reader(place.file()).treeAt("r0", later - 20s));
}

TEST(History, MarksWhereStepsWereSkipped) {
  const Place place;
  Fleet fleet(2);
  Recorder recorder(place.file(), optionsOf(fleet));
  Recorder other(place.file() + "-other", optionsOf(fleet));
  std::map<std::string, bool> isLost;
  std::vector<std::pair<Sequence, bool>> expected;
  for (int i = 0; i < 1000; ++i) {
    const bool isKept = i < 50 || fleet.pick(3) > 0;
    const std::size_t count = fleet.was().size();
    fleet.now += 1s;
    fleet.step(isKept ? recorder : other);
    if (fleet.was().size() == count) continue;
    const auto& was = fleet.was().back();
    if (!isKept) isLost[was.root] = true;
    if (isKept) expected.emplace_back(was.sequence, std::exchange(isLost[was.root], false));
  }
  ASSERT_TRUE(recorder.commit());
  Question question;
  question.isNewestFirst = false;
  question.most = 1000;
  const auto page = Reader(place.file()).events(question);
  ASSERT_EQ(page.answers.size(), expected.size());
  std::map<std::string, Sequence> last;
  int skips = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const Recorded& one = page.answers[i];
    ASSERT_EQ(one.sequence, expected[i].first);
    const Sequence before = std::exchange(last[one.root], one.sequence);
    if (before.epoch != one.sequence.epoch) continue;
    EXPECT_EQ(one.isCaughtUp, expected[i].second) << one.sequence.text();
    if (one.isCaughtUp && !orv::reporting::isWholeTree(one.event)) ++skips;  // a removal
  }
  EXPECT_GT(skips, 0);
}

TEST(History, SaysWhenThereWasNoConnection) {
  const Place place;
  Fleet fleet(6);
  Recorder recorder(place.file(), optionsOf(fleet));
  const auto play = [&] {
    for (int i = 0; i < 50; ++i) fleet.now += 1s, fleet.step(recorder);
    ASSERT_TRUE(recorder.commit());
  };
  play();
  for (const auto& pause : {2s, 60s}) {
    const Time lost = fleet.now;
    recorder.setConnected(false);
    fleet.now += pause;
    recorder.forget("unknown");  // which commits
    recorder.commit();
    EXPECT_EQ(Reader(place.file()).treeAt("r1", fleet.now)->seen, lost);
    play();
    const bool isTold = pause > 5s;
    Reader reader(place.file());
    EXPECT_EQ(reader.treeAt("r1", fleet.now)->seen, fleet.now);
    EXPECT_EQ(reader.treeAt("r1", lost + pause)->seen, isTold ? lost : lost + pause);
    Question question;
    question.since = lost;
    const auto texts = textsOf(reader.changes(question));
    EXPECT_EQ(std::count(texts.begin(), texts.end(),
                         "|Nothing was recorded since " + textOf(lost) +
                             ": there was no connection to the broker"),
              isTold ? 1 : 0);
  }
}

TEST(History, LeavesOutOnlyTheRootWhoseEntryIsDamaged) {
  const Place place;
  Fleet fleet(4);
  {
    Recorder recorder(place.file(), optionsOf(fleet));
    for (int i = 0; i < 50; ++i) fleet.now += 1s, fleet.step(recorder);
  }
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open(place.file().c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, "UPDATE root SET head = head + 1 WHERE number = 1", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(database);
  std::vector<std::string> problems;
  Recorder recorder(place.file(), optionsOf(fleet, &problems));
  EXPECT_EQ(recorder.resume().size(), 3U);
  for (int i = 0; i < 50; ++i) fleet.now += 1s, fleet.step(recorder);
  EXPECT_TRUE(recorder.commit());
  EXPECT_EQ(problems.size(), 2U) << "what is not resumed and what is not recorded";
  Reader reader(place.file());
  const auto roots = reader.roots();
  EXPECT_EQ(roots.size(), 4U);
  const auto isDamaged = [](const Root& root) { return !root.damage.empty(); };
  EXPECT_EQ(std::count_if(roots.begin(), roots.end(), isDamaged), 1);
  int refused = 0;
  for (const std::string id : {"r0", "r1", "r2", "r3"}) {
    try {
      EXPECT_EQ(bytesOf(reader.treeAt(id, fleet.now)->tree), bytesOf(fleet.held(id)));
    } catch (const Error&) {
      ++refused;
    }
  }
  EXPECT_EQ(refused, 1);
}

TEST(History, TellsChangesAndValuesOfADevice) {
  const Place place;
  Fleet fleet(1);
  Recorder recorder(place.file(), optionsOf(fleet));
  const Time begin = fleet.now;
  std::string error;
  Tree live = node("r", {node("a", {node("b")}), node("c")});
  live->getDeviceById("a")->addProperty({"serial", {}, std::string("S1")}, error);
  for (const char* id : {"b", "c"}) {
    live->getDeviceById(id)->addStatus(NamedStatus("n", NamedStatus::TYPE_INT, 0L), error);
  }
  Tree held;
  Sequence sequence{7, 0};
  const auto report = [&] {
    Event event;
    ASSERT_TRUE(EventHelper::ComputeEvent(held, live, event));
    const Tree before = held;
    ASSERT_TRUE(EventHelper::ApplyEvent(event, held, error));
    ++sequence.n;
    recorder.record("r", {sequence, event, before, held});
    fleet.now += 1s;
  };
  report();
  for (long i = 1; i <= 100; ++i) {
    live->getDeviceById("b")->getStatus("n")->setValue(i % 10);
    live->getDeviceById("c")->getStatus("n")->setValue(i);
    report();
  }
  live->getDeviceById("a")->getProperties().at("serial")->value = std::string("S2");
  report();
  live->removeSubDevice("a", true, error);
  report();
  ASSERT_TRUE(recorder.commit());
  Reader reader(place.file());
  Question question;
  question.root = "r";
  question.most = 1;
  const std::string newest = reader.changes(question).answers.at(0).place;
  question.device = "a";
  question.most = 4;
  auto page = reader.changes(question);
  EXPECT_EQ(textsOf(page),
            (std::vector<std::string>{"r|a: device removed",
                                      "r|a: property serial changed from \"S1\" to \"S2\"",
                                      "r|b: n (int 0)", "r|b: n (int 9)"}));
  question.device.clear();
  question.isNewestFirst = false;
  question.after = newest;
  recorder.forget("r");
  recorder.forget("r");
  ASSERT_TRUE(recorder.commit());
  page = reader.changes(question);
  EXPECT_EQ(textsOf(page), (std::vector<std::string>{"r|a: device removed",
                                                     "r|r: its reporter lists it no longer"}));
  EXPECT_FALSE(reader.roots().at(0).isThere);

  const Course course = reader.values("r", "b", "n", begin, begin + 110s, 11);
  ASSERT_EQ(course.spans.size(), 11U);
  EXPECT_EQ(course.spans[1].smallest, 0);
  EXPECT_EQ(course.spans[1].largest, 9);
  EXPECT_EQ(course.spans[1].last, 9);
  EXPECT_TRUE(course.spans[10].isUnknown) << "the device is gone";
  EXPECT_THROW(reader.changes([] {
    Question wrong;
    wrong.device = "a";
    return wrong;
  }()),
               std::invalid_argument);
}

TEST(History, ReadsTimesAsPeopleWriteThem) {
  const Time now(1'732'443'351'250ms);
  EXPECT_EQ(textOf(now), "2024-11-24T10:15:51.250Z");
  for (const char* text : {"2024-11-24T10:15:51.25Z", "2024-11-24 12:15:51.2509+02:00", "now",
                           "2024-11-23t23:15:51.250-11:00"}) {
    EXPECT_EQ(timeOf(text, now), now) << text;
  }
  EXPECT_EQ(timeOf("90s ago", now), now - 90s);
  EXPECT_EQ(timeOf("3d ago", now), now - std::chrono::hours(72));
  for (const char* text :
       {"", "2024-11-24", "2024-02-30T00:00:00Z", "2024-11-24T10:15:51", "2024-11-24T24:00:00Z",
        "2024-11-24T10:15:51Zx", "2h", "h ago", "-1h ago", "99999999999999d ago", "+1h ago"}) {
    EXPECT_FALSE(timeOf(text, now)) << text;
  }
}

}  // namespace
