// What the program of the README does not reach: a derived class, casts and exceptions across the
// boundary, an unknown device class, comparisons of properties that C++20 also tries the other way.
#undef NDEBUG
#include <boost/variant/get.hpp>
#include <cassert>
#include <stdexcept>

#include "device_tree/Utils.h"

using namespace orv::device_tree;

struct Rack : DeviceNode {
  using DeviceNode::DeviceNode;
  std::string debugString(unsigned int) const noexcept override { return "rack\n"; }
};

template <typename Exception, typename Operation>
bool throws(Operation operation) try {
  operation();
  return false;
} catch (const Exception&) {
  return true;
}

Property model(const char* value) { return {"model", Property::TYPE_STRING, value}; }

int main() {
  Property one = model("X200");
  Property same = one;
  const Property other = model("X300");
  assert(one == same && !(one != same) && one != other && !(one == other));
  assert(one == model("X200") && model("X200") == one && model("X200") == model("X200"));
  assert(one != model("X300") && model("X300") != one && model("X200") != model("X300"));
  assert(model("X300") == other && model("X200") != other);

  const auto newer = static_cast<DeviceNode::DeviceClass>(99);
  const auto rack = std::make_shared<Rack>("r1", "Rack", newer);
  const orv::utils::IMessageFormatter& base = *rack;
  assert(dynamic_cast<const DeviceNode&>(base).debugString() == "rack\n");
  auto message = rack->toProtoBuf();
  assert(message.device_class() == newer && DeviceNode(message).getDeviceClass() == newer);

  *message.add_sub_devices() = rack->toProtoBuf();
  assert(throws<std::runtime_error>([&] { DeviceNode{message}; }));
  const NamedStatus unknown("mode", NamedStatus::TYPE_STRING);
  assert(throws<boost::bad_get>([&] { return unknown == unknown; }));
}
