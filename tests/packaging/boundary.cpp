// What the program of the README does not reach: a class derived from DeviceNode, casts and
// exceptions across the boundary of the library, a device class that the enumeration does not have,
// and comparisons of properties, which C++20 also tries the other way round.
#undef NDEBUG
#include <boost/variant/get.hpp>
#include <cassert>
#include <memory>
#include <stdexcept>
#include <string>

#include "device_tree/Utils.h"

using namespace orv::device_tree;
namespace monitoring = orv::proto::monitoring;

namespace {

class Rack : public DeviceNode {
 public:
  using DeviceNode::DeviceNode;
  std::string debugString(unsigned int indent) const noexcept override {
    return "rack\n" + DeviceNode::debugString(indent);
  }
};

template <typename Exception, typename Operation>
bool throws(Operation operation) {
  try {
    operation();
  } catch (const Exception&) {
    return true;
  }
  return false;
}

Property model(const std::string& value) { return {"model", Property::TYPE_STRING, value}; }

}  // namespace

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
  const orv::utils::IMessageFormatter& formatter = *rack;
  assert(dynamic_cast<const Rack*>(&formatter) == rack.get());
  assert(static_cast<const DeviceNode&>(*rack).debugString().rfind("rack\n", 0) == 0);

  monitoring::DeviceToOrvServiceEvent event;
  assert(utils::EventHelper::ComputeEvent(nullptr, rack, event));
  monitoring::DeviceNode device = event.GetExtension(monitoring::DeviceAddEvent::base).device();
  device.set_device_class(newer);
  assert(device.device_class() == newer && DeviceNode(device).getDeviceClass() == newer);

  *device.add_sub_devices() = monitoring::DeviceNode(device);
  assert(throws<std::runtime_error>([&] { DeviceNode{device}; }));
  const NamedStatus unknown("mode", NamedStatus::TYPE_STRING);
  assert(throws<boost::bad_get>([&] { return unknown == unknown; }));
}
