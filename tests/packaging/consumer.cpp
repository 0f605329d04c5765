// A program of a user of the package: everything it needs comes from the installed headers and
// libraries. Says what did not work.
#include <algorithm>
#include <boost/variant/get.hpp>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "device_tree/DeviceNode.h"
#include "device_tree/Utils.h"
#include "platform/IMessageFormatter.h"
#include "proto/monitoring/device_events.pb.h"

namespace {

using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;
using orv::device_tree::Property;
using orv::proto::monitoring::DeviceAddEvent;
using orv::proto::monitoring::DeviceToOrvServiceEvent;

int failures = 0;

void expect(bool worked, const char* what) {
  if (worked) return;
  std::cerr << "consumer: failed: " << what << '\n';
  ++failures;
}

class Rack : public DeviceNode {
 public:
  using DeviceNode::DeviceNode;
  std::string debugString(unsigned int indent) const noexcept override {
    return "rack\n" + DeviceNode::debugString(indent);
  }
};

Property model(const std::string& value) { return {"model", Property::TYPE_STRING, value}; }

void compareProperties() {
  Property one = model("X200");
  Property same = model("X200");
  const Property constant = model("X200");
  expect(one == same && !(one != same), "modifiable with modifiable");
  expect(one == constant && !(one != constant), "modifiable with constant");
  expect(model("X200") == one && !(model("X200") != one), "temporary with modifiable");
  expect(one == model("X200") && !(one != model("X200")), "modifiable with temporary");
  expect(model("X200") == model("X200") && model("X200") != model("X300"), "temporaries");
  expect(model("X200") == constant && !(model("X200") != constant), "temporary with constant");
  std::vector<Property> properties{model("X300"), one};
  expect(std::find(properties.begin(), properties.end(), same) == properties.begin() + 1 &&
             std::find(properties.begin(), properties.end(), constant) == properties.begin() + 1,
         "finding a property");
}

void reportDeviceOfNewerClass() {
  const auto newer = static_cast<DeviceNode::DeviceClass>(99);
  const auto rack = std::make_shared<Rack>("r1", "Rack", newer);
  DeviceToOrvServiceEvent event;
  expect(orv::device_tree::utils::EventHelper::ComputeEvent(nullptr, rack, event), "an event");

  DeviceToOrvServiceEvent received;
  expect(received.ParseFromString(event.SerializeAsString()), "reading the event");
  const DeviceNode copy(received.GetExtension(DeviceAddEvent::base).device());
  expect(copy.getDeviceId() == "r1" && copy.getName() == "Rack", "the device received");
  expect(event.GetExtension(DeviceAddEvent::base).device().device_class() == newer,
         "a class that is not in the enumeration");
}

void crossLibraryBoundary() {
  const auto rack = std::make_shared<Rack>();
  const orv::utils::IMessageFormatter& formatter = *rack;
  expect(dynamic_cast<const Rack*>(&formatter) == rack.get(), "casting to the derived class");
  expect(static_cast<const DeviceNode&>(*rack).debugString().rfind("rack\n", 0) == 0, "override");
  try {
    const NamedStatus status("mode", NamedStatus::TYPE_STRING);
    expect(status == status, "unreachable");
  } catch (const boost::bad_get&) {
    return;
  }
  expect(false, "catching boost::bad_get");
}

}  // namespace

int main() {
  compareProperties();
  reportDeviceOfNewerClass();
  crossLibraryBoundary();
  return failures == 0 ? 0 : 1;
}
