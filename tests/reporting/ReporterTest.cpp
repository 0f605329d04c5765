#include <gtest/gtest.h>

#include <algorithm>

#include "reporting/Reporter.h"
#include "reporting/Topics.h"
#include "tests/Nodes.h"
#include "tests/reporting/Wire.h"

namespace {

using namespace std::chrono_literals;
using namespace wire;

// What becomes of many roots when the broker refuses some.
class ReporterTest : public ::testing::Test {
 protected:
  ReporterTest() { side.retained = &nothing; }
  void start(int count) {
    for (int i = 0; i < count; ++i) {
      live.push_back(nodes::node(std::to_string(i)));
    }
    change(live.size());
  }
  void change(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      live.at(i)->setName(live.at(i)->getName() + ".");
      reporter.report(live.at(i));
    }
  }

  const std::map<std::string, Message> nothing;
  Side side;
  Time now{1000s};
  std::vector<std::string> problems;
  Reporter reporter{"a", [this](const std::string& problem) { problems.push_back(problem); }};
  std::vector<Tree> live;
};

// A broker that ends the connection some time after it got one root's event, and gives no answer to
// what it got in the same go.
TEST_F(ReporterTest, OfABrokerThatEndsTheConnectionHoldUpOneRootAlone) {
  const std::string bad = Topics("orv/1").event("50");
  start(1200);
  const auto isBad = [&](const auto& sent) { return sent.second.topic == bad; };
  const auto settleAll = [&](const auto& all) {
    for (const auto& [number, message] : all) reporter.settled(number, "", now);
  };
  std::optional<Message> will = reporter.connecting();
  int ends = 0;
  int goes = 0;
  // Returns how many other events have no answer when the connection ends.
  const auto liveThroughOneConnection = [&] {
    const std::optional<Message> earlierWill = std::exchange(will, reporter.connecting());
    reporter.connected(side, now);
    std::ptrdiff_t unanswered = 0;
    for (reporter.serve(now); !side.up.empty(); reporter.serve(now)) {
      const auto sent = std::exchange(side.up, {});
      ++goes;
      if (std::none_of(sent.begin(), sent.end(), isBad)) {
        settleAll(sent);
        continue;
      }
      ++ends;
      unanswered = static_cast<std::ptrdiff_t>(sent.size()) - 1;
      reporter.report(live.at(50));
      reporter.received(*earlierWill, now);  // so that a state goes out
      reporter.serve(now += 2s);
      break;
    }
    side.up.clear();
    reporter.disconnected(now);
    return unanswered;
  };
  EXPECT_EQ(liveThroughOneConnection(), 999) << "with the state";
  while (problems.empty()) {
    ASSERT_LT(ends, 7) << "more than halving takes";
    liveThroughOneConnection();
  }
  goes = 0;
  EXPECT_EQ(liveThroughOneConnection(), 0) << "all others go through";
  EXPECT_LT(goes, 20) << "not one by one";
  for (int minute = 0; minute < 60; ++minute, now += 60s) {
    change(100);
    EXPECT_EQ(liveThroughOneConnection(), 0) << "tried again with nothing beside it";
  }
  EXPECT_LT(ends, 20) << "after pauses that double up to ten minutes";
  EXPECT_EQ(problems, (std::vector<std::string>{"The broker refuses 50: It ends the connection"}));

  // It is tried again also while the others never come to rest, and goes on when it is taken.
  now += 600s;
  reporter.connected(side, now);
  std::deque<std::pair<int, Message>> sent;
  for (int step = 0; std::none_of(sent.begin(), sent.end(), isBad); ++step) {
    ASSERT_LT(step, 5);
    change(live.size());
    reporter.serve(now);
    settleAll(std::exchange(sent, std::exchange(side.up, {})));
  }
  EXPECT_EQ(sent.size(), 1U);
  settleAll(sent);
  for (; !reporter.isSettled(); reporter.serve(now)) settleAll(std::exchange(side.up, {}));

  for (int i = 0; i < 3; ++i, side.up.clear()) {
    reporter.disconnected(now);
    reporter.connected(side, now);
    reporter.serve(now);
    settleAll(std::exchange(side.up, {}));
    reporter.serve(now);
    reporter.serve(now += 60s);
    EXPECT_EQ(side.up.size(), 1U) << "a state";
  }
  EXPECT_EQ(problems.size(), 1U) << "a connection may end for other reasons";
}

TEST_F(ReporterTest, OfManyRootsHoldUpNoOther) {
  start(300);
  (void)reporter.connecting();
  reporter.connected(side, now);
  const std::string good = Topics("orv/1").event("200");
  bool isOpen = false;
  // Returns how many events go out at once, the good root's one among them or else none.
  const auto go = [&] {
    reporter.serve(now);
    const auto sent = std::exchange(side.up, {});
    bool isGood = false;
    for (const auto& [number, message] : sent) {
      isGood = isGood || message.topic == good;
      const bool isTaken = isOpen || message.topic == good || message.sequence.empty();
      reporter.settled(number, isTaken ? "" : "no", now);
    }
    return isGood ? sent.size() : 0;
  };
  EXPECT_EQ(go(), 301U) << "with the state";
  EXPECT_EQ(problems.size(), 299U);
  now += 6s;
  EXPECT_EQ(go(), 0U);
  live.at(200)->setName("changed");
  reporter.report(live.at(200));
  EXPECT_TRUE(go() || go()) << "after at most one that is tried again";

  isOpen = true;
  for (int i = 0; !reporter.isSettled(); ++i, now += 1s) {
    ASSERT_LT(i, 1000);
    go();
  }
  change(live.size());
  EXPECT_EQ(go(), 300U) << "those that were refused are no longer alone";
  // One that has nothing to say any more gives its turn on.
  isOpen = false;
  const std::string name = live.at(0)->getName();
  for (const std::string& newName : {name + ".", name}) {
    live.at(0)->setName(newName);
    reporter.report(live.at(0));
    go();
    now += 6s;
  }
  change(live.size());
  EXPECT_GT(go(), 299U);
}

}  // namespace
