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

// Runs the operation with so many allocations; whether it threw std::bad_alloc.
template <typename Operation>
bool runsOut(long allocations, Operation operation) {
  bool ranOut = false;
  allocationsLeft = allocations;
  try {
    operation();
  } catch (const std::bad_alloc&) {
    ranOut = true;
  } catch (const std::runtime_error&) {
  }
  allocationsLeft = -1;
  return ranOut;
}

// Runs the operation with one more allocation each time until it succeeds; it leaks nothing and
// changes nothing on the way.
template <typename Operation, typename State>
void expectAllOrNothing(Operation operation, State state) {
  const auto before = state();
  for (long allocations = 0;; ++allocations) {
    const std::size_t bytes = liveBytes;
    if (!runsOut(allocations, operation)) {
      EXPECT_GT(allocations, 0);
      return;
    }
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
  expectAllOrNothing([&] { const auto copy = std::make_shared<DeviceNode>(source); },
                     [&] { return source.debugString(); });
  const auto build = [&] { const DeviceNode built(message); };
  const auto text = [&] { return message.SerializeAsString(); };
  expectAllOrNothing(build, text);

  const auto live = std::make_shared<DeviceNode>(message);
  for (const auto& id : live->getTreeDeviceIds()) {
    live->getDeviceById(id)->setGlobalStatus({GlobalStatus::LEVEL_ERROR, "now " + LONG_TEXT});
    live->getDeviceById(id)->getStatus("")->setValue("now " + LONG_TEXT);
  }
  for (NodePtr tree : {NodePtr(), std::make_shared<DeviceNode>(message)}) {
    Event event;
    std::string error;
    ASSERT_TRUE(EventHelper::ComputeEvent(tree, live, event));
    expectAllOrNothing([&] { EventHelper::ApplyEvent(event, tree, error); },
                       [&] { return tree ? tree->debugString() : ""; });
    EXPECT_EQ(tree->debugString(), live->debugString());
    EXPECT_FALSE(runsOut(0, [&] { tree.reset(); })) << "destruction needs none";
  }
  message.mutable_sub_devices(1)->add_statuses();  // is refused
  expectAllOrNothing(build, text);
  NamedStatus status("s", NamedStatus::TYPE_STRING);
  const NamedStatus::Value value = LONG_TEXT;
  expectAllOrNothing([&] { status.setValue(value); }, [&] { return status.debugString(); });
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
  attach(*copy, node("a"));  // sorts before all others
  mostBytes = liveBytes;
  EXPECT_FALSE(utils::IsSameConfiguration(root, copy));
  EXPECT_LT(mostBytes - liveBytes, DEVICES) << "no index for a wrong number of sub-devices";
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
