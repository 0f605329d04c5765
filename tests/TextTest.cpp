// What values, trees and refused events say, held against the .txt files beside this one.

#include <clocale>
#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>

#include "tests/Nodes.h"

namespace {

using namespace nodes;

void expectText(const std::string& text, const std::string& file) {
  std::ifstream stream(ORV_TESTS + file);
  ASSERT_TRUE(stream) << file;
  EXPECT_EQ(text, std::string(std::istreambuf_iterator<char>(stream), {})) << file;
}

template <typename Value>
char compare(Value& left, Value& right) try {
  const bool same = left == right;
  return same == (left != right) ? '?' : same ? '=' : '.';
} catch (const boost::bad_get&) {
  return 'x';
}

// Each value: its text, its message, the text of what that builds; then all pairs compared.
template <typename Value>
void print(std::vector<Value> values, std::ostream& out) {
  for (const Value& value : values) {
    auto used = values.back().toProtoBuf();
    used.ParseFromString(used.SerializeAsString() + "\x78\x01");  // and an unknown field
    value.toProtoBuf(used);
    const Value built = used;
    out << value.debugString() << " | " << used.ShortDebugString() << " | " << built.debugString()
        << (used.SerializeAsString() == value.toProtoBuf().SerializeAsString() ? "\n" : "?\n");
  }
  for (Value& left : values) {
    for (Value& right : values) out << compare(left, right);
    out << "\n";
  }
}

std::string values() {
  std::ostringstream out;
  const std::vector<NamedStatus::Value> kinds{std::string("auto"), std::numeric_limits<long>::min(),
                                              ~0UL, std::numeric_limits<double>::lowest()};
  std::vector<NamedStatus> statuses{{"", NamedStatus::TYPE_DOUBLE, NAN},
                                    {"s", NamedStatus::TYPE_DOUBLE, -0.0},
                                    {"s", NamedStatus::TYPE_DOUBLE, 0.0},
                                    {"s", NamedStatus::TYPE_INT, 0L}};
  for (int type = 0; type < 5; ++type) {
    statuses.emplace_back("s", static_cast<NamedStatus::Type>(type));
    for (const auto& value : kinds) statuses.push_back({"s", statuses.back().getType(), value});
  }
  statuses.back().unsetValue();
  print(statuses, out);
  std::vector<GlobalStatus> healths;
  std::vector<Property> properties{{"", Property::TYPE_STRING, ""}};
  for (int number = -1; number < 4; ++number) {
    for (const char* text : {"", "x", "X"}) {
      healths.emplace_back(static_cast<GlobalStatus::Level>(number), text);
      properties.emplace_back("p", static_cast<Property::Type>(number), text);
    }
  }
  print(healths, out);
  print(properties, out);
  print<NamedStatus>({proto::NamedStatus()}, out);
  print<GlobalStatus>({proto::GlobalStatus()}, out);
  return out.str();
}

TEST(Texts, OfValuesInEveryLocale) {
  expectText(values(), "values.txt");
  ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr) << "ctest sets LOCPATH to it";
  expectText(values(), "values.txt");
  std::setlocale(LC_ALL, "C");
}

struct Derived : DeviceNode {
  using DeviceNode::DeviceNode;
  std::string debugString(unsigned int indent) const noexcept override {
    return GetIndent(indent) + "mine, " + std::to_string(getSubDevices().size()) + " hidden\n";
  }
};

TEST(Texts, OfATree) {
  DeviceNode rack(parse<proto::DeviceNode>(R"(
      id: "dev-1" name: "Rack" global_status { level: WARNING message: "fan slow" }
      properties { name: "vendor" value: "V" } properties { name: "model" value: "X200" }
      statuses { name: "temp" type: DOUBLE double_value: 21.5 } statuses { name: "errors" type: UINT }
      sub_devices { id: "dev-1.2" device_class: POWER_SUPPLY sub_devices { id: "dev-1.2.1" } })"));
  rack.setDeviceClass(static_cast<DeviceNode::DeviceClass>(-2));
  const auto derived = std::make_shared<Derived>("dev-1.1", "", DeviceNode::DeviceClass{});
  attach(*derived, node("below"));
  attach(rack, derived);
  expectText(rack.debugString() + rack.debugString(2), "tree.txt");
  EXPECT_EQ(rack.getDeviceById("dev-1"), nullptr) << "no shared pointer owns it";
}

TEST(Texts, OfRefusedEvents) {
  std::ifstream file(ORV_TESTS "refusals.txt");
  std::string out;
  for (std::string line; std::getline(file, line);) {
    if (line[0] == ' ') continue;
    out += line + "\n";
    const std::string device = "id: 'a' statuses { name: 's' type: UINT }";
    for (NodePtr tree :
         {NodePtr(), std::make_shared<DeviceNode>(parse<proto::DeviceNode>(device))}) {
      const std::string before = tree ? tree->debugString() : "";
      std::string error = "left over";
      const bool done = EventHelper::ApplyEvent(parse<Event>(line), tree, error);
      out += "    " + (done ? "is carried out" : error) + "\n";
      EXPECT_TRUE(done || before == (tree ? tree->debugString() : "")) << line;
    }
  }
  expectText(out, "refusals.txt");
}

}  // namespace
