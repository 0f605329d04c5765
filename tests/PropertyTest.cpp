#include "device_tree/Property.h"
#include "tests/Trees.h"

namespace {

using orv::device_tree::Property;
namespace proto = orv::proto::monitoring;

Property property(const std::string& name, const std::string& value, int type = 0) {
  return Property(name, static_cast<Property::Type>(type), value);
}

TEST(Property, TextShowsTypeAndValueUnlessTheTypeIsUnknown) {
  EXPECT_EQ(property("model", "X200").debugString(), "model (string X200)");
  EXPECT_EQ(property("", "").debugString(), " (string )");
  EXPECT_EQ(property("model", "X200", 7).debugString(), "model (? ?)");
}

TEST(Property, ComparesNameTypeAndValueExactly) {
  Property one = property("a", "1");
  EXPECT_TRUE(one == one);
  EXPECT_TRUE(one == property("a", "1"));
  EXPECT_TRUE(one != property("a", "2"));
  EXPECT_TRUE(one != property("A", "1"));
  EXPECT_TRUE(one != property("a", "1", 7));
}

TEST(Property, UnknownTypeHidesTheValue) {
  EXPECT_TRUE(property("a", "1", 7) == property("a", "2", 7));
  EXPECT_TRUE(property("a", "1", 7) != property("a", "1", 8));
}

TEST(Property, MessageIsAlwaysACompleteString) {
  EXPECT_EQ(property("", "", -3).toProtoBuf().ShortDebugString(),
            R"(name: "" type: STRING value: "")");
  proto::Property used;
  used.ParsePartialFromString("\x10\x09");  // a type from a newer schema
  property("a", "1").toProtoBuf(used);
  EXPECT_EQ(used.ShortDebugString(), R"(name: "a" type: STRING value: "1")");
  EXPECT_TRUE(Property(used) == property("a", "1"));
  EXPECT_TRUE(Property(proto::Property()) == property("", ""));
#ifdef NDEBUG  // the setter asserts otherwise
  proto::Property message;
  message.set_type(static_cast<proto::Property::Type>(7));
  EXPECT_EQ(Property(message).type, Property::TYPE_STRING);
#endif
}

}  // namespace
