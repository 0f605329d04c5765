// Configuration and status differences, case by case and against the plain definition.

#include "device_tree/Utils.h"
#include "tests/PlainDefinition.h"
#include "tests/Trees.h"

namespace {

using namespace trees;
using orv::device_tree::utils::GetStatusDifferences;
using orv::device_tree::utils::IsSameConfiguration;

struct Lists {
  plain::GlobalChanges globals;
  plain::NamedChanges named;
};

Lists differences(const NodePtr& oldTree, const NodePtr& newTree) {
  Lists lists;
  GetStatusDifferences(oldTree, newTree, lists.globals, lists.named);
  return lists;
}

Lists plainDifferences(const NodePtr& oldTree, const NodePtr& newTree) {
  Lists lists;
  plain::getStatusDifferences(oldTree, newTree, lists.globals, lists.named);
  return lists;
}

/// A tree, a copy of it, and what one edit of the copy changes.
NodePtr sample() {
  const auto root = node("root", {node("a", {node("b")}), node("c")});
  for (const auto& device : allNodes(root)) {
    addProperty(*device, "p", "1");
    addStatus(*device, NamedStatus("s", NamedStatus::TYPE_INT, 1L));
  }
  return root;
}

template <typename Edit>
bool sameAfter(Edit edit) {
  const auto oldTree = sample();
  const auto newTree = std::make_shared<DeviceNode>(*oldTree);
  edit(*newTree, *newTree->getDeviceById("b"));
  return IsSameConfiguration(oldTree, newTree);
}

TEST(Configuration, AbsentTreeIsTheSameOnlyAsAnAbsentTree) {
  EXPECT_TRUE(IsSameConfiguration(nullptr, nullptr));
  EXPECT_FALSE(IsSameConfiguration(nullptr, node("a")));
  EXPECT_FALSE(IsSameConfiguration(node("a"), nullptr));
}

TEST(Configuration, StateAndClassAreNoneOfIt) {
  EXPECT_TRUE(sameAfter([](DeviceNode& root, DeviceNode& b) {
    b.getStatus("s")->setValue(2L);
    root.getStatus("s")->unsetValue();
    b.setGlobalStatus({GlobalStatus::LEVEL_ERROR, "x"});
    b.setDeviceClass(RACK);
  }));
}

TEST(Configuration, EveryOtherEditChangesIt) {
  std::string error;
  EXPECT_FALSE(sameAfter([](DeviceNode&, DeviceNode& b) { b.setName("other"); }));
  EXPECT_FALSE(sameAfter([](DeviceNode&, DeviceNode& b) { addProperty(b, "q", "1"); }));
  EXPECT_FALSE(sameAfter(
      [](DeviceNode&, DeviceNode& b) { b.getProperties().at("p")->value = std::string("2"); }));
  EXPECT_FALSE(sameAfter(
      [](DeviceNode&, DeviceNode& b) { addStatus(b, NamedStatus("t", NamedStatus::TYPE_INT)); }));
  EXPECT_FALSE(sameAfter([](DeviceNode&, DeviceNode& b) {
    *b.getStatus("s") = NamedStatus("s", NamedStatus::TYPE_UINT, 1UL);
  }));
  EXPECT_FALSE(sameAfter([](DeviceNode&, DeviceNode& b) {
    *b.getStatus("s") = NamedStatus("renamed", NamedStatus::TYPE_INT, 1L);
  }));
  EXPECT_FALSE(
      sameAfter([&](DeviceNode& root, DeviceNode&) { root.removeSubDevice("b", true, error); }));
  EXPECT_FALSE(sameAfter([](DeviceNode&, DeviceNode& b) { attach(b, node("d")); }));
  EXPECT_FALSE(sameAfter([&](DeviceNode& root, DeviceNode&) {
    root.removeSubDevice("c", false, error);
    attach(root, node("d"));
  }));
  EXPECT_FALSE(IsSameConfiguration(node("a"), node("b")));
}

TEST(Configuration, PropertiesCompareByTheirOwnOperator) {
  const auto oldTree = sample();
  oldTree->getProperties().at("p")->type = static_cast<Property::Type>(7);
  const auto newTree = std::make_shared<DeviceNode>(*oldTree);
  newTree->getProperties().at("p")->value = std::string("2");
  EXPECT_TRUE(IsSameConfiguration(oldTree, newTree)) << "an unknown type hides the value";

  const auto renamed = node("d");
  addProperty(*renamed, "p", "1");
  renamed->getProperties().at("p")->name = "q";
  const auto other = node("d");
  addProperty(*other, "q", "1");
  EXPECT_FALSE(IsSameConfiguration(renamed, other)) << "they are filed under different names";
}

TEST(Configuration, EmptyEntriesCountForPropertiesAndStatusesOnly) {
  const auto oldTree = sample();
  const auto newTree = std::make_shared<DeviceNode>(*oldTree);
  DeviceNodePeer::subDevices(*newTree)["empty"];
  EXPECT_TRUE(IsSameConfiguration(oldTree, newTree));
  EXPECT_TRUE(IsSameConfiguration(newTree, oldTree));
  DeviceNodePeer::properties(*newTree)["p"] = nullptr;
  EXPECT_FALSE(IsSameConfiguration(oldTree, newTree));
  EXPECT_FALSE(IsSameConfiguration(newTree, oldTree));
  DeviceNodePeer::properties(*oldTree)["p"] = nullptr;
  EXPECT_TRUE(IsSameConfiguration(oldTree, newTree));
  DeviceNodePeer::statuses(*newTree)["s"] = nullptr;
  EXPECT_FALSE(IsSameConfiguration(oldTree, newTree));
  EXPECT_TRUE(differences(oldTree, newTree).named.empty());
}

TEST(Configuration, MembershipOfIdentifiersIsOneSided) {
  const auto twice = node("root", {node("x")});
  attachLate(*twice, "x", node(""))->setName("name of x");
  const auto once = node("root", {node("x"), node("y")});
  EXPECT_TRUE(IsSameConfiguration(twice, once));
  EXPECT_FALSE(IsSameConfiguration(once, twice));
}

TEST(Configuration, KeysMayDifferFromIdentifiers) {
  const auto late = node("root", {node("a"), node("c")});
  attachLate(*late, "b", node(""))->setName("name of b");
  const auto early = node("root", {node("a"), node("b"), node("c")});
  EXPECT_TRUE(IsSameConfiguration(late, early));
  EXPECT_TRUE(IsSameConfiguration(early, late));
}

TEST(Configuration, SubDeviceThatCarriesItsParentsIdentifierEnds) {
  const auto build = [](const std::string& name) {
    const auto root = node("root", {node("a")});
    attachLate(*root, "root", node(""))->setName(name);
    return root;
  };
  EXPECT_TRUE(IsSameConfiguration(build("x"), build("y"))) << "it stands for the root";
  const auto unwell = build("x");
  unwell->getSubDevices().at("")->setGlobalStatus({GlobalStatus::LEVEL_ERROR, ""});
  EXPECT_TRUE(differences(build("x"), unwell).globals.empty());
}

TEST(StatusDifferences, AreAppendedInWalkOrder) {
  const auto oldTree = sample();
  const auto newTree = std::make_shared<DeviceNode>(*oldTree);
  for (const auto& device : allNodes(newTree)) {
    device->getStatus("s")->setValue(2L);
    device->setGlobalStatus({GlobalStatus::LEVEL_OK, "text only"});
  }
  Lists lists = differences(oldTree, newTree);
  GetStatusDifferences(oldTree, newTree, lists.globals, lists.named);
  const std::vector<std::string> order{"root", "a", "b", "c", "root", "a", "b", "c"};
  ASSERT_EQ(lists.globals.size(), order.size());
  ASSERT_EQ(lists.named.size(), order.size());
  auto global = lists.globals.begin();
  auto named = lists.named.begin();
  for (const auto& id : order) {
    EXPECT_EQ(*global++, std::make_pair(id, GlobalStatus(GlobalStatus::LEVEL_OK, "text only")));
    EXPECT_EQ(*named++, std::make_pair(id, newTree->getDeviceById(id)->getStatus("s")));
  }
}

TEST(StatusDifferences, AbsentTreesAndThingsOnOneSideOnlyAreNotListed) {
  const auto oldTree = sample();
  const auto newTree = std::make_shared<DeviceNode>(*oldTree);
  addStatus(*newTree, NamedStatus("r", NamedStatus::TYPE_INT, 1L));
  std::string error;
  oldTree->removeSubDevice("a", false, error);
  attach(*oldTree, node("d"));
  for (const auto& lists : {differences(oldTree, newTree), differences(newTree, oldTree),
                            differences(nullptr, newTree), differences(oldTree, nullptr)}) {
    EXPECT_TRUE(lists.globals.empty());
    EXPECT_TRUE(lists.named.empty());
  }
}

TEST(StatusDifferences, FollowADeviceThatMovedBelow) {
  const auto oldTree = node("root", {node("a")});
  const auto newTree = node("root", {node("b", {node("a")})});
  newTree->getDeviceById("a")->setGlobalStatus({GlobalStatus::LEVEL_ERROR, ""});
  EXPECT_EQ(differences(oldTree, newTree).globals.size(), 1U);
}

TEST(StatusDifferences, ValuesDifferAsTheTypeSays) {
  using Value = NamedStatus::Value;
  constexpr double NAN_VALUE = std::numeric_limits<double>::quiet_NaN();
  const auto listed = [](NamedStatus::Type type, const Value* oldValue, const Value* newValue) {
    const auto tree = [&](const Value* value) {
      const auto device = node("d");
      addStatus(*device, value ? NamedStatus("s", type, *value) : NamedStatus("s", type));
      return device;
    };
    return differences(tree(oldValue), tree(newValue)).named.size() == 1;
  };
  const Value zero(0L), five(5L), six(6L), text(std::string("t")), other(std::string("T"));
  const Value unsignedZero(0UL), positive(0.0), negative(-0.0), nan(NAN_VALUE);

  EXPECT_TRUE(listed(NamedStatus::TYPE_INT, &five, &six));
  EXPECT_FALSE(listed(NamedStatus::TYPE_INT, nullptr, &zero));
  EXPECT_TRUE(listed(NamedStatus::TYPE_INT, nullptr, &five));
  EXPECT_TRUE(listed(NamedStatus::TYPE_STRING, &text, &other));
  EXPECT_FALSE(listed(NamedStatus::TYPE_STRING, &text, &text));
  EXPECT_FALSE(listed(NamedStatus::TYPE_DOUBLE, &positive, &negative));
  EXPECT_TRUE(listed(NamedStatus::TYPE_DOUBLE, &nan, &nan));
  EXPECT_FALSE(listed(static_cast<NamedStatus::Type>(9), &five, &six));
  // Not both of the kind that belongs to the type:
  for (const auto type :
       {NamedStatus::TYPE_STRING, NamedStatus::TYPE_UINT, NamedStatus::TYPE_DOUBLE}) {
    EXPECT_FALSE(listed(type, nullptr, nullptr));
    EXPECT_FALSE(listed(type, &five, &five));
    EXPECT_TRUE(listed(type, &five, &six));
  }
  EXPECT_TRUE(listed(NamedStatus::TYPE_STRING, nullptr, &text));
  EXPECT_TRUE(listed(NamedStatus::TYPE_UINT, nullptr, &unsignedZero));
  EXPECT_TRUE(listed(NamedStatus::TYPE_INT, &nan, &nan));
}

TEST(StatusDifferences, RepeatedIdentifierIsListedOnceForEachSubDeviceThatCarriesIt) {
  const auto build = [](long value) {
    const auto root = node("root", {node("x")});
    attachLate(*root, "x", node(""));
    addStatus(*root->getDeviceById("x"), NamedStatus("s", NamedStatus::TYPE_INT, value));
    return root;
  };
  EXPECT_EQ(differences(build(1), build(2)).named.size(), 2U);
}

TEST(Comparison, IsWhatThePlainDefinitionSays) {
  int same = 0;
  int changed = 0;
  for (unsigned int seed = 0; seed < 4000; ++seed) {
    Random random(seed);
    const std::size_t size = 2 + random.below(12);
    const auto oldTree = random.tangledTree(size);
    NodePtr newTree = random.tangledTree(size);
    if (!random.oneIn(8)) {  // a copy with a few edits is closer to what happens
      newTree = std::make_shared<DeviceNode>(*oldTree);
      if (random.oneIn(3)) random.fileLate(newTree);
      std::string error;
      for (std::size_t edits = random.below(3); edits > 0; --edits) {
        const auto nodes = allNodes(newTree);
        const NodePtr at = random.pick(nodes);
        switch (random.below(5)) {
          case 0:
            at->getStatus("s")->setValue(static_cast<long>(random.below(9)));
            break;
          case 1:
            at->setGlobalStatus(random.health());
            break;
          case 2:
            at->setDeviceId(random.pick(nodes)->getDeviceId(), error);
            break;
          case 3:
            at->addSubDevice(random.tangledTree(3), true, error);
            break;
          default:
            at->removeSubDevice("", random.oneIn(2), error);
        }
      }
    }
    ASSERT_EQ(IsSameConfiguration(oldTree, newTree), plain::isSameConfiguration(oldTree, newTree))
        << seed << "\n"
        << oldTree->debugString() << newTree->debugString();
    const Lists lists = differences(oldTree, newTree);
    const Lists expected = plainDifferences(oldTree, newTree);
    ASSERT_EQ(lists.globals, expected.globals) << seed << "\n"
                                               << oldTree->debugString() << newTree->debugString();
    ASSERT_EQ(lists.named, expected.named) << seed << "\n"
                                           << oldTree->debugString() << newTree->debugString();
    same += IsSameConfiguration(oldTree, newTree) ? 1 : 0;
    changed += lists.named.empty() ? 0 : 1;
  }
  EXPECT_GT(same, 1000);
  EXPECT_GT(changed, 500);
}

}  // namespace
