// A whole tree to and from its message.

#include <stdexcept>

#include "tests/Trees.h"

namespace {

using namespace trees;
namespace proto = orv::proto::monitoring;

std::string refusal(const proto::DeviceNode& message) {
  try {
    const DeviceNode built(message);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

TEST(Conversion, WrittenAndReadBackEqual) {
  for (unsigned int seed = 0; seed < 50; ++seed) {
    const auto tree = Random(seed).tree(30);
    const DeviceNode read(tree->toProtoBuf());
    EXPECT_EQ(read.debugString(), tree->debugString());
  }
}

TEST(Conversion, DefaultNodeIsWrittenWithEveryFieldOfItsOwn) {
  EXPECT_EQ(DeviceNode().toProtoBuf().ShortDebugString(),
            R"(id: "" name: "" device_class: UNKNOWN global_status { level: OK })");
  EXPECT_EQ(DeviceNode(proto::DeviceNode()).debugString(), DeviceNode().debugString());
}

TEST(Conversion, ClassOutsideTheEnumerationIsCarriedThrough) {
  for (const int number : {-1, 99, std::numeric_limits<int>::min()}) {
    const DeviceNode device("d", "", static_cast<DeviceNode::DeviceClass>(number));
    const auto message = device.toProtoBuf();
    EXPECT_EQ(static_cast<int>(message.device_class()), number);
    EXPECT_EQ(static_cast<int>(DeviceNode(message).getDeviceClass()), number);
    EXPECT_NE(device.debugString().find("Class: " + std::to_string(number) + "\n"),
              std::string::npos);
  }
}

TEST(Conversion, OrderInTheMessageDoesNotMatter) {
  proto::DeviceNode message;
  message.set_id("root");
  for (const char* id : {"b", "ab", "B", "a"}) {
    message.add_sub_devices()->set_id(id);
    message.add_properties()->set_name(id);
    message.add_statuses()->set_name(id);
  }
  const auto written = DeviceNode(message).toProtoBuf();
  const std::vector<std::string> order{"B", "a", "ab", "b"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(written.sub_devices(i).id(), order[static_cast<std::size_t>(i)]);
    EXPECT_EQ(written.properties(i).name(), order[static_cast<std::size_t>(i)]);
    EXPECT_EQ(written.statuses(i).name(), order[static_cast<std::size_t>(i)]);
  }
}

TEST(Conversion, WritesOverWhateverAMessageHeld) {
  auto message = Random(3).tree(20)->toProtoBuf();
  const auto tree = Random(4).tree(20);
  tree->toProtoBuf(message);
  EXPECT_EQ(message.SerializeAsString(), tree->toProtoBuf().SerializeAsString());
}

TEST(Conversion, LaterSubDeviceOfAnIdentifierWinsWithItsSubtree) {
  proto::DeviceNode message;
  message.set_id("root");
  for (const char* below : {"first", "second"}) {
    auto& sub = *message.add_sub_devices();
    sub.set_id("a");
    sub.add_sub_devices()->set_id(below);
  }
  EXPECT_EQ(DeviceNode(message).getTreeDeviceIds(),
            (std::list<std::string>{"root", "a", "second"}));
}

TEST(Conversion, RefusalIsFormattedTwiceByTheNodeAtThatDepth) {
  proto::DeviceNode message;
  message.set_id("root");
  auto& sub = *message.add_sub_devices();
  sub.set_id("a");
  sub.set_name("n");
  sub.add_properties()->set_name("p");
  EXPECT_EQ(refusal(message), "");

  auto repeatedProperty = message;
  repeatedProperty.mutable_sub_devices(0)->add_properties()->set_name("p");
  EXPECT_EQ(refusal(repeatedProperty), "Device a - n: Device a - n: Property p already exists");

  auto repeatedStatus = message;
  repeatedStatus.mutable_sub_devices(0)->add_statuses();
  repeatedStatus.mutable_sub_devices(0)->add_statuses();
  EXPECT_EQ(refusal(repeatedStatus), "Device a - n: Device a - n: Status  already exists");

  message.mutable_sub_devices(0)->add_sub_devices()->add_sub_devices()->set_id("a");
  EXPECT_EQ(refusal(message), "Device a - n: Device a - n: Sub-device has same ID as parent: a");
}

TEST(Conversion, SubDeviceWithoutIdentifierIsReadButNotWritten) {
  proto::DeviceNode message;
  message.set_id("root");
  message.add_sub_devices()->set_name("first");
  auto& unnamed = *message.add_sub_devices();
  unnamed.set_name("second");
  unnamed.add_sub_devices()->set_id("below");
  const DeviceNode read(message);
  ASSERT_EQ(read.getSubDevices().size(), 1U);
  EXPECT_EQ(read.getSubDevices().at("")->getName(), "second");
  EXPECT_EQ(read.toProtoBuf().sub_devices_size(), 0);

  message.clear_id();
  EXPECT_EQ(refusal(message), "Device  - : Device  - : Sub-device has same ID as parent: ");
}

TEST(Conversion, OwnIdentifierDecidesWhatIsWritten) {
  const auto root = node("root", {node("a")});
  attachLate(*root, "late", node("", {node("below")}));
  const auto message = root->toProtoBuf();
  ASSERT_EQ(message.sub_devices_size(), 2);
  EXPECT_EQ(message.sub_devices(0).id(), "late") << "in the place of its key";
  EXPECT_EQ(message.sub_devices(0).sub_devices_size(), 1);
}

}  // namespace
