// Trees and messages made to exhaust the stack, the memory or the time of whoever takes them over.
// What fails here does not fail an expectation: it crashes or never ends.

#include <pthread.h>

#include <cstring>

#include "device_tree/Utils.h"
#include "tests/Trees.h"

namespace {

using namespace trees;
namespace proto = orv::proto::monitoring;
using Event = proto::DeviceToOrvServiceEvent;
using orv::device_tree::utils::EventHelper;
using orv::device_tree::utils::IsSameConfiguration;

const GlobalStatus BROKEN(GlobalStatus::LEVEL_ERROR, "broken");

// Identifiers whose byte order is that of the numbers.
std::string numbered(int number) {
  const std::string digits = std::to_string(number);
  return std::string(8 - digits.size(), '0') + digits;
}

// The identifiers of the devices whose health changed, provided nothing else did.
std::vector<std::string> changes(const NodePtr& oldTree, const NodePtr& newTree) {
  std::vector<std::string> ids;
  Event event;
  if (!EventHelper::ComputeEvent(oldTree, newTree, event)) return ids;
  EXPECT_EQ(event.event_type(), Event::STATUS_CHANGE);
  const auto& listed = event.GetExtension(proto::StatusChangeEvent::base);
  EXPECT_EQ(listed.named_status_changes_size(), 0);
  for (const auto& change : listed.global_status_changes()) ids.push_back(change.device_id());
  return ids;
}

using Ids = std::vector<std::string>;

TEST(Hostile, MessageOfManySubDevices) {
  constexpr int COUNT = 200'000;
  proto::DeviceNode message;
  message.set_id("root");
  for (int i = COUNT; i > 0; --i) message.add_sub_devices()->set_id(numbered(i));
  const auto tree = std::make_shared<DeviceNode>(message);
  const auto edited = std::make_shared<DeviceNode>(tree->toProtoBuf());
  EXPECT_EQ(edited->getSubDevices().size(), COUNT);
  edited->getDeviceById(numbered(COUNT))->setGlobalStatus(BROKEN);
  EXPECT_EQ(changes(tree, edited), Ids{numbered(COUNT)});
}

TEST(Hostile, PropertyOf100Megabytes) {
  proto::DeviceNode message;
  auto& property = *message.add_properties();
  property.set_name("p");
  property.mutable_value()->assign(100'000'000, '\xff');
  const auto tree = std::make_shared<DeviceNode>(message);
  const auto copy = std::make_shared<DeviceNode>(*tree);
  EXPECT_TRUE(IsSameConfiguration(tree, copy));
  boost::get<std::string>(copy->getProperties().at("p")->value).back() = '\0';
  EXPECT_FALSE(IsSameConfiguration(tree, copy));
  EXPECT_EQ(tree->toProtoBuf().properties(0).value(), property.value());
}

// Runs the operation on a stack that has no room for thousands of nested calls.
template <typename Operation>
void onASmallStack(Operation operation) {
  const auto run = [](void* argument) -> void* {
    (*static_cast<Operation*>(argument))();
    return nullptr;
  };
  pthread_attr_t attributes;
  pthread_t thread{};
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, std::size_t{256} * 1024);
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &operation), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// Far more levels than a parser lets through.
TEST(Hostile, MessageOfManyLevels) {
  constexpr int LEVELS = 2'000;
  proto::DeviceNode message;
  proto::DeviceNode* level = &message;
  for (int i = 0; i < LEVELS; ++i) {
    if (i > 0) level = level->add_sub_devices();
    level->set_id(numbered(i));
  }
  proto::DeviceNode written;
  onASmallStack([&] {
    const auto tree = std::make_shared<DeviceNode>(message);
    EXPECT_EQ(tree->getTreeDeviceIds().size(), LEVELS);
    tree->toProtoBuf(written);
    const auto read = std::make_shared<DeviceNode>(written);
    read->getDeviceById(numbered(LEVELS - 1))->setGlobalStatus(BROKEN);
    EXPECT_EQ(changes(tree, read), Ids{numbered(LEVELS - 1)});

    level->add_sub_devices()->set_id(numbered(0));
    EXPECT_THROW(DeviceNode{message}, std::runtime_error);
  });
}

// Built from the top down, so that no attachment looks at more than the new leaf.
TEST(Hostile, ChainOfAMillionLevels) {
  constexpr int LEVELS = 1'000'000;
  const auto chain = std::make_shared<DeviceNode>(numbered(0), "", UNKNOWN);
  NodePtr last = chain;
  std::string error;
  for (int i = 1; i < LEVELS; ++i) {
    const auto leaf = std::make_shared<DeviceNode>(numbered(i), "", UNKNOWN);
    ASSERT_TRUE(last->addSubDevice(leaf, false, error));
    last = leaf;
  }
  const auto copy = std::make_shared<DeviceNode>(*chain);
  copy->getDeviceById(numbered(LEVELS - 1))->setGlobalStatus(BROKEN);
  EXPECT_EQ(changes(chain, copy), Ids{numbered(LEVELS - 1)});

  const auto middle = copy->getDeviceById(numbered(LEVELS / 2));
  EXPECT_TRUE(copy->removeSubDevice(numbered(LEVELS / 2), true, error));
  EXPECT_FALSE(IsSameConfiguration(chain, copy));
  EXPECT_EQ(copy->getTreeDeviceIds().size(), LEVELS / 2);
  EXPECT_TRUE(middle->removeSubDevice(numbered(LEVELS - 1), true, error));
  EXPECT_EQ(middle->getTreeDeviceIds().size(), LEVELS / 2 - 1);
}

// Every device has two sub-devices: the next tree, and one that carries the identifier of the next
// tree's first sub-device and so stands for that. Each pair is met as often as a Fibonacci number.
TEST(Hostile, RepeatedIdentifiersDoNotMultiplyTheComparison) {
  constexpr int LEVELS = 200;
  NodePtr tree = node(numbered(LEVELS));
  for (int i = LEVELS - 1; i >= 0; --i) {
    tree = node(numbered(i), {tree, node(numbered(i + 2))});
  }
  attach(*tree, node("last"));
  const auto edited = std::make_shared<DeviceNode>(*tree);
  EXPECT_EQ(changes(tree, edited), Ids{});
  edited->setGlobalStatus(BROKEN);
  EXPECT_EQ(changes(tree, edited), Ids{numbered(0)});

  // Listed, the changes of all devices would be as many as the pairs.
  for (const auto& device : allNodes(edited)) device->setGlobalStatus(BROKEN);
  edited->getDeviceById("last")->setName("another");
  EXPECT_FALSE(IsSameConfiguration(tree, edited));
  Event event;
  EXPECT_TRUE(EventHelper::ComputeEvent(tree, edited, event));
  EXPECT_EQ(event.event_type(), Event::CONFIGURATION_CHANGE);
}

TEST(Hostile, WideTreeWhoseIdentifiersAllRepeatBelow) {
  constexpr int COUNT = 20'000;
  const auto wide = [](const std::string& id) {
    const auto root = node(id);
    for (int i = 0; i < COUNT; ++i) attach(*root, node(numbered(i)));
    return root;
  };
  const auto tree = wide("root");
  attach(*tree, wide("!"));  // the first sub-device
  const auto edited = std::make_shared<DeviceNode>(*tree);
  EXPECT_EQ(changes(tree, edited), Ids{});
  edited->getSubDevices().at(numbered(7))->setGlobalStatus(BROKEN);  // stands for the one below "!"
  EXPECT_EQ(changes(tree, edited), Ids{});
  edited->getDeviceById(numbered(5))->setGlobalStatus(BROKEN);
  EXPECT_EQ(changes(tree, edited), (Ids{numbered(5), numbered(5)}));
}

// A string of two 8-byte blocks, the second chosen so that the GNU library's hash of the string is
// the same for every number.
std::string colliding(std::uint64_t number) {
  constexpr std::uint64_t FACTOR = 0xc6a4a7935bd1e995;
  const auto mixed = [](std::uint64_t block) {
    block *= FACTOR;
    return (block ^ block >> 47) * FACTOR;
  };
  std::uint64_t inverse = FACTOR;
  while (inverse * FACTOR != 1) inverse *= 2 - inverse * FACTOR;
  std::uint64_t second = (((0xc70f6907 ^ 16 * FACTOR) ^ mixed(number)) * FACTOR) * inverse;
  second = (second ^ second >> 47) * inverse;
  std::string text(16, ' ');
  std::memcpy(text.data(), &number, 8);
  std::memcpy(text.data() + 8, &second, 8);
  return text;
}

TEST(Hostile, IdentifiersOfOneHashValue) {
  if (std::hash<std::string>()(colliding(1)) != std::hash<std::string>()(colliding(2))) {
    GTEST_SKIP() << "another hash function";
  }
  const auto tree = node("root", {node("a"), node("z")});
  for (std::uint64_t i = 0; i < 5'000; ++i) {
    attach(*tree->getSubDevices().at("a"), node(colliding(2 * i)));
    attach(*tree->getSubDevices().at("z"), node(colliding(2 * i + 1)));
  }
  const auto edited = std::make_shared<DeviceNode>(*tree);
  edited->getDeviceById(colliding(4'321))->setGlobalStatus(BROKEN);
  EXPECT_EQ(changes(tree, edited), Ids{colliding(4'321)});
  edited->getDeviceById(colliding(9'876))->setName("another");
  EXPECT_FALSE(IsSameConfiguration(tree, edited));
}

}  // namespace
