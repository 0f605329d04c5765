#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>

#include "reporting/Snapshot.h"
#include "tests/Nodes.h"

namespace {

using namespace nodes;
using orv::reporting::Snapshot;

std::string bytesOf(const NodePtr& tree) { return tree->toProtoBuf().SerializeAsString(); }

// A tree that changes in every way that a comparison can meet.
class LiveTree {
 public:
  explicit LiveTree(unsigned int seed) : random_(seed), root(node("0")) { nodes_ = {root}; }

  void change() {
    const NodePtr device = nodes_.at(pick(nodes_.size()));
    const std::string text = std::to_string(pick(3));
    const std::array<NamedStatus::Value, 6> values = {long(pick(2)), 5UL, 0.5 * pick(2),
                                                      -0.0,          NAN, text};
    const auto type = static_cast<NamedStatus::Type>(pick(4));
    const auto status = device->getStatus(text);
    const auto property = device->getProperties().find(text);
    switch (const unsigned int kind = pick(40); kind) {
      case 0:
        nodes_.push_back(node(pick(9) == 0 ? text : std::to_string(nodes_.size())));
        if (device->addSubDevice(nodes_.back(), false, error_)) return;
        return nodes_.pop_back();
      case 1:
        return void(device->addStatus(NamedStatus(text, type), error_));
      case 2:
        return void(device->addProperty(Property(text, Property::TYPE_STRING, text), error_));
      case 3:
        if (property != device->getProperties().end())
          property->second->value = std::to_string(kind);
        return;
      case 4:
        return device->setName(text);
      case 5:
        return device->setDeviceClass(static_cast<DeviceNode::DeviceClass>(pick(3)));
      case 6:
        return rebuildLast(*device, type);
      case 7:
        return lowerLast(*device);
      default:
        if (kind < 15) return device->setGlobalStatus({GlobalStatus::Level(pick(4)), text});
        if (status) status->setValue(values.at(pick(6)));
        if (status && kind == 15) status->unsetValue();
    }
  }

  unsigned int pick(std::size_t count) { return static_cast<unsigned int>(random_() % count); }

 private:
  // Another device takes its place, with statuses of another type.
  void rebuildLast(DeviceNode& device, NamedStatus::Type type) {
    if (device.getSubDevices().empty()) return;
    const NodePtr last = device.getSubDevices().rbegin()->second;
    nodes_.push_back(
        std::make_shared<DeviceNode>(last->getDeviceId(), last->getName(), last->getDeviceClass()));
    for (const auto& [name, status] : last->getStatuses()) {
      nodes_.back()->addStatus(NamedStatus(name, type), error_);
    }
    device.addSubDevice(nodes_.back(), true, error_);
  }

  // It comes below the one before, in the same place of the walk.
  void lowerLast(DeviceNode& device) {
    if (device.getSubDevices().size() < 2) return;
    const auto last = std::prev(device.getSubDevices().end());
    const NodePtr moved = last->second;
    if (!std::prev(last)->second->addSubDevice(moved, false, error_)) return;
    device.removeSubDevice(moved->getDeviceId(), false, error_);
  }

  std::mt19937 random_;
  std::vector<NodePtr> nodes_;
  std::string error_;

 public:
  const NodePtr root;
};

// Beside it, a tree goes on as a receiver's does.
TEST(Snapshot, SaysAndBecomesWhatATreeDoes) {
  std::size_t inStep = 0;
  for (unsigned int seed = 0; seed < 300; ++seed) {
    LiveTree live(seed);
    NodePtr tree;
    std::optional<Snapshot> snapshot;
    for (int round = 0; round < 200; ++round) {
      for (unsigned int i = live.pick(4); i > 0; --i) live.change();
      Event expected;
      std::string refusal;
      EventHelper::ComputeEvent(tree, live.root, expected);
      Event event;
      const bool isInStep = snapshot && snapshot->isInStep(*live.root, event);
      if (isInStep) {
        ++inStep;
        ASSERT_EQ(event.SerializeAsString(), expected.SerializeAsString()) << seed;
      }
      const bool isNew = expected.has_event_type() && expected.event_type() != Event::STATUS_CHANGE;
      ASSERT_FALSE(isInStep && isNew) << seed;
      if (!EventHelper::ApplyEvent(expected, tree, refusal) && expected.has_event_type()) {
        tree.reset();
        snapshot.reset();
      } else if (isNew) {
        snapshot.emplace(std::make_shared<DeviceNode>(*tree));
      } else if (expected.has_event_type()) {
        if (!isInStep) snapshot->tree();
        ASSERT_TRUE(snapshot->apply(expected)) << seed;
      }
      if (!snapshot) continue;
      ASSERT_EQ(bytesOf(snapshot->build()), bytesOf(tree)) << seed;
    }
  }
  EXPECT_GT(inStep, 40'000U) << "rows serve nearly always";
}

}  // namespace
