#include <gtest/gtest.h>

#include <stdexcept>

#include "reporting/Sequence.h"
#include "reporting/Topics.h"

namespace {

using namespace orv::reporting;

TEST(Topics, CarryEveryRootAndNothingElse) {
  EXPECT_EQ(Topics("x y/z").state("a"), "x y/z/state/a");
  const Topics topics("orv/1");
  EXPECT_EQ(topics.event(""), "orv/1/event/805/%");
  EXPECT_EQ(topics.event("a"), "orv/1/event/140/a");
  const std::string odd = std::string("\x00/+#%\x7f", 6) + "\xc2\x85\xff\xef\xbf\xbf";
  EXPECT_EQ(topics.state(odd), "orv/1/state/%00%2F%2B%23%25%7F%C2%85%FF%EF%BF%BF");
  // Overlong, cut off, a surrogate, a noncharacter and above all characters.
  EXPECT_EQ(
      topics.state(
          "\xc1\xbf\xe0\x9f\xbf\xe2\x82\xed\xa0\x80\xef\xb7\x90\xf4\x90\x80\x80\xf9\x80\x80\x80"),
      "orv/1/state/%C1%BF%E0%9F%BF%E2%82%ED%A0%80%EF%B7%90%F4%90%80%80%F9%80%80%80");
  // The lowest and the highest of each size.
  const std::string plain =
      " !\"$&'()*,-.0123456789:;<=>?@AZ[\\]^_`abcdefghijklmnopqrstuvwxyz{|}~\xc2\xa0\xdf\xbf"
      "\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xb7\x8f\xef\xb7\xb0\xef\xbf\xbd\xf0\x90\x80\x80"
      "\xf4\x8f\xbf\xbd";
  EXPECT_EQ(topics.request(plain), "orv/1/request/" + plain);
  for (const std::string& id : {std::string(), odd, std::string("%"), std::string("a/b")}) {
    EXPECT_EQ(topics.rootOf(topics.event(id)), id);
    EXPECT_EQ(topics.reporterOf(topics.state(id)), id);
    EXPECT_EQ(topics.reporterOf(topics.gone(id)), id);
    EXPECT_EQ(topics.listOf(topics.roots(1023, id)), std::pair(1023U, id));
  }
  for (const char* topic :
       {"orv/1/event/141/a", "orv/1/event/140/%61", "orv/1/event/a", "orv/1/event/",
        "orv/1/event/140/a/", "orv/1/state/%2f", "orv/1/state/a%", "orv/1/state/a%2", "x",
        "orv/1/roots/1024/a", "orv/1/roots/01/a", "orv/1/roots/a", "orv/1/roots//a",
        "orv/1/roots/7"}) {
    EXPECT_FALSE(topics.rootOf(topic) || topics.reporterOf(topic) || topics.listOf(topic)) << topic;
  }
  for (const std::string prefix : {"", "a/+", "#", "$SYS", "\na", "a\n"}) {
    try {
      FAIL() << Topics(prefix).state("a");
    } catch (const std::invalid_argument& refusal) {
      EXPECT_EQ(refusal.what(), "A broker does not take the prefix '" + prefix + "'");
    }
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
