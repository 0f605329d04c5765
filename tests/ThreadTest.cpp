// What may be done from several threads; the thread sanitizer is the judge.

#include <thread>

#include "device_tree/Utils.h"
#include "tests/Trees.h"

namespace {

using namespace trees;
namespace utils = orv::device_tree::utils;

constexpr int THREADS = 4;
constexpr std::size_t NODES = 400;

// Runs the operation with the numbers of all threads at once.
template <typename Operation>
void onAllThreads(Operation operation) {
  std::vector<std::thread> threads;
  for (int i = 0; i < THREADS; ++i) threads.emplace_back(operation, i);
  for (std::thread& thread : threads) thread.join();
}

TEST(Threads, WhatQueriesHandedOutIsReleasedAnywhere) {
  auto tree = Random(1).tree(NODES);
  const std::weak_ptr<DeviceNode> root = tree;
  std::vector<std::list<NodePtr>> nodes;
  std::vector<std::map<std::string, DeviceNode::Statuses>> statuses;
  for (int i = 0; i < THREADS; ++i) {
    nodes.push_back(tree->getSubDevicesByName("a", true));
    statuses.push_back(tree->getAllStatuses());
  }
  const auto held = nodes.front().front();
  const std::string before = held->debugString();
  // Meanwhile the owner prunes its tree and gives it up.
  std::thread owner([&tree] {
    std::string error;
    for (const auto& key : tree->getSubDeviceIds(false)) tree->removeSubDevice(key, true, error);
    tree.reset();
  });
  onAllThreads([&](int i) {
    nodes[static_cast<std::size_t>(i)].clear();
    statuses[static_cast<std::size_t>(i)].clear();
  });
  owner.join();
  EXPECT_TRUE(root.expired());
  EXPECT_EQ(held->debugString(), before);
}

TEST(Threads, ValuesAreReadByAll) {
  const GlobalStatus health(GlobalStatus::LEVEL_ERROR, "broken");
  const NamedStatus status("s", NamedStatus::TYPE_STRING, std::string("on"));
  const Property property("p", Property::TYPE_STRING, std::string("1"));
  onAllThreads([&](int) {
    EXPECT_EQ(health, GlobalStatus(health.toProtoBuf()));
    EXPECT_EQ(status, NamedStatus(status.toProtoBuf()));
    EXPECT_EQ(property.debugString(), Property(property.toProtoBuf()).debugString());
    EXPECT_EQ(health.debugString() + status.debugString(), "Error: brokens (string on)");
  });
}

TEST(Threads, TreesThatShareNothingAreIndependent) {
  const auto source = Random(2).tree(NODES);
  std::vector<NodePtr> copies;
  for (int i = 0; i < THREADS; ++i) copies.push_back(std::make_shared<DeviceNode>(*source));
  const auto message = source->toProtoBuf();
  onAllThreads([&](int i) {
    const auto live = std::move(copies[static_cast<std::size_t>(i)]);
    const auto snapshot = std::make_shared<DeviceNode>(message);
    live->setGlobalStatus({GlobalStatus::LEVEL_ERROR, std::to_string(i)});
    orv::proto::monitoring::DeviceToOrvServiceEvent event;
    ASSERT_TRUE(utils::EventHelper::ComputeEvent(snapshot, live, event));
    EXPECT_EQ(event.event_type(), event.STATUS_CHANGE);
    EXPECT_EQ(live->getTreeDeviceIds(), snapshot->getTreeDeviceIds());
  });
}

}  // namespace
