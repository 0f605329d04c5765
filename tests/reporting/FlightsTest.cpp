#include <gtest/gtest.h>

#include <map>

#include "reporting/Flights.h"

namespace {

using namespace std::chrono_literals;
using namespace orv::reporting;

// Each letter is a root. Those that go out have the numbers 1, 2, 3 and so on.
class FlightsTest : public ::testing::Test {
 protected:
  void connect() { flights.connected(now); }

  // Lets the roots go out in their order, as far as they may. Returns those that did.
  std::string go(const std::string& roots, std::size_t bytes = 1) {
    std::string gone;
    for (const char root : roots) {
      if (!flights.mayGo({root})) break;
      flights.goes(++number, {root}, bytes);
      numbers[root] = number;
      gone += root;
    }
    return gone;
  }
  void take(const std::string& roots) {
    for (const char root : roots) {
      EXPECT_EQ(flights.taken(numbers.at(root), now), std::string{root});
    }
  }
  void refuse(char root) { EXPECT_EQ(flights.refused(numbers.at(root), now), std::string{root}); }

  // What has to go out again, and behind a dash who is refused.
  std::string cut() {
    const Flights::Rest rest = flights.disconnected(now);
    std::string text;
    for (const std::string& root : rest.roots) text += root;
    return rest.refused ? text + '-' + *rest.refused : text;
  }
  std::string goAndCut(const std::string& roots) {
    const std::string gone = go(roots);
    return gone + ", " + cut();
  }
  std::string retry(std::chrono::milliseconds wait = {}) {
    now += wait;
    return flights.retry(now).value_or("");
  }

  Flights flights;
  Time now{1000s};
  std::uint64_t number = 0;
  std::map<char, std::uint64_t> numbers;
};

TEST_F(FlightsTest, LetsOutAsManyAsTheWindowAndTheBytesAllow) {
  connect();
  EXPECT_EQ(go(std::string(1001, 'x')).size(), Flights::MOST);
  EXPECT_EQ(flights.taken(1, now), "x");
  EXPECT_EQ(go("ab"), "a");
  flights.forget();
  EXPECT_EQ(flights.taken(2, now), std::nullopt);
  EXPECT_EQ(go("ab", Flights::MOST_BYTES), "a");
  take("a");
  EXPECT_EQ(go("abc", Flights::MOST_BYTES - 1), "ab");
  take("ab");
  // What goes out beside has bytes and no root.
  flights.goesBeside(++number, Flights::MOST_BYTES);
  EXPECT_EQ(go("a"), "");
  EXPECT_EQ(flights.taken(number, now), std::nullopt);
  EXPECT_EQ(flights.taken(number, now), std::nullopt) << "its bytes count once";
  EXPECT_EQ(go("abc", Flights::MOST_BYTES / 2), "ab");
}

TEST_F(FlightsTest, BeginsWithOneAfterAnEndWithEventsOnTheirWay) {
  connect();
  EXPECT_EQ(go("cab"), "cab");
  EXPECT_EQ(cut(), "cab");
  EXPECT_FALSE(flights.isOnItsWay("c"));
  for (int i = 0; i < 2; ++i) {
    connect();
    EXPECT_EQ(go("cabdefgh"), "c");
    EXPECT_EQ(go("x"), "");
    flights.rest();  // not while one is on its way
    take("c");
    EXPECT_EQ(go("abdefgh"), "ab");
    refuse('b');  // an answer, but none that widens
    take("a");
    EXPECT_EQ(go("defgh"), "def");
    EXPECT_EQ(cut(), "def");
    flights.trust("b");
  }
  connect();
  take(go("d"));
  flights.rest();
  EXPECT_EQ(go("abcdef"), "abcdef");
  take("abcdef");
  EXPECT_EQ(cut(), "");
  connect();
  EXPECT_EQ(go("abcdef"), "abcdef") << "nothing was on its way";
}

TEST_F(FlightsTest, DoubtsWhoStoodAloneAtTheEndUntilTheConnectionHasProvedGood) {
  connect();
  EXPECT_EQ(goAndCut("a"), "a, a");
  EXPECT_TRUE(flights.isDoubted("a"));
  connect();
  now += 999ms;
  cut();
  connect();  // one that has to prove good by itself
  EXPECT_EQ(flights.retryDue(), now + 1s);
  EXPECT_EQ(retry(999ms), "");
  EXPECT_EQ(retry(1ms), "a");
  // It goes alone, and nothing beside it.
  EXPECT_EQ(go("b"), "b");
  EXPECT_EQ(go("a"), "");
  take("b");
  EXPECT_EQ(go("ac"), "a");
  EXPECT_FALSE(flights.hasRoom());
  EXPECT_TRUE(flights.isOnItsWay("a"));
  take("a");
  EXPECT_FALSE(flights.isDoubted("a") || flights.isOnItsWay("a"));
  EXPECT_EQ(go("ac"), "ac");
  cut();
  // Another one that goes through is proof as well, but only the first on a connection.
  connect();
  EXPECT_EQ(goAndCut("a"), "a, a");
  connect();
  EXPECT_EQ(retry(), "");
  take(go("b"));
  EXPECT_EQ(retry(), "a");
  take(go("c"));
  EXPECT_EQ(flights.retryDue(), Time::max()) << "it has its turn, and no second one";
}

TEST_F(FlightsTest, RefusesWhoseEventEndsGoodConnectionsTwiceInARow) {
  const auto endGood = [this](const std::string& root) {
    connect();
    take(go("x"));
    retry();
    return goAndCut(root);
  };
  const auto endBad = [this] {
    connect();
    retry(1s);
    return goAndCut("a");
  };
  for (int i = 0; i < 5; ++i) EXPECT_EQ(endBad(), "a, a") << "nothing went through before";
  EXPECT_EQ(endGood("a"), "a, a");
  EXPECT_EQ(endBad(), "a, a");
  EXPECT_EQ(endGood("a"), "a, a-a");
  EXPECT_EQ(flights.retryDue(), now + 5s) << "also on the next connection:";
  connect();
  EXPECT_EQ(retry(1s), "");
  EXPECT_EQ(retry(4s), "a");
  EXPECT_EQ(goAndCut("a"), "a, a-a") << "once more, whatever the connection was";
  connect();
  EXPECT_EQ(retry(10s), "a");
  take(go("a"));
  EXPECT_EQ(endGood("a"), "a, a") << "it begins anew";
}

TEST_F(FlightsTest, TriesOneRefusedRootAtATimeWithPausesThatDouble) {
  connect();
  EXPECT_EQ(go("ab"), "ab");
  refuse('b');
  now += 1ms;
  refuse('a');
  EXPECT_EQ(retry(4998ms), "");
  EXPECT_EQ(retry(2ms), "b");
  EXPECT_EQ(retry(), "") << "one has its turn";
  EXPECT_EQ(go("b"), "b");
  refuse('b');
  EXPECT_EQ(retry(), "a");
  flights.forget();
  EXPECT_EQ(retry(), "a") << "its turn was lost";
  flights.trust("a");
  for (const auto pause : {10s, 20s, 40s, 80s, 160s, 320s, 600s, 600s}) {
    EXPECT_EQ(retry(pause - 1ms), "");
    EXPECT_EQ(retry(1ms), "b");
    EXPECT_EQ(go("b"), "b");
    refuse('b');
  }
  take(go("c"));
  EXPECT_EQ(retry(1s), "") << "that others go through does not shorten it";
  flights.trust("b");
  EXPECT_EQ(flights.retryDue(), Time::max());
}

TEST_F(FlightsTest, TellsTheRefusedFromTheSuspected) {
  connect();
  EXPECT_EQ(go("a"), "a");
  refuse('a');
  EXPECT_EQ(goAndCut("b"), "b, b");
  now += 2s;
  connect();
  EXPECT_EQ(retry(999ms), "") << "the connection has to prove good, also behind a refused root";
  EXPECT_EQ(retry(1ms), "b");
  take(go("b"));
  EXPECT_EQ(retry(2s), "a");
  EXPECT_EQ(goAndCut("a"), "a, a-a") << "the broker has said so before";
}

}  // namespace
