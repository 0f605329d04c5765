#include <gtest/gtest.h>

#include "reporting/Peer.h"
#include "reporting/Topics.h"
#include "tests/Nodes.h"

namespace {

using namespace std::chrono_literals;
using namespace orv::reporting;
using namespace orv::proto::monitoring;

class PeerTest : public ::testing::Test {
 protected:
  // What follows from a state: "taken, other, announced 140, gone 213".
  std::string take(const std::string& state, bool isRetained = false) {
    Peer::News news;
    const auto verdict = peer.take(nodes::parse<ReporterState>(state), isRetained, now, news);
    if (verdict == Peer::Verdict::OLD) return "old";
    if (verdict == Peer::Verdict::RIVAL) return "rival";
    std::string text = "taken";
    if (news.isOther) text += ", other";
    for (const auto& [name, parts] : {std::pair(", announced", news.announced),
                                      {", differing", news.differing},
                                      {", agreed", news.agreed},
                                      {", gone", news.gone}}) {
      if (!parts.empty()) text += name;
      for (const unsigned int part : parts) text += " " + std::to_string(part);
    }
    return text;
  }
  // What follows from a list.
  std::string takeList(unsigned int partition, const std::string& list, bool isRetained = false) {
    Peer::Roots unlisted;
    const auto message = nodes::parse<RootList>(list);
    if (!peer.take(partition, message, isRetained, now, unlisted)) return "old";
    std::string text = "taken";
    for (const auto& root : unlisted) text += " without " + root.first;
    return text;
  }
  // "140 confirmed", "213 awaited": what is so of each part.
  std::string parts() const {
    std::string text;
    for (const auto& [partition, part] : peer.parts()) {
      text += (text.empty() ? "" : ", ") + std::to_string(partition);
      if (part.isConfirmed) text += " confirmed";
      if (part.agrees) text += " agrees";
      if (part.isAwaited) text += " awaited";
      if (part.wasSetBack) text += " set back";
      if (part.isGone) text += " gone";
    }
    return text;
  }
  std::string condition() const {
    return std::string(peer.isOnline() ? "online" : "gone") + (peer.isConfirmed() ? "" : "?");
  }

  const std::string ofA = "parts {partition: 140 version: 2 roots: 1}";  // of the root a
  const std::string ofR = "parts {partition: 213 version: 3 roots: 1}";  // of the root r
  const std::string listOfA = "start: 1 version: 2 roots {root: 'a'}";
  const std::string listOfR = "start: 1 version: 3 roots {root: 'r'}";
  Time now{1000s};
  Peer peer{now, 140, 213};
};

TEST_F(PeerTest, TakesTheLaterStateOfAProcess) {
  EXPECT_EQ(take("start: 1 connection: 2 version: 5 online: true", true), "taken, other");
  EXPECT_EQ(condition(), "online?");
  EXPECT_EQ(take("start: 1 connection: 2 version: 5 online: true"), "taken, other");
  EXPECT_EQ(condition(), "online");
  EXPECT_EQ(take("start: 1 connection: 2 version: 5 online: true"), "taken");
  EXPECT_EQ(take("start: 1 connection: 1 version: 9 online: false"), "old") << "a late will";
  EXPECT_EQ(take("start: 1 connection: 2 version: 4 online: true"), "old");
  EXPECT_EQ(take("start: 1 connection: 3 version: 4 online: false"), "taken, other");
  EXPECT_EQ(condition(), "gone");
  EXPECT_EQ(take("start: 1 connection: 4 version: 5 online: true"), "taken, other");
  EXPECT_EQ(take("start: 1 connection: 4 version: 6 online: true " + ofA + ofR),
            "taken, announced 140 213");
  takeList(140, listOfA);
  takeList(213, listOfR);
  EXPECT_EQ(parts(), "140 confirmed agrees awaited, 213 confirmed agrees awaited");
  EXPECT_EQ(take("start: 1 connection: 5 version: 4 online: true " + ofA),
            "taken, other, announced 140, gone 213");
  EXPECT_EQ(parts(), "140 awaited set back, 213 awaited set back gone") << "numbers are used again";
  peer.reviewed(140);
  peer.reviewed(213);
  EXPECT_EQ(parts(), "140 awaited");
  EXPECT_EQ(takeList(140, "start: 1 version: 1 roots {root: 'b'}"), "taken without a");
}

TEST_F(PeerTest, TakesTheLaterProcess) {
  take("start: 1 connection: 9 version: 9 online: true " + ofA);
  takeList(140, listOfA);
  EXPECT_EQ(take("start: 2 online: false"), "old") << "the will of an earlier process";
  EXPECT_EQ(take("start: 2 connection: 1 version: 1 online: true " + ofA),
            "taken, other, announced 140");
  EXPECT_EQ(takeList(140, listOfA), "old");
  EXPECT_EQ(take("start: 1 connection: 9 version: 10 online: true"), "rival");
  EXPECT_EQ(take("start: 1 connection: 9 version: 11 online: true"), "old");
  EXPECT_EQ(take("start: 2 connection: 1 version: 1 online: false"), "taken, other");
  EXPECT_EQ(take("start: 1 connection: 1 version: 1 online: true"), "taken, other, gone 140");
  for (std::uint64_t start = 3; start <= 19; ++start) {
    EXPECT_EQ(take("online: true start: " + std::to_string(start)), "taken, other");
  }
  EXPECT_EQ(take("online: true start: 3"), "rival");
  EXPECT_EQ(take("online: true start: 2"), "taken, other") << "that is too long ago";
}

TEST_F(PeerTest, SaysWhichListsAreNeeded) {
  const std::string online = "start: 1 online: true version: ";
  EXPECT_EQ(takeList(140, listOfA), "old") << "of a reporter that is not known";
  EXPECT_EQ(take(online + "4 parts {partition: 139 version: 1} " + ofA + ofR +
                 "parts {partition: 214 version: 1}"),
            "taken, other, announced 140 213");
  for (const unsigned int other : {139U, 214U, 141U}) {
    EXPECT_EQ(takeList(other, listOfA), "old") << "the state does not speak of it";
  }
  EXPECT_EQ(takeList(140, "start: 1 version: 4 roots {root: 'x'} roots {root: 'a'}"), "taken");
  EXPECT_TRUE(peer.find(140, "a") && !peer.find(140, "x") && !peer.find(141, "a"));
  EXPECT_EQ(takeList(213, listOfR, true), "taken");
  EXPECT_EQ(parts(), "140 confirmed agrees awaited, 213 awaited");
  for (const bool isRetained : {true, false}) {
    EXPECT_EQ(takeList(213, listOfR, isRetained), "taken");
  }
  EXPECT_EQ(takeList(213, listOfR, true), "old") << "the reporter itself was heard";
  // A list that overtook its state.
  EXPECT_EQ(take(online + "5 " + ofA + ofR), "taken, agreed 213");
  EXPECT_EQ(parts(), "140 confirmed agrees awaited, 213 confirmed agrees");
  EXPECT_TRUE(peer.part(213)->isInStep);
  peer.reviewed(213);
  EXPECT_FALSE(peer.part(213)->isInStep);
  EXPECT_EQ(take(online + "5 " + ofR + ofA), "taken");
  EXPECT_EQ(takeList(141, "start: 1 version: 7 roots {root: 'later'}"), "taken");
  EXPECT_EQ(take(online + "6 " + ofR), "taken, gone 140") << "but not what came later";
  EXPECT_EQ(parts(), "140 awaited gone, 141 confirmed agrees, 213 confirmed agrees");
  peer.reviewed(140);
  EXPECT_EQ(take(online + "7 " + ofR), "taken, gone 141");
  peer.reviewed(141);
  // What differs is asked for until a state agrees.
  peer.move(213, 1);
  EXPECT_EQ(take(online + "8 " + ofR, true), "taken, other") << "that one is no sign of it";
  EXPECT_EQ(parts(), "213 confirmed");
  EXPECT_EQ(take(online + "8 " + ofR), "taken, other, differing 213");
  EXPECT_EQ(parts(), "213 confirmed awaited");
  peer.move(213, ~0ULL);
  EXPECT_EQ(take(online + "9 " + ofR), "taken, agreed 213");
  EXPECT_EQ(take(online + "10 " + ofR), "taken");
  peer.await(213);
  EXPECT_EQ(take(online + "11 " + ofR), "taken, agreed 213");
  EXPECT_EQ(take("start: 1 version: 12"), "taken, other") << "a will tells nothing of the parts";
  EXPECT_EQ(parts(), "213 confirmed agrees");
}

TEST_F(PeerTest, TellsWhoIsGone) {
  const std::string online = "start: 1 online: true version: 4 " + ofA;
  take(online, true);
  EXPECT_FALSE(peer.giveUp(now += 100s, 100s));
  takeList(140, listOfA);
  EXPECT_FALSE(peer.giveUp(now += 100s, 100s)) << "a list is a sign of life";
  EXPECT_TRUE(peer.giveUp(now += 1s, 100s));
  EXPECT_FALSE(peer.giveUp(now += 1s, 100s));
  EXPECT_EQ(condition(), "gone");
  EXPECT_EQ(take(online), "taken, other");
  peer.doubt();
  EXPECT_EQ(condition() + ", " + parts(), "online?, 140");
  peer.listen(now += 1h);
  EXPECT_FALSE(peer.giveUp(now += 100s, 100s));
  EXPECT_EQ(take(online), "taken, other, agreed 140") << "it is heard again";
  take("start: 1 version: 4");
  EXPECT_FALSE(peer.giveUp(now += 101s, 100s)) << "it has said so";
  peer.doubt();
  EXPECT_TRUE(peer.giveUp(now, 100s)) << "it may have come back";
  EXPECT_FALSE(peer.isLongGone(now, 101s));
  EXPECT_TRUE(peer.isLongGone(now += 1s, 101s));
  EXPECT_FALSE(peer.isLongGone(now, 101s));
  take(online);
  EXPECT_FALSE(peer.isLongGone(now += 1h, 101s));
}

TEST_F(PeerTest, KeepsAPartThatIsGoneUntilItIsReviewed) {
  take("start: 1 version: 4 online: true " + ofA + ofR);
  takeList(140, listOfA);
  EXPECT_EQ(take("start: 1 version: 5 online: true " + ofR), "taken, announced 213, gone 140");
  EXPECT_EQ(take("start: 1 version: 6 online: true " + ofR), "taken, announced 213");
  EXPECT_TRUE(peer.find(140, "a"));
  EXPECT_EQ(take("start: 1 version: 7 online: true " + ofA), "taken, agreed 140, gone 213");
  EXPECT_EQ(parts(), "140 confirmed agrees, 213 awaited gone") << "it came back";
  peer.reviewed(140);
  peer.reviewed(213);
  peer.forget(now);
  EXPECT_EQ(condition() + ", " + parts(), "gone?, 140 gone");
  EXPECT_EQ(takeList(140, listOfA), "old");
  EXPECT_FALSE(peer.isForgotten());
  EXPECT_EQ(take("start: 1 version: 1 online: true " + ofA), "taken, other, announced 140");
  peer.forget(now);
  peer.reviewed(140);
  EXPECT_TRUE(peer.isForgotten());
}

}  // namespace
