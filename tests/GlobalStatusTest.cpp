#include <limits>

#include "device_tree/GlobalStatus.h"
#include "tests/Trees.h"

namespace {

using orv::device_tree::GlobalStatus;
namespace proto = orv::proto::monitoring;

GlobalStatus::Level level(int number) { return static_cast<GlobalStatus::Level>(number); }

TEST(GlobalStatus, DefaultIsOkWithoutText) {
  EXPECT_EQ(GlobalStatus().debugString(), "OK");
  const auto message = GlobalStatus().toProtoBuf();
  EXPECT_EQ(message.level(), proto::GlobalStatus::OK);
  EXPECT_FALSE(message.has_message());
}

TEST(GlobalStatus, TextShowsLevelAndMessage) {
  EXPECT_EQ(GlobalStatus(GlobalStatus::LEVEL_WARNING, "fan speed low").debugString(),
            "Warning: fan speed low");
  EXPECT_EQ(GlobalStatus(GlobalStatus::LEVEL_WARNING, " ").debugString(), "Warning:  ");
  EXPECT_EQ(GlobalStatus(GlobalStatus::LEVEL_ERROR, "").debugString(), "Error");
}

TEST(GlobalStatus, ComparesLevelAndTextExactly) {
  const GlobalStatus warning(GlobalStatus::LEVEL_WARNING, "a");
  EXPECT_TRUE(warning == warning);
  EXPECT_EQ(warning, GlobalStatus(GlobalStatus::LEVEL_WARNING, "a"));
  EXPECT_NE(warning, GlobalStatus(GlobalStatus::LEVEL_WARNING, "A"));
  EXPECT_NE(warning, GlobalStatus(GlobalStatus::LEVEL_ERROR, "a"));
}

TEST(GlobalStatus, LevelOutsideTheEnumerationIsAnErrorToOthersButNotEqualToOne) {
  for (const int number : {-1, 3, 5, std::numeric_limits<int>::max()}) {
    const GlobalStatus odd(level(number), "");
    EXPECT_EQ(odd.debugString(), "Error");
    EXPECT_EQ(odd.toProtoBuf().level(), proto::GlobalStatus::ERROR);
    EXPECT_NE(odd, GlobalStatus(GlobalStatus::LEVEL_ERROR, ""));
    EXPECT_EQ(odd, GlobalStatus(level(number), ""));
  }
}

TEST(GlobalStatus, SurvivesItsMessage) {
  for (const int number : {0, 1, 2}) {
    for (const char* text : {"", "why"}) {
      const GlobalStatus status(level(number), text);
      EXPECT_EQ(GlobalStatus(status.toProtoBuf()), status);
    }
  }
  EXPECT_EQ(GlobalStatus(proto::GlobalStatus()), GlobalStatus());
#ifdef NDEBUG  // the setter asserts otherwise
  for (const int number : {0, 4, -1}) {
    proto::GlobalStatus message;
    message.set_level(static_cast<proto::GlobalStatus::Level>(number));
    EXPECT_EQ(GlobalStatus(message).level, GlobalStatus::LEVEL_ERROR);
  }
#endif
}

TEST(GlobalStatus, WritesOverWhateverAMessageHeld) {
  auto message = GlobalStatus(GlobalStatus::LEVEL_ERROR, "old").toProtoBuf();
  GlobalStatus().toProtoBuf(message);
  EXPECT_EQ(message.ShortDebugString(), "level: OK");
}

}  // namespace
