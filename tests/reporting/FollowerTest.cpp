#include <gtest/gtest.h>

#include "reporting/Follower.h"
#include "tests/Nodes.h"

namespace {

using namespace nodes;
using orv::reporting::Follower;
using orv::reporting::Sequence;

using Outcome = Follower::Outcome;

class FollowerTest : public ::testing::Test {
 protected:
  Outcome take(const Sequence& sequence, const std::string& event) {
    return follower.take(sequence, parse<Event>(event), error);
  }
  Outcome takeTree(const Sequence& sequence, const std::string& id = "r") {
    Event event;
    EXPECT_TRUE(EventHelper::ComputeEvent(nullptr, node(id), event));
    return follower.take(sequence, event, error);
  }

  const std::string change =
      "event_type: STATUS_CHANGE [orv.proto.monitoring.StatusChangeEvent.base] {}";
  const std::string removal =
      "event_type: DEVICE_REMOVE [orv.proto.monitoring.DeviceRemoveEvent.base] {device_id: 'r'}";
  Follower follower{"r"};
  std::string error;
};

TEST_F(FollowerTest, IsCurrentWhenNothingIsMissing) {
  EXPECT_EQ(take({0, 1}, change), Outcome::GAP);
  EXPECT_EQ(takeTree({1, 1}, "x"), Outcome::REFUSED);
  EXPECT_NE(error, "");
  EXPECT_FALSE(follower.canCatchUp());
  EXPECT_EQ(takeTree({1, 1}), Outcome::APPLIED);
  EXPECT_EQ(error, "");
  EXPECT_TRUE(follower.isCurrent());
  EXPECT_EQ(takeTree({1, 1}), Outcome::OLD);
  error = "an old one";
  EXPECT_EQ(take({1, 5}, change), Outcome::GAP);
  EXPECT_EQ(error, "");
  EXPECT_EQ(take({1, 4}, change), Outcome::GAP);
  for (const std::uint64_t n : {2U, 3U, 4U, 5U}) {
    EXPECT_TRUE(follower.canCatchUp() && !follower.isCurrent()) << n;
    EXPECT_EQ(take({1, n}, change), Outcome::APPLIED);
  }
  EXPECT_TRUE(follower.isCurrent());
  EXPECT_EQ(takeTree({1, 6}, "x"), Outcome::REFUSED);
  EXPECT_EQ(take({1, 6}, change), Outcome::APPLIED);
  EXPECT_FALSE(follower.isCurrent() || follower.canCatchUp()) << "that says nothing of the other";
  EXPECT_EQ(take({2, 9}, removal), Outcome::GAP) << "it may be older than the tree";
  EXPECT_EQ(take({1, 9}, removal), Outcome::APPLIED);
  EXPECT_TRUE(follower.isCurrent() && !follower.tree());
}

TEST_F(FollowerTest, BelievesItsReporter) {
  takeTree({1, 1});
  follower.reported({1, 0}, true);
  EXPECT_TRUE(follower.isCurrent());
  takeTree({1, 4});
  take({1, 9}, change);
  follower.reported({1, 6}, false);
  follower.reported({1, 3}, false);
  EXPECT_FALSE(follower.isCurrent()) << "what was kept says nothing of that";
  follower.reported({1, 9}, true);
  EXPECT_FALSE(follower.isCurrent());
  follower.reported({1, 4}, true);
  EXPECT_TRUE(follower.isCurrent()) << "the event 9 was none of its own";
  take({1, 9}, change);
  follower.reported({1, 6}, true);
  EXPECT_TRUE(!follower.isCurrent() && follower.isBehind());
  takeTree({1, 6});
  EXPECT_TRUE(follower.isCurrent() && !follower.isBehind());
  follower.reported({1, 7}, true);
  EXPECT_TRUE(follower.isCurrent());
  follower.miss();
  EXPECT_FALSE(follower.isCurrent());
  // One event behind is one that was on its way; for ever behind, or further, is not.
  for (const std::uint64_t latest : {7U, 6U}) {
    takeTree({1, 8});
    follower.reported({1, latest}, false);
    EXPECT_TRUE(follower.isCurrent());
    follower.reported({1, latest}, true);
    EXPECT_EQ(follower.isCurrent(), latest == 7);
    takeTree({1, 9});
    follower.reported({1, 8}, true);
    EXPECT_TRUE(follower.isCurrent());
    follower.reported({1, 9}, true);
    follower.reported({1, 8}, true);
    EXPECT_TRUE(follower.isCurrent());
    follower.reported({1, 8}, true);
    EXPECT_FALSE(follower.isCurrent() || follower.canCatchUp());
    follower.distrust();
  }
}

TEST_F(FollowerTest, KnowsTheEpochsThatItHasLeft) {
  for (std::uint64_t epoch = 1; epoch <= Follower::MOST_EPOCHS_LEFT + 1; ++epoch) {
    EXPECT_EQ(takeTree({epoch, 9}), Outcome::APPLIED);
  }
  EXPECT_EQ(takeTree({1, 99}), Outcome::OLD);
  EXPECT_EQ(takeTree({99, 1}), Outcome::APPLIED);
  EXPECT_FALSE(follower.isOld({1, 99})) << "it remembers so many";
  follower.reported({5, 3}, true);
  EXPECT_FALSE(follower.isCurrent() || follower.canCatchUp());
  EXPECT_EQ(takeTree({5, 3}), Outcome::APPLIED) << "the word of the reporter counts more";
  EXPECT_TRUE(follower.isCurrent());
  take({5, 9}, change);
  follower.forget();
  EXPECT_EQ(takeTree({5, 4}), Outcome::OLD) << "what is late does not bring it back";
  EXPECT_FALSE(follower.tree() || follower.isBehind() || follower.isCurrent());
  EXPECT_EQ(take({77, 1}, change), Outcome::GAP);
  follower.resume(node("r"), {7, 3});
  EXPECT_TRUE(follower.isCurrent() && follower.canCatchUp());
  EXPECT_EQ(take({7, 4}, change), Outcome::APPLIED);
  follower.reported({8, 0}, true);
  EXPECT_TRUE(follower.isAwaited() && !follower.canCatchUp());
  // Two that take turns are two.
  for (std::uint64_t i = 0; i < 20; ++i) {
    follower.reported({i % 2, 1}, true);
    EXPECT_EQ(takeTree({i % 2, 1}), Outcome::APPLIED);
  }
  EXPECT_TRUE(follower.isOld({7, 5}));
}

TEST_F(FollowerTest, TakesOnlyAWholeTreeWhereNumbersAreUsedAgain) {
  takeTree({1, 5});
  follower.reported({1, 5}, true);
  follower.distrust();
  EXPECT_FALSE(follower.isCurrent() || follower.canCatchUp());
  EXPECT_TRUE(follower.tree());
  EXPECT_EQ(take({1, 6}, change), Outcome::GAP);
  EXPECT_EQ(takeTree({1, 3}), Outcome::APPLIED);
  EXPECT_TRUE(follower.isCurrent() && follower.canCatchUp() && !follower.isBehind());
}

}  // namespace
