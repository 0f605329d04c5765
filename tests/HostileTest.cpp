// Trees made to exhaust the stack or the time, and one made to mislead the comparison.

#include <google/protobuf/arena.h>

#include "tests/Nodes.h"

namespace {

using namespace nodes;

std::string numbered(int number) { return std::to_string(10'000'000 + number); }

// How many changes of health the event holds, provided it says nothing else.
int countChanges(const NodePtr& oldTree, const NodePtr& newTree) {
  Event event;
  if (!EventHelper::ComputeEvent(oldTree, newTree, event)) return 0;
  EXPECT_EQ(event.event_type(), Event::STATUS_CHANGE);
  return event.GetExtension(proto::StatusChangeEvent::base).global_status_changes_size();
}

// Far more levels than a parser lets through. An arena frees the messages without recursion.
TEST(Hostile, ManyLevels) {
  constexpr int LEVELS = 200'000;
  google::protobuf::Arena arena;
  auto& message = *google::protobuf::Arena::CreateMessage<proto::DeviceNode>(&arena);
  auto& written = *google::protobuf::Arena::CreateMessage<proto::DeviceNode>(&arena);
  proto::DeviceNode* last = &message;
  for (int i = 0; i < LEVELS; ++i) {
    if (i > 0) last = last->add_sub_devices();
    last->set_id(numbered(i));
  }
  const auto live = std::make_shared<DeviceNode>(message);
  live->toProtoBuf(written);
  NodePtr kept = std::make_shared<DeviceNode>(DeviceNode(written));
  live->getDeviceById(numbered(LEVELS - 1))->setGlobalStatus({GlobalStatus::LEVEL_ERROR, ""});
  Event event;
  std::string error;
  EXPECT_TRUE(EventHelper::ComputeEvent(kept, live, event));
  EXPECT_TRUE(EventHelper::ApplyEvent(event, kept, error)) << error;
  EXPECT_EQ(countChanges(kept, live), 0);
  EXPECT_TRUE(kept->removeSubDevice(numbered(LEVELS / 2), true, error));
  std::list<ConfigurationDifference> differences;
  utils::GetConfigurationDifferences(live, kept, differences);
  EXPECT_EQ(differences.size(), 1U);

  // Below them a wide level, and each identifier above again in a device that another one replaces.
  for (int i = LEVELS; i > 0; --i) last->add_sub_devices()->set_id(numbered(LEVELS + i));
  auto& replaced = *last->add_sub_devices();
  for (int i = 0; i < LEVELS - 1; ++i) replaced.add_sub_devices()->set_id(numbered(i));
  last->add_sub_devices();
  EXPECT_EQ(DeviceNode(message).getTreeDeviceIds().size(), 2 * LEVELS + 1);
  replaced.add_sub_devices()->set_id(last->id());
  EXPECT_THROW(DeviceNode{message}, std::runtime_error);
}

TEST(Hostile, AnIdentifierFurtherDownIsNotThatOfASubDevice) {
  const auto rack = [](const std::string& last) {
    return node("rack", {node("a", {node("b"), node("c")}), node("b"), node(last)});
  };
  EXPECT_FALSE(utils::IsSameConfiguration(rack("c"), rack("d")));
}

// Every device has two sub-devices: the next tree, and one that carries the identifier of the next
// tree's first sub-device and so stands for that. Each pair is met as often as a Fibonacci number.
TEST(Hostile, RepeatedIdentifiersDoNotMultiplyTheComparison) {
  constexpr int LEVELS = 200;
  NodePtr tree = node(numbered(LEVELS));
  for (int i = LEVELS; i-- > 0;) tree = node(numbered(i), {tree, node(numbered(i + 2))});
  const auto edited = std::make_shared<DeviceNode>(*tree);
  edited->getDeviceById(numbered(2))->setGlobalStatus({GlobalStatus::LEVEL_ERROR, ""});
  EXPECT_EQ(countChanges(tree, edited), 2) << "itself, and where another one stands for it";
  // Listed, the changes of all devices would be as many as the pairs.
  for (const auto& id : edited->getTreeDeviceIds()) {
    edited->getDeviceById(id)->setGlobalStatus({GlobalStatus::LEVEL_ERROR, ""});
  }
  attach(*edited, node("last"));
  Event event;
  EXPECT_TRUE(EventHelper::ComputeEvent(tree, edited, event));
}

}  // namespace
