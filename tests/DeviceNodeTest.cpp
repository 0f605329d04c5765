#include <algorithm>
#include <list>

#include "device_tree/DeviceNode.h"
#include "tests/Trees.h"

namespace {

using namespace trees;
using Ids = std::list<std::string>;

TEST(DeviceNode, NamesItselfInMessages) {
  EXPECT_EQ(DeviceNode().messageHeader(), "Device  - ");
  const DeviceNode pump("pump-3", "Feed pump", RACK);
  EXPECT_EQ(pump.messageHeader(), "Device pump-3 - Feed pump");
  EXPECT_EQ(pump.formatMessage("text"), "Device pump-3 - Feed pump: text");
  EXPECT_EQ(static_cast<int>(DeviceNode().getDeviceClass()), 0);
}

TEST(DeviceNode, TakesItsIdentifierOnce) {
  DeviceNode device;
  std::string error = "old";
  EXPECT_TRUE(device.setDeviceId("", error));
  EXPECT_EQ(error, "");
  EXPECT_TRUE(device.setDeviceId("a", error));
  EXPECT_FALSE(device.setDeviceId("a", error));
  EXPECT_EQ(error, "Device a - : Cannot change a device ID");
  EXPECT_FALSE(node("x")->setDeviceId("y", error));
}

TEST(DeviceNode, SettersChangeTheLiveNode) {
  DeviceNode device("a", "old", UNKNOWN);
  device.setName("new");
  device.setDeviceClass(RACK);
  device.setGlobalStatus({GlobalStatus::LEVEL_ERROR, "gone"});
  EXPECT_EQ(device.debugString().find("Device: name new - id a\nStatus: Error: gone\nClass: 2\n"),
            0U);
}

TEST(DeviceNode, FilesCopiesOfPropertiesAndStatusesUnderFreeNames) {
  const auto device = node("d");
  std::string error = "old";
  Property property("p", Property::TYPE_STRING, std::string("1"));
  NamedStatus status("s", NamedStatus::TYPE_INT, 1L);
  EXPECT_TRUE(device->addProperty(property, error));
  EXPECT_TRUE(device->addStatus(status, error));
  EXPECT_EQ(error, "");

  property.value = std::string("2");
  status.setValue(2L);
  EXPECT_FALSE(device->addProperty(property, error));
  EXPECT_EQ(error, device->formatMessage("Property p already exists"));
  EXPECT_FALSE(device->addStatus(status, error));
  EXPECT_EQ(error, device->formatMessage("Status s already exists"));
  EXPECT_EQ(device->getProperties().at("p")->debugString(), "p (string 1)");
  EXPECT_EQ(device->getStatus("s")->debugString(), "s (int 1)");
}

TEST(DeviceNode, AttachesTheCallersNodeItself) {
  const auto root = node("root");
  const auto sub = attach(*root, node("sub"));
  EXPECT_EQ(root->getSubDevices().at("sub"), sub);
}

TEST(DeviceNode, RefusesSubDevicesInTheStatedOrder) {
  const auto root = node("root", {node("a")});
  const std::string before = root->debugString();
  std::string error;
  EXPECT_FALSE(root->addSubDevice(nullptr, true, error));
  EXPECT_EQ(error, root->formatMessage("Trying to add an invalid (null) sub-device"));
  EXPECT_FALSE(root->addSubDevice(node("root"), true, error));
  EXPECT_EQ(error, root->formatMessage("Sub-device has same ID as parent: root"));
  EXPECT_FALSE(root->addSubDevice(node("a", {node("b", {node("root")})}), false, error));
  EXPECT_EQ(error, root->formatMessage("Sub-device has same ID as parent: root"));
  EXPECT_FALSE(root->addSubDevice(node("a"), false, error));
  EXPECT_EQ(error, root->formatMessage("Sub-device already exists: a"));
  EXPECT_EQ(root->debugString(), before);
}

TEST(DeviceNode, LooksOnlyForItsOwnIdentifierInANewSubtree) {
  const auto root = node("root", {node("a", {node("x")})});
  attach(*root, node("b", {node("x"), node("a")}));
  attach(*root->getDeviceById("a"), node("c", {node("root")}));
  EXPECT_EQ(root->getTreeDeviceIds(), (Ids{"root", "a", "c", "root", "x", "b", "a", "x"}));
}

TEST(DeviceNode, ReplacesASubDeviceOnRequest) {
  const auto root = node("root", {node("a", {node("below")})});
  const auto later = node("a");
  std::string error = "old";
  EXPECT_TRUE(root->addSubDevice(later, true, error));
  EXPECT_EQ(error, "");
  EXPECT_EQ(root->getDeviceById("a"), later);
  EXPECT_EQ(root->getDeviceById("below"), nullptr);
}

TEST(DeviceNode, FilesOneSubDeviceWithoutIdentifier) {
  std::string error;
  EXPECT_FALSE(node("")->addSubDevice(node(""), true, error));
  const auto root = node("root", {node("")});
  EXPECT_FALSE(root->addSubDevice(node(""), false, error));
  EXPECT_EQ(error, root->formatMessage("Sub-device already exists: "));
  EXPECT_TRUE(root->addSubDevice(node(""), true, error));
}

TEST(DeviceNode, RemovesTheFirstEntryUnderAKey) {
  const auto root = node("root", {node("a", {node("x", {node("y")})}), node("b", {node("x")})});
  std::string error;
  EXPECT_FALSE(root->removeSubDevice("x", false, error));
  EXPECT_EQ(error, root->formatMessage("x not found"));
  EXPECT_TRUE(root->removeSubDevice("x", true, error));
  EXPECT_EQ(error, "");
  EXPECT_EQ(root->getTreeDeviceIds(), (Ids{"root", "a", "b", "x"}));
  EXPECT_TRUE(root->removeSubDevice("x", true, error));
  EXPECT_EQ(error, "") << "although \"a\" refused on the way";
  EXPECT_FALSE(root->removeSubDevice("root", true, error));
  EXPECT_EQ(error, root->formatMessage("root not found"));
}

TEST(DeviceNode, RemovalLooksAtItsOwnSubDevicesBeforeItGoesBelow) {
  const auto root = node("root", {node("a", {node("z")}), node("z")});
  std::string error;
  EXPECT_TRUE(root->removeSubDevice("z", true, error));
  EXPECT_EQ(root->getSubDeviceIds(false), (Ids{"a"}));
}

TEST(DeviceNode, LateIdentifierLeavesTheKeyEmpty) {
  const auto root = node("root", {node("a")});
  attachLate(*root, "pump", node(""));
  EXPECT_EQ(root->getSubDeviceIds(false), (Ids{"pump", "a"})) << "the key decides the order";
  EXPECT_NE(root->getDeviceById("pump"), nullptr);
  std::string error;
  EXPECT_FALSE(root->removeSubDevice("pump", true, error));
  EXPECT_TRUE(root->removeSubDevice("", false, error));
}

TEST(DeviceNode, EmptyEntriesAreEntriesButNotNodes) {
  const auto root = node("root", {node("a")});
  DeviceNodePeer::properties(*root)["p"];
  DeviceNodePeer::statuses(*root)["s"];
  DeviceNodePeer::subDevices(*root)["b"];
  std::string error;
  EXPECT_FALSE(root->addProperty(Property("p", Property::TYPE_STRING, std::string()), error));
  EXPECT_FALSE(root->addStatus(NamedStatus("s", NamedStatus::TYPE_INT), error));
  EXPECT_FALSE(root->addSubDevice(node("b"), false, error));
  EXPECT_EQ(root->getSubDeviceIds(true), (Ids{"a"}));
  EXPECT_EQ(root->getStatus("s"), nullptr);
  EXPECT_EQ(root->getAllStatuses().at("root").count("s"), 1U);
  DeviceNodePeer::properties(*root->getDeviceById("a"))["p"];
  EXPECT_TRUE(root->getSubDevicesByProperty("p", "", true).empty());
  DeviceNodePeer::properties(*root->getDeviceById("a")).clear();
  EXPECT_EQ(root->debugString(1),
            "  Device: name name of root - id root\n  Status: OK\n  Class: 0\n"
            "    1 property(ies): \n    1 status(es): \n    2 child(ren):\n"
            "      Device: name name of a - id a\n      Status: OK\n      Class: 0\n"
            "        0 property(ies): \n        0 status(es): \n        0 child(ren):\n");
  const auto message = root->toProtoBuf();
  EXPECT_EQ(message.properties_size() + message.statuses_size(), 0);
  EXPECT_EQ(message.sub_devices_size(), 1);
  DeviceNode copy(*root);
  EXPECT_EQ(copy.debugString(), root->debugString());
  EXPECT_EQ(DeviceNodePeer::subDevices(copy).count("b"), 1U);
  EXPECT_TRUE(root->removeSubDevice("b", false, error));
}

TEST(DeviceNode, QueriesWalkInKeyOrderANodeBeforeThoseBelow) {
  const auto root = node("root", {node("b"), node("a1"), node("a", {node("c")}), node("B")});
  EXPECT_EQ(root->getTreeDeviceIds(), (Ids{"root", "B", "a", "c", "a1", "b"}));
  EXPECT_EQ(root->getSubDeviceIds(true), (Ids{"B", "a", "c", "a1", "b"}));
  EXPECT_EQ(root->getSubDeviceIds(false), (Ids{"B", "a", "a1", "b"}));
  EXPECT_EQ(node("\x80", {node("\xff"), node("z")})->getSubDeviceIds(false), (Ids{"z", "\xff"}));
}

TEST(DeviceNode, FindsTheFirstNodeOfAnIdentifier) {
  const auto root = node("root", {node("a", {node("x")}), node("x")});
  EXPECT_EQ(root->getDeviceById("root"), root);
  EXPECT_EQ(root->getDeviceById("x"), root->getDeviceById("a")->getDeviceById("x"));
  EXPECT_EQ(root->getDeviceById("nowhere"), nullptr);
  EXPECT_EQ(DeviceNode("alone", "", UNKNOWN).getDeviceById("alone"), nullptr)
      << "no shared pointer owns it";
}

TEST(DeviceNode, SelectsSubDevicesByNameAndByProperty) {
  const auto root = node("root", {node("a", {node("b")}), node("c")});
  for (const auto& device : allNodes(root)) {
    device->setName("same");
    if (device->getDeviceId() != "a") addProperty(*device, "p", "1");
  }
  const auto a = root->getDeviceById("a");
  const auto b = root->getDeviceById("b");
  const auto c = root->getDeviceById("c");
  using Nodes = std::list<NodePtr>;
  EXPECT_EQ(root->getSubDevicesByName("same", true), (Nodes{a, b, c}));
  EXPECT_EQ(root->getSubDevicesByName("same", false), (Nodes{a, c}));
  EXPECT_EQ(root->getSubDevicesByName("a", true), Nodes{});
  c->getProperties().at("p")->type = static_cast<Property::Type>(7);  // is not looked at
  EXPECT_EQ(root->getSubDevicesByProperty("p", "1", true), (Nodes{b, c}));
  EXPECT_EQ(root->getSubDevicesByProperty("p", "1", false), (Nodes{c}));
  EXPECT_EQ(root->getSubDevicesByProperty("p", "2", true), Nodes{});
}

TEST(DeviceNode, CollectsTheTreesOwnStatusesTheFirstOfAnIdentifierWinning) {
  const auto root = node("root", {node("a", {node("x")}), node("x")});
  addStatus(*root->getDeviceById("x"), NamedStatus("s", NamedStatus::TYPE_INT));
  const auto all = root->getAllStatuses();
  EXPECT_EQ(all.size(), 3U);
  EXPECT_TRUE(all.at("root").empty());
  ASSERT_EQ(all.at("x").size(), 1U);
  all.at("x").at("s")->setValue(7L);
  EXPECT_EQ(root->getDeviceById("x")->getStatus("s")->debugString(), "s (int 7)");
}

TEST(DeviceNode, ReleasesWhatADerivedDestructorDropsBeforeThatReturns) {
  struct Counted : DeviceNode {
    explicit Counted(int& count) : alive(++count) {}
    ~Counted() override { --alive; }
    int& alive;
  };
  struct Scratch : DeviceNode {
    using DeviceNode::DeviceNode;
    ~Scratch() override {
      int alive = 0;
      trees::attach(*trees::node("scratch"), std::make_shared<Counted>(alive));
      EXPECT_EQ(alive, 0);
    }
  };
  auto root = node("root", {std::make_shared<Scratch>("a", "", UNKNOWN)});
  root.reset();
}

TEST(DeviceNode, CopyIsEqualAndSharesNothing) {
  for (unsigned int seed = 0; seed < 50; ++seed) {
    Random random(seed);
    const auto source = seed % 2 == 0 ? random.tree(30) : random.tangledTree(30);
    const auto copy = std::make_shared<DeviceNode>(*source);
    EXPECT_EQ(copy->debugString(), source->debugString());
    const auto sourceNodes = allNodes(source);
    const auto copyNodes = allNodes(copy);
    ASSERT_EQ(copyNodes.size(), sourceNodes.size());
    for (std::size_t i = 0; i < sourceNodes.size(); ++i) {
      const DeviceNode& from = *sourceNodes[i];
      const DeviceNode& to = *copyNodes[i];
      EXPECT_NE(&from, &to);
      EXPECT_EQ(copyNodes[i]->shared_from_this(), copyNodes[i]);
      const auto shareNothing = [](const auto& left, const auto& right) {
        return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                          [](const auto& l, const auto& r) {
                            return l.first == r.first && (l.second != r.second || !l.second);
                          });
      };
      EXPECT_TRUE(shareNothing(from.getProperties(), to.getProperties()));
      EXPECT_TRUE(shareNothing(from.getStatuses(), to.getStatuses()));
      EXPECT_TRUE(shareNothing(from.getSubDevices(), to.getSubDevices()));
    }
  }
}

TEST(DeviceNode, CopyOfANodeFiledTwiceIsTwoNodes) {
  const auto shared = node("x");
  const auto root = node("root", {node("a", {shared}), node("b", {shared})});
  const auto copy = std::make_shared<DeviceNode>(*root);
  EXPECT_NE(copy->getDeviceById("a")->getDeviceById("x"),
            copy->getDeviceById("b")->getDeviceById("x"));
}

TEST(DeviceNode, TextOfAWholeTree) {
  DeviceNode rack("dev-1", "Rack", RACK);
  rack.setGlobalStatus({GlobalStatus::LEVEL_WARNING, "fan slow"});
  addProperty(rack, "model", "X200");
  addStatus(rack, NamedStatus("temp", NamedStatus::TYPE_DOUBLE, 21.5));
  addStatus(rack, NamedStatus("errors", NamedStatus::TYPE_UINT));
  const auto supply = std::make_shared<DeviceNode>(
      "dev-1.1", "PSU", orv::proto::monitoring::DeviceNode::POWER_SUPPLY);
  addStatus(*attach(rack, supply), NamedStatus("voltage", NamedStatus::TYPE_DOUBLE));
  EXPECT_EQ(rack.debugString(),
            "Device: name Rack - id dev-1\n"
            "Status: Warning: fan slow\n"
            "Class: 2\n"
            "  1 property(ies): [model (string X200)] \n"
            "  2 status(es): [errors (uint not set)] [temp (double 21.500000)] \n"
            "  1 child(ren):\n"
            "    Device: name PSU - id dev-1.1\n"
            "    Status: OK\n"
            "    Class: 5\n"
            "      0 property(ies): \n"
            "      1 status(es): [voltage (double not set)] \n"
            "      0 child(ren):\n");
  EXPECT_EQ(orv::device_tree::GetIndent(0), "");
  EXPECT_EQ(orv::device_tree::GetIndent(3), "      ");
}

TEST(DeviceNode, TextUsesTheOverrideOfADerivedSubDevice) {
  struct Named : DeviceNode {
    using DeviceNode::DeviceNode;
    std::string debugString(unsigned int indent) const noexcept override {
      return orv::device_tree::GetIndent(indent) + "mine\n";
    }
  };
  const auto root = node("root", {node("b"), node("c")});
  const auto named = std::make_shared<Named>("d", "", UNKNOWN);
  attach(*named, node("hidden"));
  attach(*root->getDeviceById("b"), named);
  const std::string text = root->debugString(1);
  EXPECT_NE(text.find("\n          mine\n      Device: name name of c"), std::string::npos) << text;
  EXPECT_EQ(text.find("hidden"), std::string::npos);
}

}  // namespace
