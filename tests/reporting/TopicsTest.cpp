#include <gtest/gtest.h>

#include <stdexcept>

#include "reporting/Sequence.h"
#include "reporting/Topics.h"

namespace {

using namespace orv::reporting;

TEST(Topics, CarryEveryRootAndNothingElse) {
  const Topics topics("orv/1");
  EXPECT_EQ(topics.event(""), "orv/1/event/37/%");
  EXPECT_EQ(topics.event("a"), "orv/1/event/12/a");
  const std::string odd = std::string("\x00/+#%\x7f", 6) + "\xc2\x85\xff\xef\xbf\xbf";
  EXPECT_EQ(topics.reporter(odd), "orv/1/reporter/%00%2F%2B%23%25%7F%C2%85%FF%EF%BF%BF");
  EXPECT_EQ(topics.request("pump \xc3\xa4 $"), "orv/1/request/pump \xc3\xa4 $");
  for (const std::string& id : {std::string(), odd, std::string("%"), std::string("a/b")}) {
    EXPECT_EQ(topics.rootOf(topics.event(id)), id);
    EXPECT_EQ(topics.reporterOf(topics.reporter(id)), id);
  }
  for (const char* topic :
       {"orv/1/event/13/a", "orv/1/event/12/%61", "orv/1/event/a", "orv/1/event/",
        "orv/1/event/12/a/", "orv/1/reporter/%2f", "orv/1/reporter/a%", "x"}) {
    EXPECT_FALSE(topics.rootOf(topic) || topics.reporterOf(topic)) << topic;
  }
  for (const char* prefix : {"", "a/+", "#", "$SYS", "a\n"}) {
    EXPECT_THROW(Topics{prefix}, std::invalid_argument) << prefix;
  }
}

TEST(Sequence, ReadsItsOwnTextAlone) {
  EXPECT_EQ(Sequence::parse("18446744073709551615.1")->text(), "18446744073709551615.1");
  for (const char* text : {"", "1", "1.", ".1", "1.0", "01.1", "+1.1", "1.-1", "1.1 ", "1.1.1",
                           "18446744073709551616.1", "1.18446744073709551616"}) {
    EXPECT_FALSE(Sequence::parse(text)) << text;
  }
}

}  // namespace
