// Memory runs out. The global allocation functions are replaced, so this is a program of its own.

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "tests/Nodes.h"

namespace {

using namespace nodes;

std::size_t liveBytes = 0;
std::size_t mostBytes = 0;
long allocationsLeft = -1;  // until every further one fails; negative: none does

// Runs the operation with one more allocation each time until it ends otherwise than by a lack of
// memory; it leaks nothing and changes nothing on the way. How many allocations it takes.
template <typename Operation, typename State>
long allocationsOf(Operation operation, State state) {
  const auto before = state();
  for (long allocations = 0;; ++allocations) {
    const std::size_t bytes = liveBytes;
    bool ranOut = false;
    allocationsLeft = allocations;
    try {
      operation();
    } catch (const std::exception& error) {
      ranOut = dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
    }
    allocationsLeft = -1;
    if (!ranOut) return allocations;
    EXPECT_EQ(liveBytes, bytes) << "after " << allocations << " allocations";
    EXPECT_EQ(state(), before);
  }
}

const std::string LONG_TEXT(100, 'x');  // takes memory of its own

TEST(Allocation, FailureLeaksNothingAndChangesNothing) {
  proto::DeviceNode message;
  for (auto* device : {&message, message.add_sub_devices(), message.add_sub_devices()}) {
    device->set_id(LONG_TEXT + (device == &message ? "" : "below"));  // the last takes the place
    device->mutable_global_status()->set_message(LONG_TEXT);
    device->add_properties()->set_value(LONG_TEXT);
    device->add_statuses()->set_string_value(LONG_TEXT);
  }
  const DeviceNode source(message);
  EXPECT_GT(allocationsOf([&] { const auto copy = std::make_shared<DeviceNode>(source); },
                          [&] { return source.debugString(); }),
            9);
  const auto build = [&] { const DeviceNode built(message); };
  const auto text = [&] { return message.SerializeAsString(); };
  EXPECT_GT(allocationsOf(build, text), 9);

  const auto live = std::make_shared<DeviceNode>(message);
  for (const auto& id : live->getTreeDeviceIds()) {
    live->getDeviceById(id)->setGlobalStatus({GlobalStatus::LEVEL_ERROR, "now " + LONG_TEXT});
    live->getDeviceById(id)->getStatus("")->setValue("now " + LONG_TEXT);
  }
  for (NodePtr tree : {NodePtr(), std::make_shared<DeviceNode>(message)}) {
    Event event;
    std::string error;
    ASSERT_TRUE(EventHelper::ComputeEvent(tree, live, event));
    const auto shown = [&] { return tree ? tree->debugString() : ""; };
    EXPECT_GT(allocationsOf([&] { EventHelper::ApplyEvent(event, tree, error); }, shown), 9);
    EXPECT_EQ(tree->debugString(), live->debugString());
    EXPECT_EQ(allocationsOf([&] { tree.reset(); }, shown), 0) << "destruction needs none";
  }
  std::list<ConfigurationDifference> differences;
  const NodePtr other = node("other");
  EXPECT_GT(allocationsOf([&] { utils::GetConfigurationDifferences(live, other, differences); },
                          [&] { return differences.size(); }),
            0);
  message.mutable_sub_devices(1)->add_statuses();  // is refused
  EXPECT_GT(allocationsOf(build, text), 9);
  NamedStatus status("s", NamedStatus::TYPE_STRING);
  const NamedStatus::Value value = LONG_TEXT;
  EXPECT_GT(allocationsOf([&] { status.setValue(value); }, [&] { return status.debugString(); }),
            0);
}

TEST(Allocation, ComparisonTakesSixteenBytesADeviceAndGivesThemBack) {
  constexpr std::size_t DEVICES = 20'000;
  const auto root = node("root");
  for (std::size_t i = 1; i < DEVICES; ++i) attach(*root, node("d" + std::to_string(i)));
  const auto copy = std::make_shared<DeviceNode>(*root);
  const std::size_t before = mostBytes = liveBytes;
  EXPECT_TRUE(utils::IsSameConfiguration(root, copy));
  EXPECT_LT(mostBytes - before, 16 * DEVICES);
  EXPECT_EQ(liveBytes, before);
}

void giveBack(void* memory) {
  liveBytes -= malloc_usable_size(memory);
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (allocationsLeft == 0) throw std::bad_alloc();
  if (allocationsLeft > 0) --allocationsLeft;
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  liveBytes += malloc_usable_size(memory);
  mostBytes = std::max(mostBytes, liveBytes);
  return memory;
}

void operator delete(void* memory) noexcept { giveBack(memory); }
void operator delete(void* memory, std::size_t) noexcept { giveBack(memory); }
