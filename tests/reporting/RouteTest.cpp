#include <gtest/gtest.h>

#include "reporting/Route.h"

namespace {

using namespace std::chrono_literals;
using namespace orv::reporting;

class RouteTest : public ::testing::Test {
 protected:
  // The address of the next attempt, and its port; "-" for none yet.
  std::string next() {
    const auto place = route.next(now);
    return place ? place->address + ' ' + std::to_string(place->broker.port) : "-";
  }
  std::chrono::milliseconds wait() {
    const Time due = route.due(now);
    const auto pause = std::chrono::duration_cast<std::chrono::milliseconds>(due - now);
    if (pause > 0ms) {
      now = due - 1ms;
      EXPECT_EQ(next(), "-");
    }
    now = due;
    return pause;
  }
  void expectAll() {
    for (const char* const place : {"10.0.0.1 1", "::1 2", "10.0.0.3 3"}) {
      EXPECT_EQ(wait(), 0ms);
      EXPECT_EQ(next(), place);
      route.failed(now, random);
    }
  }

  Route route{{{"10.0.0.1", 1}, {"::1", 2}, {"10.0.0.3", 3}}};
  std::mt19937_64 random{1};
  Time now{1000s};
};

TEST_F(RouteTest, TriesAllInTheirOrderWithPausesThatGrow) {
  auto least = 0ms;
  for (const auto most : {500ms, 1000ms, 2000ms, 4000ms, 8000ms, 16000ms, 30000ms, 30000ms}) {
    expectAll();
    const auto pause = wait();
    EXPECT_TRUE(least <= pause && pause <= most) << pause.count();
    least = std::min<std::chrono::milliseconds>(most, 15s);
  }
}

TEST_F(RouteTest, BeginsWithTheFirstAfterAConnectionThatIsLost) {
  EXPECT_EQ(next(), "10.0.0.1 1");
  route.failed(now, random);
  EXPECT_EQ(next(), "::1 2");
  using Range = std::pair<std::chrono::milliseconds, std::chrono::milliseconds>;
  for (const auto& [least, most] : {Range(1ms, 500ms), Range(501ms, 1000ms), Range(1ms, 500ms)}) {
    const bool wasStable = most == 500ms;
    route.lost(wasStable, now, random);
    const auto pause = wait();
    EXPECT_TRUE(least <= pause && pause <= most) << pause.count();
    EXPECT_EQ(next(), "10.0.0.1 1");
  }
}

// Whether the answer comes in time or not: no name is that long.
TEST_F(RouteTest, GoesOnWhereAHostIsNotFound) {
  route = Route({{std::string(300, 'x'), 1}, {"10.0.0.3", 3}});
  const auto look = [this] {
    for (int i = 0; i < 10'000; ++i, now = route.due(now)) {
      if (next() != "-") return;
    }
  };
  EXPECT_THROW(look(), std::runtime_error);
  EXPECT_EQ(route.broker().port, 1U);
  route.failed(now, random);
  EXPECT_EQ(next(), "10.0.0.3 3");
}

}  // namespace
