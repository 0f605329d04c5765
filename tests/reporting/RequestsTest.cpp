#include <gtest/gtest.h>

#include "reporting/Requests.h"

namespace {

using namespace std::chrono_literals;
using namespace orv::reporting;

class RequestsTest : public ::testing::Test {
 protected:
  void need(const std::string& id, std::chrono::milliseconds patience = 0ms,
            std::size_t bytes = 0) {
    requests.need(id, now, patience, bytes, random);
  }
  // What is asked for now.
  std::string asked(std::chrono::milliseconds wait = {}) {
    now += wait;
    std::string text;
    while (const auto id = requests.next(now, random)) text += *id;
    return text;
  }
  // What is asked for next, and when.
  std::string askedWhenDue() {
    now = requests.due();
    return asked();
  }

  Requests requests{1s, 8s, {2, 100}};
  std::mt19937_64 random{1};
  Time now{1000s};
};

TEST_F(RequestsTest, AsksAgainWithPausesThatDoubleUntilAnAnswerHelps) {
  need("a");
  EXPECT_EQ(asked(), "a");
  for (const auto most : {2s, 4s, 8s, 8s}) {
    const Time last = now;
    need("a");  // not sooner for that
    EXPECT_EQ(askedWhenDue(), "a");
    EXPECT_TRUE(most / 2 <= now - last && now - last <= most);
  }
  requests.rest("a");
  EXPECT_EQ(asked(60s), "") << "something has come";
  need("a");
  EXPECT_EQ(asked(3900ms), "") << "it has not helped, and the pauses go on";
  EXPECT_EQ(askedWhenDue(), "a");
  EXPECT_EQ(requests.timesAsked("a"), 7U);
  requests.drop("a");
  EXPECT_EQ(requests.due(), Time::max());
  EXPECT_EQ(requests.timesAsked("a"), 0U);
  need("a");
  EXPECT_EQ(asked(), "a") << "it is needed anew";
}

TEST_F(RequestsTest, AsksWithinTheShortestPatience) {
  for (const auto patience : {3600s, 10s}) {
    need("a", patience);
    const Time due = requests.due();
    EXPECT_LE(due, now + patience);
    for (int i = 0; i < 100; ++i) need("a", patience);
    EXPECT_EQ(requests.due(), due) << "each sign of it is none of more haste";
  }
  need("a");
  need("a", 1h);
  EXPECT_EQ(asked(), "a");
  requests.rest("b");
  EXPECT_EQ(asked(), "") << "it was not needed";
}

TEST_F(RequestsTest, AsksForAsMuchAsComes) {
  const auto needAll = [this](const std::string& ids, std::size_t bytes) {
    for (const char id : ids) need({id}, 0ms, bytes);
  };
  requests = Requests(1h, 2h, {2, 100});
  needAll("abcdefg", 1);
  EXPECT_EQ(asked(), "ab");
  requests.drop("a");
  EXPECT_EQ(asked(), "c");
  requests.rest("b");
  requests.rest("b");
  EXPECT_EQ(asked(), "d") << "room for one";
  EXPECT_EQ(requests.due(), now + 10s);
  EXPECT_EQ(asked(9900ms), "");
  EXPECT_EQ(asked(100ms), "ef") << "the others may never come";
  requests = Requests(1h, 2h, {9, 100});
  needAll("abcdefg", 40);
  EXPECT_EQ(asked(), "abc");
  requests.drop("a");
  EXPECT_EQ(asked(), "d");
}

}  // namespace
