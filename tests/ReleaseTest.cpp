// What user code that runs while nodes are released may do.

#include <functional>
#include <new>

#include "tests/Nodes.h"

namespace {

using namespace nodes;

int alive = 0;

NodePtr noticed(const std::string& id, const std::function<void()>& code) {
  ++alive;
  return {new DeviceNode(id, "", DeviceNode::DeviceClass{}), [=](DeviceNode* device) {
            delete device;
            --alive;
            code();
          }};
}

TEST(Release, MayEditTheMapThatTheNodeIsTakenFrom) {
  const auto root = node("root");
  std::string error;
  const auto remove = [&](const char* id) { return root->removeSubDevice(id, true, error); };
  attach(*root, noticed("a", [&] { attach(*root, node("a")); }));
  EXPECT_TRUE(remove("a")) << "an only child";
  EXPECT_EQ(root->getSubDevices().size(), 1U);
  attach(*root, node("b", {noticed("c", [&] { remove("a"); })}));
  EXPECT_TRUE(remove("c"));
  EXPECT_EQ(root->getTreeDeviceIds(), (std::list<std::string>{"root", "b"}));
  attach(*root, noticed("d", [&] { remove("d"); }));
  EXPECT_TRUE(root->addSubDevice(node("d"), true, error));
  EXPECT_EQ(root->getSubDevices().count("d"), 0U) << "the new one, by the old one's release";
}

// A new node may lie where the one at hand lay until its deleter freed it.
TEST(Release, OfANodeAtTheSameAddressIsItsOwn) {
  static std::aligned_storage_t<sizeof(DeviceNode), alignof(DeviceNode)> place;
  const auto nothing = [] { EXPECT_EQ(alive, 0) << "a sub-device is released with its parent"; };
  const auto deleter = [=](DeviceNode* device) {
    device->~DeviceNode();
    auto* const again = new (&place) DeviceNode;
    attach(*again, noticed("below", [=] {
      auto scratch = node("scratch", {noticed("below", nothing)});
      scratch.reset();
      nothing();
    }));
    again->~DeviceNode();
    nothing();
  };
  for (const auto& below : {node("below"), NodePtr()}) {
    NodePtr first(new (&place) DeviceNode, deleter);
    if (below) attach(*first, node("below"));
    auto root = node("root", {std::move(first)});
    root.reset();
  }
}

}  // namespace
