#include <gtest/gtest.h>

#include <algorithm>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Collector.h"
#include "tests/Nodes.h"
#include "tests/reporting/Wire.h"

namespace {

using namespace std::chrono_literals;
using namespace wire;

// What a collector is told and asks for, message by message.
class CollectorTest : public ::testing::Test, protected Side {
 protected:
  CollectorTest() {
    CollectorCallbacks callbacks;
    callbacks.applied = [](const auto&, const Event&, const Tree&) {};
    callbacks.changed = [this](const std::string& id, Condition condition) {
      said.push_back(id + " " + std::to_string(static_cast<int>(condition)));
    };
    callbacks.problem = [this](const std::string& problem) { said.push_back(problem); };
    collector = std::make_unique<Collector>(callbacks);
    collector->connected(*this, now);
  }
  void subscribe(const std::vector<std::string>& /*topics*/) override {}

  void state(const std::string& name, std::uint64_t start, bool isOnline,
             const std::vector<std::pair<std::string, Sequence>>& roots, bool isKept = false) {
    orv::proto::monitoring::ReporterState state;
    state.set_start(start);
    state.set_online(isOnline);
    for (const auto& [id, latest] : roots) {
      auto& root = *state.add_roots();
      root.set_root(id);
      root.set_epoch(latest.epoch);
      root.set_n(latest.n);
    }
    collector->received({Topics("orv/1").reporter(name), state.SerializeAsString(), isKept, {}, {}},
                        now);
  }

  void tree(const std::string& id, const Sequence& sequence, const std::string& idInside) {
    Sender sender(sequence.epoch, 0s);
    std::string refusal;
    const std::string payload =
        sender.next(nodes::node(idInside), now, refusal)->event.SerializeAsString();
    collector->received({Topics("orv/1").event(id), payload, {}, sequence.text(), {}}, now);
  }
  void tree(const std::string& id, const Sequence& sequence) { tree(id, sequence, id); }

  std::vector<std::string> heard() { return std::exchange(said, {}); }

  using Lines = std::vector<std::string>;
  Time now{1000s};
  std::unique_ptr<Collector> collector;
  std::vector<std::string> said;
};

TEST_F(CollectorTest, TwoReportersOfOneRootOrNameAreSaidOnceAndDoNotFight) {
  state("a", 1, true, {{"r", {10, 1}}});
  tree("r", {10, 1});
  EXPECT_EQ(heard(), (Lines{"r 0"}));
  for (int i = 0; i < 3; ++i) {
    state("b", 2, true, {{"r", {20, 1}}});
    tree("r", {20, 1});
    tree("r", {10, 2});
    state("a", 1, true, {{"r", {10, 2}}});
  }
  EXPECT_EQ(heard(), (Lines{"The root r is reported by a and by b", "r 1", "r 0"}));
  state("a", 3, true, {{"r", {30, 1}}});
  state("a", 1, true, {{"r", {10, 2}}});
  state("a", 1, true, {{"r", {10, 2}}});
  state("a", 1, false, {});
  EXPECT_EQ(heard(), (Lines{"r 1", "Two processes report under the name a"}));
  state("a", 3, false, {});
  state("b", 2, true, {{"r", {20, 1}}});
  tree("r", {20, 2});
  EXPECT_EQ(heard(), (Lines{"r 2", "r 1", "r 0"}));
  now += 101s;
  collector->serve(now);
  EXPECT_EQ(heard(), (Lines{"r 2"})) << "silent for too long";
  collector->received({"orv/1/reporter/b", "", true, {}, {}}, now);
  EXPECT_EQ(heard(), (Lines{"r 3"})) << "its state was cleared by hand";
}

TEST_F(CollectorTest, ACollectorOfAPartHearsOfThatPart) {
  CollectorOptions options;
  options.firstPartition = options.lastPartition = Topics::partitionOf("r");
  Side side;
  const std::map<std::string, Message> nothing;
  side.retained = &nothing;
  collector = std::make_unique<Collector>(
      CollectorCallbacks{[](const auto&...) {}, [](const auto&...) {}, [](const auto&) {}},
      options);
  collector->connected(side, now);
  const std::string events = Topics("orv/1").event("r");
  EXPECT_EQ(side.topics, (Lines{"orv/1/reporter/+", events.substr(0, events.size() - 1) + "+"}));
  state("a", 1, true, {{"r", {1, 1}}, {"elsewhere", {2, 1}}});
  tree("r", {1, 1});
  tree("elsewhere", {2, 1});
  EXPECT_EQ(collector->roots(), Lines{"r"});
}

TEST_F(CollectorTest, AnEventOfNobodyAndALostOneAreMadeGood) {
  state("a", 1, true, {{"r", {1, 1}}});
  tree("r", {1, 1}, "x");
  EXPECT_EQ(heard(), (Lines{"An event of r is refused: The event holds the tree of another root"}));
  tree("r", {1, 1});
  const std::string empty("\x08\x01\xba\x06\x00", 5);  // a STATUS_CHANGE without changes
  collector->received({Topics("orv/1").event("r"), empty, {}, "1.9", {}}, now);
  EXPECT_EQ(heard(), (Lines{"r 0", "r 1"}));
  state("a", 1, true, {{"r", {1, 1}}});
  EXPECT_EQ(heard(), (Lines{"r 0"}));
  state("a", 1, true, {{"r", {1, 2}}});
  for (int second = 0; second < 4; ++second) collector->serve(now += 1s);
  EXPECT_EQ(heard(), Lines{}) << "the event may be on its way";
  collector->serve(now += 1s);
  EXPECT_EQ(heard(), (Lines{"r 1"}));
  EXPECT_EQ(up.back().second.topic, "orv/1/request/a");
}

TEST_F(CollectorTest, AKeptStateIsNoSignOfLife) {
  state("a", 1, true, {{"r", {1, 5}}}, true);
  tree("r", {1, 1});
  EXPECT_EQ(heard(), (Lines{"r 1"}));
  collector->serve(now += 1s);
  EXPECT_EQ(up.back().second.topic, "orv/1/request/a");
  EXPECT_EQ(up.back().second.payload, "") << "asks for no tree: the reporter may be gone";
  state("a", 1, true, {{"r", {1, 6}}});
  collector->serve(now += 1s);
  EXPECT_NE(up.back().second.payload, "");
  EXPECT_EQ(heard(), Lines{});
}

TEST_F(CollectorTest, RequestsAreGatheredLimitedAndGrowRare) {
  std::vector<std::pair<std::string, Sequence>> roots;
  for (int i = 0; i < 1000; ++i) roots.push_back({std::to_string(i), {1, 1}});
  state("a", 1, true, roots);
  std::vector<std::uint64_t> asked;
  std::size_t messages = 0;
  for (int second = 0; second < 600; ++second, now += 1s) {
    const auto before = collector->counters().requests;
    collector->serve(now);
    asked.push_back(collector->counters().requests - before);
    messages += up.size();
    up.clear();
    if (second % 20 == 0) state("a", 1, true, roots);
  }
  EXPECT_EQ(*std::max_element(asked.begin(), asked.end()), 50U);
  EXPECT_LE(messages, 600U) << "one message a second";
  // 1, 2, 4 to 60 seconds: about 17 requests for each root, were they not limited.
  EXPECT_LT(collector->counters().requests, 20'000U);
  EXPECT_GT(collector->counters().requests, 10'000U);
}

}  // namespace
