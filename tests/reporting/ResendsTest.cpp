#include <gtest/gtest.h>

#include "reporting/Resends.h"

namespace {

using namespace std::chrono_literals;
using namespace orv::reporting;

class ResendsTest : public ::testing::Test {
 protected:
  // What goes out now: "a3 b1" for a after 3 and b after 1.
  std::string sent(std::chrono::milliseconds wait = {}) {
    now += wait;
    std::string text;
    while (const auto next = resends.next(now)) {
      text += (text.empty() ? "" : " ") + next->first + std::to_string(next->second);
    }
    return text;
  }

  Resends resends;
  Time now{1000s};
};

TEST_F(ResendsTest, AnswersTheFirstAtOnceAndWhoAsksForMoreASecondLater) {
  resends.ask("a", 5);
  resends.ask("a", 3);
  resends.ask("a", 4);
  EXPECT_EQ(sent(), "a3");
  resends.ask("a", 3);
  resends.ask("b", 7);
  EXPECT_EQ(sent(), "b7");
  resends.ask("b", 6);
  resends.ask("b", 5);
  resends.ask("b", 6);
  EXPECT_EQ(sent(999ms), "");
  EXPECT_EQ(sent(1ms), "b5") << "a was answered";
  EXPECT_EQ(resends.due(), now + 1s);
  resends.ask("a", 3);
  EXPECT_EQ(sent(), "a3") << "its second is over";
}

TEST_F(ResendsTest, KnowsNothingMoreOfARootThatIsGone) {
  resends.ask("a", 3);
  resends.ask("b", 3);
  resends.drop("a");
  EXPECT_EQ(sent(), "b3");
  resends.drop("b");
  EXPECT_EQ(resends.due(), Time::max());
  resends.ask("b", 3);  // another one of that name
  EXPECT_EQ(sent(), "b3");
}

}  // namespace
