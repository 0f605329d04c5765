// What is promised when memory runs out. The global allocation functions are replaced here, so this
// test is an executable of its own.

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "device_tree/Utils.h"
#include "tests/Trees.h"

namespace {

using namespace trees;

long liveAllocations = 0;
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
  }
  allocationsLeft = -1;
  return ranOut;
}

// Runs the operation with one more allocation each time until it succeeds; it leaks nothing on the
// way. Returns how often it failed.
template <typename Operation>
long failures(Operation operation) {
  for (long allocations = 0;; ++allocations) {
    const long before = liveAllocations;
    const bool ranOut = runsOut(allocations, operation);
    EXPECT_EQ(liveAllocations, before) << "after " << allocations << " allocations";
    if (!ranOut) return allocations;
  }
}

const std::string LONG_TEXT(100, 'x');  // takes memory of its own

NodePtr sample() {
  const auto tree = Random(1).tree(12);
  for (const auto& device : allNodes(tree)) {
    device->setName(LONG_TEXT);
    device->setGlobalStatus({GlobalStatus::LEVEL_WARNING, LONG_TEXT});
    addProperty(*device, LONG_TEXT, LONG_TEXT);
    addStatus(*device, NamedStatus(LONG_TEXT, NamedStatus::TYPE_STRING, LONG_TEXT));
  }
  return tree;
}

TEST(Allocation, FailedCopyLeaksNothingAndLeavesTheSource) {
  const auto source = sample();
  const std::string before = source->debugString();
  EXPECT_GT(failures([&] { const DeviceNode copy(*source); }), 100);
  EXPECT_EQ(source->debugString(), before);
}

TEST(Allocation, FailedConstructionLeaksNothingAndLeavesTheMessage) {
  auto message = sample()->toProtoBuf();
  *message.add_sub_devices() = message.sub_devices(0);  // takes the place of the first
  const std::string before = message.SerializeAsString();
  EXPECT_GT(failures([&] { const DeviceNode built(message); }), 100);
  EXPECT_EQ(message.SerializeAsString(), before);
}

TEST(Allocation, FailureToRefuseAMessageIsReportedAsSuch) {
  auto message = sample()->toProtoBuf();
  auto& last = *message.mutable_sub_devices(message.sub_devices_size() - 1);
  *last.add_statuses() = last.statuses(0);
  bool refused = false;
  const auto construct = [&] {
    try {
      const DeviceNode built(message);
    } catch (const std::runtime_error&) {
      refused = true;
    }
  };
  EXPECT_GT(failures(construct), 10);
  EXPECT_TRUE(refused);
}

TEST(Allocation, DestructionNeedsNone) {
  auto tree = sample();
  EXPECT_FALSE(runsOut(0, [&] { tree.reset(); }));
}

TEST(Allocation, FailedValueLeavesTheStatusUsable) {
  const NamedStatus::Value longValue = LONG_TEXT;
  NamedStatus text("s", NamedStatus::TYPE_STRING, std::string("short"));
  EXPECT_TRUE(runsOut(0, [&] { text.setValue(longValue); }));
  EXPECT_EQ(text.debugString(), "s (string short)");

  NamedStatus unset("s", NamedStatus::TYPE_STRING);
  EXPECT_TRUE(runsOut(0, [&] { unset.setValue(longValue); }));
  EXPECT_FALSE(unset.isValueSet());
  NamedStatus number("s", NamedStatus::TYPE_STRING, 5L);
  EXPECT_TRUE(runsOut(0, [&] { number.setValue(longValue); }));
  EXPECT_TRUE(number.isValueSet());
  for (NamedStatus* status : {&unset, &number}) {
    status->setValue(longValue);
    EXPECT_EQ(status->debugString(), "s (string " + LONG_TEXT + ")");
  }
}

TEST(Allocation, ComparisonTakesSixteenBytesADeviceAndGivesThemBack) {
  constexpr std::size_t DEVICES = 20000;
  const auto root = node("root");
  for (std::size_t i = 1; i < DEVICES; ++i) attach(*root, node("d" + std::to_string(i)));
  const auto copy = std::make_shared<DeviceNode>(*root);
  orv::proto::monitoring::DeviceToOrvServiceEvent event;
  const std::size_t before = mostBytes = liveBytes;
  EXPECT_FALSE(orv::device_tree::utils::EventHelper::ComputeEvent(root, copy, event));
  EXPECT_LT(mostBytes - before, 16 * DEVICES);
  EXPECT_EQ(liveBytes, before);

  attach(*copy, node("a"));  // sorts before all others
  mostBytes = liveBytes;
  EXPECT_FALSE(orv::device_tree::utils::IsSameConfiguration(root, copy));
  EXPECT_LT(mostBytes - liveBytes, DEVICES) << "no index for a wrong number of sub-devices";
}

void giveBack(void* memory) {
  if (memory == nullptr) return;
  --liveAllocations;
  liveBytes -= malloc_usable_size(memory);
  std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
  if (allocationsLeft == 0) throw std::bad_alloc();
  if (allocationsLeft > 0) --allocationsLeft;
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  ++liveAllocations;
  liveBytes += malloc_usable_size(memory);
  mostBytes = std::max(mostBytes, liveBytes);
  return memory;
}

void operator delete(void* memory) noexcept { giveBack(memory); }
void operator delete(void* memory, std::size_t) noexcept { giveBack(memory); }
