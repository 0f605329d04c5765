// What may be done from several threads; the thread sanitizer is the judge.

#include <thread>

#include "tests/Nodes.h"

namespace {

using namespace nodes;

TEST(Threads, ReleaseWhatQueriesHandedOutAndUseTreesOfTheirOwn) {
  auto tree = node("root", {node("a", {node("b"), node("c")}), node("d", {node("e")})});
  const proto::DeviceNode message = tree->toProtoBuf();
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    std::list<NodePtr> held;
    for (const auto& id : tree->getSubDeviceIds(true)) held.push_back(tree->getDeviceById(id));
    auto own = std::make_shared<DeviceNode>(*tree);
    threads.emplace_back([&message, own, held, statuses = tree->getAllStatuses()]() mutable {
      NodePtr snapshot = std::make_shared<DeviceNode>(message);
      own->setGlobalStatus({GlobalStatus::LEVEL_ERROR, held.back()->getName()});
      held.clear();
      statuses.clear();
      Event event;
      EXPECT_TRUE(EventHelper::ComputeEvent(snapshot, own, event));
    });
  }
  std::string error;
  EXPECT_TRUE(tree->removeSubDevice("a", false, error));
  tree.reset();
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
