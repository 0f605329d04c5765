#include "device_tree/Utils.h"
#include "tests/PlainDefinition.h"
#include "tests/Trees.h"

namespace {

using namespace trees;
namespace proto = orv::proto::monitoring;
using Event = proto::DeviceToOrvServiceEvent;
using orv::device_tree::utils::EventHelper;

/// An event that has been used before, so that every test sees it cleared.
Event usedEvent() {
  Event event;
  EXPECT_TRUE(EventHelper::ComputeEvent(node("old", {node("before")}), nullptr, event));
  EXPECT_TRUE(EventHelper::ComputeEvent(nullptr, node("old", {node("before")}), event));
  return event;
}

bool isEmpty(const Event& event) { return event.ByteSizeLong() == 0; }

int extensions(const Event& event) {
  return event.HasExtension(proto::DeviceAddEvent::base) +
         event.HasExtension(proto::DeviceRemoveEvent::base) +
         event.HasExtension(proto::ConfigurationChangeEvent::base) +
         event.HasExtension(proto::StatusChangeEvent::base);
}

TEST(Event, NothingBetweenAbsentTrees) {
  Event event = usedEvent();
  EXPECT_FALSE(EventHelper::ComputeEvent(nullptr, nullptr, event));
  EXPECT_TRUE(isEmpty(event));
}

TEST(Event, AddedTreeIsSentWhole) {
  Event event = usedEvent();
  const auto tree = Random(1).tree(20);
  ASSERT_TRUE(EventHelper::ComputeEvent(nullptr, tree, event));
  EXPECT_EQ(event.event_type(), Event::DEVICE_ADD);
  EXPECT_EQ(extensions(event), 1);
  EXPECT_EQ(event.GetExtension(proto::DeviceAddEvent::base).device().SerializeAsString(),
            tree->toProtoBuf().SerializeAsString());
}

TEST(Event, RemovedTreeIsNamedByItsRoot) {
  Event event = usedEvent();
  ASSERT_TRUE(EventHelper::ComputeEvent(node("root", {node("a")}), nullptr, event));
  EXPECT_EQ(event.ShortDebugString(),
            "event_type: DEVICE_REMOVE "
            "[orv.proto.monitoring.DeviceRemoveEvent.base] { device_id: \"root\" }");
}

TEST(Event, NothingForACopyOrAChangeOfClass) {
  for (unsigned int seed = 0; seed < 50; ++seed) {
    const auto tree = Random(seed).tree(30);
    const auto snapshot = std::make_shared<DeviceNode>(*tree);
    allNodes(tree).back()->setDeviceClass(static_cast<DeviceNode::DeviceClass>(99));
    Event event = usedEvent();
    EXPECT_FALSE(EventHelper::ComputeEvent(snapshot, tree, event));
    EXPECT_TRUE(isEmpty(event));
  }
}

TEST(Event, StatusEditsAreNamedExactly) {
  for (unsigned int seed = 0; seed < 100; ++seed) {
    Random random(seed);
    const auto tree = random.tree(30);
    for (const auto& device : allNodes(tree)) {
      addStatus(*device, NamedStatus("u", NamedStatus::TYPE_UINT, 0UL));
    }
    const auto snapshot = std::make_shared<DeviceNode>(*tree);
    std::map<std::string, proto::NamedStatus> named;
    std::map<std::string, proto::GlobalStatus> global;
    for (std::size_t edits = 1 + random.below(5); edits > 0; --edits) {
      const auto device = random.pick(allNodes(tree));
      if (random.oneIn(2)) {
        device->setGlobalStatus({GlobalStatus::LEVEL_ERROR, "edit " + std::to_string(edits)});
        global[device->getDeviceId()] = device->getGlobalStatus().toProtoBuf();
      } else {
        device->getStatus("u")->setValue(static_cast<unsigned long>(edits));
        named[device->getDeviceId()] = device->getStatus("u")->toProtoBuf();
      }
    }
    Event event = usedEvent();
    ASSERT_TRUE(EventHelper::ComputeEvent(snapshot, tree, event));
    EXPECT_EQ(event.event_type(), Event::STATUS_CHANGE);
    EXPECT_EQ(extensions(event), 1);
    const auto& changes = event.GetExtension(proto::StatusChangeEvent::base);
    ASSERT_EQ(changes.named_status_changes_size(), static_cast<int>(named.size()));
    ASSERT_EQ(changes.global_status_changes_size(), static_cast<int>(global.size()));
    for (const auto& change : changes.named_status_changes()) {
      EXPECT_EQ(change.status().ShortDebugString(), named[change.device_id()].ShortDebugString());
    }
    for (const auto& change : changes.global_status_changes()) {
      EXPECT_EQ(change.status().ShortDebugString(), global[change.device_id()].ShortDebugString());
    }
  }
}

TEST(Event, ConfigurationEditSendsTheWholeTreeAndHidesStatusChanges) {
  for (unsigned int seed = 0; seed < 50; ++seed) {
    Random random(seed);
    const auto tree = random.tree(30);
    const auto snapshot = std::make_shared<DeviceNode>(*tree);
    const auto device = random.pick(allNodes(tree));
    device->setGlobalStatus({GlobalStatus::LEVEL_ERROR, "hidden"});
    switch (seed % 3) {
      case 0:
        addProperty(*device, "added", "1");
        break;
      case 1:
        device->setName("renamed");
        break;
      default:
        attach(*device, random.device("added"));
    }
    Event event = usedEvent();
    ASSERT_TRUE(EventHelper::ComputeEvent(snapshot, tree, event));
    EXPECT_EQ(event.event_type(), Event::CONFIGURATION_CHANGE);
    EXPECT_EQ(extensions(event), 1);
    EXPECT_EQ(
        event.GetExtension(proto::ConfigurationChangeEvent::base).device().SerializeAsString(),
        tree->toProtoBuf().SerializeAsString());
  }
}

TEST(Event, NewIdentifierOfTheRootIsAChangeOfConfiguration) {
  Event event = usedEvent();
  ASSERT_TRUE(EventHelper::ComputeEvent(node("a"), node("b"), event));
  EXPECT_EQ(event.event_type(), Event::CONFIGURATION_CHANGE);
}

TEST(Event, AgreesWithThePlainDefinitionWhereIdentifiersRepeat) {
  for (unsigned int seed = 0; seed < 1000; ++seed) {
    Random random(seed);
    const auto oldTree = random.tangledTree(10);
    const auto newTree = std::make_shared<DeviceNode>(*oldTree);
    const auto nodes = allNodes(newTree);
    random.pick(nodes)->getStatus("s")->setValue(7L);
    random.pick(nodes)->setGlobalStatus({GlobalStatus::LEVEL_ERROR, "7"});
    plain::GlobalChanges globals;
    plain::NamedChanges named;
    plain::getStatusDifferences(oldTree, newTree, globals, named);
    Event event = usedEvent();
    ASSERT_EQ(EventHelper::ComputeEvent(oldTree, newTree, event),
              !globals.empty() || !named.empty());
    EXPECT_EQ(event.GetExtension(proto::StatusChangeEvent::base).SerializeAsString(),
              plain::statusChangeEvent(globals, named).SerializeAsString());
  }
}

}  // namespace
