// What a recorder records is what readers find: random histories, faults of the file, times.
#include <gtest/gtest.h>

#include <algorithm>
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
using orv::reporting::Step;
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

RecorderOptions optionsOf(Fleet& fleet, std::vector<std::string>* problems = nullptr) {
  RecorderOptions options;
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
  for (unsigned int seed = 0; seed < 40; ++seed) {
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

}  // namespace
