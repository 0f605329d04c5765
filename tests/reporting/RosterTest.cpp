#include <gtest/gtest.h>

#include "reporting/Roster.h"
#include "reporting/Topics.h"

namespace {

using namespace orv::reporting;
using namespace orv::proto::monitoring;

class RosterTest : public ::testing::Test {
 protected:
  // The lists that go out now: "a 1.2 held full, v3" for one, "nothing" for an empty one.
  std::string lists() {
    std::string text;
    while (const auto partition = roster.next()) {
      if (!text.empty()) text += "; ";
      RootList list;
      list.ParseFromString(roster.list(*partition, 7));
      for (const auto& root : list.roots()) {
        text += root.root() + ' ' + Sequence{root.epoch(), root.n()}.text();
        text += root.has_held_back() ? " held " + root.held_back() + ", " : ", ";
      }
      text += list.roots().empty() ? "nothing" : "v" + std::to_string(list.version());
    }
    return text;
  }
  std::string announced() {
    version = roster.announce(version);
    return lists();
  }
  ReporterState state() const {
    ReporterState state;
    roster.describe(state);
    return state;
  }

  Roster roster;
  std::uint64_t version = 0;
  const unsigned int ofA = Topics::partitionOf("a");
};

TEST_F(RosterTest, OwesAListThatSaysSomethingElse) {
  EXPECT_FALSE(roster.drop("a"));
  EXPECT_TRUE(roster.put("a", {1, 1}, ""));
  EXPECT_TRUE(roster.put("b", {2, 1}, ""));
  EXPECT_EQ(state().parts_size(), 0) << "no version yet";
  EXPECT_EQ(announced(),
            ofA < Topics::partitionOf("b") ? "a 1.1, v1; b 2.1, v2" : "b 2.1, v1; a 1.1, v2");
  const std::string before = state().SerializeAsString();
  EXPECT_FALSE(roster.put("a", {1, 2}, "")) << "the sum tells that";
  EXPECT_NE(state().SerializeAsString(), before);
  roster.put("a", {1, 1}, "");
  EXPECT_EQ(state().SerializeAsString(), before);
  EXPECT_EQ(announced(), "");
  EXPECT_TRUE(roster.put("a", {1, 2}, "full"));
  EXPECT_EQ(announced(), "a 1.2 held full, v3");
  EXPECT_TRUE(roster.drop("a"));
  EXPECT_FALSE(roster.drop("a"));
  EXPECT_EQ(announced(), "nothing");
  EXPECT_EQ(state().parts_size(), 1);
  roster.owe(ofA);
  EXPECT_EQ(announced(), "") << "it is known no longer";
  roster.oweEvenIfEmpty(ofA);
  EXPECT_EQ(announced(), "nothing");
  roster.oweAll();
  EXPECT_EQ(announced(), "b 2.1, v6");
  roster.owe(Topics::partitionOf("b"));
  EXPECT_EQ(announced(), "b 2.1, v6") << "the same as before";
}

TEST_F(RosterTest, RepeatsWhatTheLastStateAnnouncedOnceUntilTheNext) {
  EXPECT_FALSE(roster.repeat(ofA));
  roster.put("a", {1, 1}, "");
  EXPECT_FALSE(roster.repeat(ofA)) << "none has announced it";
  EXPECT_EQ(announced(), "a 1.1, v1");
  EXPECT_TRUE(roster.repeat(ofA));
  EXPECT_EQ(lists(), "a 1.1, v1");
  EXPECT_FALSE(roster.repeat(ofA));
  EXPECT_EQ(announced(), "");
  roster.put("a", {1, 1}, "full");
  EXPECT_FALSE(roster.repeat(ofA)) << "another one is owed";
  EXPECT_EQ(lists(), "");
  EXPECT_EQ(announced(), "a 1.1 held full, v2");
  EXPECT_TRUE(roster.repeat(ofA));
  roster.drop("a");
  version = roster.announce(version);
  roster.owe(ofA);
  EXPECT_EQ(lists(), "nothing");
  EXPECT_EQ(announced(), "nothing") << "somebody has asked for it meanwhile";
  EXPECT_FALSE(roster.repeat(ofA));
}

TEST_F(RosterTest, OwesWhatTheBrokerIsNotFoundToKeep) {
  roster.put("a", {1, 1}, "");
  announced();
  roster.doubtKept();
  EXPECT_FALSE(roster.foundKept(ofA + 1, 1));
  EXPECT_FALSE(roster.foundKept(ofA, 2));
  EXPECT_TRUE(roster.oweDoubted());
  EXPECT_EQ(announced(), "a 1.1, v1");
  roster.doubtKept();
  EXPECT_TRUE(roster.foundKept(ofA, 1));
  EXPECT_FALSE(roster.oweDoubted());
  roster.doubtKept();
  roster.owe(ofA);
  EXPECT_EQ(announced(), "a 1.1, v1");
  EXPECT_FALSE(roster.oweDoubted()) << "it has just gone out";
}

TEST_F(RosterTest, DescribesThePartsThatHaveRoots) {
  const std::vector<std::string> roots = {"a", "b", "c"};
  for (const std::string& root : roots) roster.put(root, {1, 1}, "");
  announced();
  for (const std::string& root : roots) {
    roster.drop(root);
    EXPECT_EQ(state().parts_size(), 2);
    roster.put(root, {1, 1}, "");
  }
}

}  // namespace
