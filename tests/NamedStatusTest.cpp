#include <clocale>
#include <cmath>
#include <limits>

#include "device_tree/NamedStatus.h"
#include "tests/Trees.h"

namespace {

using orv::device_tree::NamedStatus;
namespace proto = orv::proto::monitoring;

constexpr auto STRING = NamedStatus::TYPE_STRING;
constexpr auto INT = NamedStatus::TYPE_INT;
constexpr auto UINT = NamedStatus::TYPE_UINT;
constexpr auto DOUBLE = NamedStatus::TYPE_DOUBLE;
constexpr auto ODD = static_cast<NamedStatus::Type>(9);

TEST(NamedStatus, TextShowsTypeAndValue) {
  EXPECT_EQ(NamedStatus("mode", STRING, std::string("auto")).debugString(), "mode (string auto)");
  EXPECT_EQ(NamedStatus("mode", STRING, std::string()).debugString(), "mode (string )");
  EXPECT_EQ(NamedStatus("mode", STRING).debugString(), "mode (string not set)");
  EXPECT_EQ(NamedStatus("offset", INT, std::numeric_limits<long>::min()).debugString(),
            "offset (int -9223372036854775808)");
  EXPECT_EQ(NamedStatus("errors", UINT, std::numeric_limits<unsigned long>::max()).debugString(),
            "errors (uint 18446744073709551615)");
  EXPECT_EQ(NamedStatus("x", ODD).debugString(), "x (? not set)");
  EXPECT_EQ(NamedStatus("x", ODD, 1L).debugString(), "x (? ?)");
}

TEST(NamedStatus, DoublesAreWrittenInFullAndTheSameInEveryLocale) {
  const std::string previous = std::setlocale(LC_ALL, nullptr);
  ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr) << "ctest sets LOCPATH to it";
  ASSERT_EQ(*std::localeconv()->decimal_point, ',');
  const auto text = [](double number) { return NamedStatus("", DOUBLE, number).debugString(); };
  EXPECT_EQ(text(21.5), " (double 21.500000)");
  EXPECT_EQ(text(1e20), " (double 100000000000000000000.000000)");
  EXPECT_EQ(text(-0.0), " (double -0.000000)");
  EXPECT_EQ(text(std::numeric_limits<double>::infinity()), " (double inf)");
  const std::string longest = text(std::numeric_limits<double>::lowest());
  EXPECT_EQ(longest.size(), std::string(" (double )").size() + 317);
  EXPECT_EQ(longest.substr(0, 18), " (double -17976931");
  std::setlocale(LC_ALL, previous.c_str());
}

TEST(NamedStatus, UnsetStatusHoldsTheIntegerZero) {
  NamedStatus status("s", STRING, std::string("text"));
  status.unsetValue();
  EXPECT_FALSE(status.isValueSet());
  EXPECT_EQ(status.getType(), STRING);
  EXPECT_EQ(boost::get<long>(status.getValue()), 0);
  status.setValue(std::string("again"));
  EXPECT_EQ(status.debugString(), "s (string again)");
}

TEST(NamedStatus, ComparesValuesAsTheTypeSaysAndNotWhetherTheyAreSet) {
  EXPECT_EQ(NamedStatus("s", INT), NamedStatus("s", INT, 0L));
  EXPECT_NE(NamedStatus("s", INT, 0L), NamedStatus("s", INT, 1L));
  EXPECT_NE(NamedStatus("s", INT, 0L), NamedStatus("t", INT, 0L));
  EXPECT_NE(NamedStatus("s", UINT, 0UL), NamedStatus("s", INT, 0L));
  EXPECT_NE(NamedStatus("s", UINT, 1UL), NamedStatus("s", UINT, 2UL));
  EXPECT_NE(NamedStatus("s", STRING, std::string("a")), NamedStatus("s", STRING, std::string("A")));
  EXPECT_NE(NamedStatus("s", DOUBLE, 1.0), NamedStatus("s", DOUBLE, std::nextafter(1.0, 2.0)));
  EXPECT_EQ(NamedStatus("s", DOUBLE, 0.0), NamedStatus("s", DOUBLE, -0.0));
  const NamedStatus nan("s", DOUBLE, std::numeric_limits<double>::quiet_NaN());
  EXPECT_TRUE(nan != nan);
  EXPECT_NE(NamedStatus("s", ODD, 1L), NamedStatus("s", ODD, 1L));
}

TEST(NamedStatus, ComparisonThrowsOnAValueOfAnotherKindUnlessNameOrTypeDecide) {
  for (const auto type : {STRING, UINT, DOUBLE}) {
    const NamedStatus unset("s", type);
    EXPECT_THROW((void)(unset == unset), boost::bad_get);
    EXPECT_NE(unset, NamedStatus("t", type));
    EXPECT_NE(unset, NamedStatus("s", INT));
  }
  NamedStatus wrong("s", INT);
  wrong.setValue(std::string("text"));
  EXPECT_THROW((void)(wrong != NamedStatus("s", INT, 1L)), boost::bad_get);
  EXPECT_THROW((void)(NamedStatus("s", INT, 1L) != wrong), boost::bad_get);
}

TEST(NamedStatus, ValueOfAnotherKindIsShownAsUnknownAndNotWritten) {
  for (const auto type : {STRING, UINT, DOUBLE}) {
    const NamedStatus wrong("s", type, 5L);
    EXPECT_NE(wrong.debugString().find(" ?)"), std::string::npos) << wrong.debugString();
    EXPECT_FALSE(NamedStatus(wrong.toProtoBuf()).isValueSet());
    EXPECT_EQ(NamedStatus(wrong.toProtoBuf()).getType(), type);
  }
}

TEST(NamedStatus, SurvivesItsMessageSetOrUnset) {
  trees::Random random(1);
  for (int i = 0; i < 100; ++i) {
    const NamedStatus status = random.status(random.text());
    const NamedStatus read(status.toProtoBuf());
    EXPECT_EQ(read.debugString(), status.debugString());
    EXPECT_EQ(read.getValue(), status.getValue());
  }
}

TEST(NamedStatus, MessageCarriesOnlyTheFieldOfTheType) {
  EXPECT_EQ(NamedStatus("temp", DOUBLE).toProtoBuf().ShortDebugString(),
            R"(name: "temp" type: DOUBLE)");
  EXPECT_EQ(NamedStatus("", UINT, 7UL).toProtoBuf().ShortDebugString(),
            R"(name: "" type: UINT uint_value: 7)");
  EXPECT_EQ(NamedStatus("x", ODD, 7L).toProtoBuf().ShortDebugString(), R"(name: "x")");
}

TEST(NamedStatus, ReadsOnlyTheFieldOfTheTypeByItsPresence) {
  proto::NamedStatus message;
  message.set_string_value("ignored");
  message.set_type(proto::NamedStatus::UINT);
  EXPECT_EQ(NamedStatus(message).debugString(), " (uint not set)");
  message.set_uint_value(0);
  EXPECT_EQ(NamedStatus(message).debugString(), " (uint 0)");
  message.set_type(proto::NamedStatus::INT);
  message.set_int_value(0);
  EXPECT_TRUE(NamedStatus(message).isValueSet());
  message.clear_type();
  EXPECT_EQ(NamedStatus(message).debugString(), " (string ignored)");
#ifdef NDEBUG  // the setter asserts otherwise
  message.set_type(static_cast<proto::NamedStatus::Type>(9));
  EXPECT_EQ(NamedStatus(message).debugString(), " (int not set)");
#endif
}

TEST(NamedStatus, WritesOverWhateverAMessageHeld) {
  auto message = NamedStatus("old", STRING, std::string("text")).toProtoBuf();
  NamedStatus("s", ODD).toProtoBuf(message);
  EXPECT_EQ(message.ShortDebugString(), R"(name: "s")");
}

}  // namespace
