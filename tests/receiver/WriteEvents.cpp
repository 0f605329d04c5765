// Plays a short life of an installation and writes what each report of it says.
//
//   write_events DIRECTORY     writes DIRECTORY/NN.event, the event of step NN, and
//                              DIRECTORY/NN.tree, the tree it leads to (no file: no tree)
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "device_tree/DeviceNode.h"
#include "device_tree/Utils.h"
#include "proto/monitoring/device_events.pb.h"

namespace proto = orv::proto::monitoring;
using orv::device_tree::DeviceNode;
using orv::device_tree::GlobalStatus;
using orv::device_tree::NamedStatus;
using orv::device_tree::Property;
using orv::device_tree::utils::EventHelper;

namespace {

std::shared_ptr<DeviceNode> device(const std::string& id, DeviceNode::DeviceClass deviceClass) {
  auto node = std::make_shared<DeviceNode>(id, "name of " + id, deviceClass);
  std::string error;
  node->addProperty(Property("model", Property::TYPE_STRING, "X200"), error);
  node->addStatus(NamedStatus("mode", NamedStatus::TYPE_STRING), error);
  node->addStatus(NamedStatus("offset", NamedStatus::TYPE_INT, -4L), error);
  node->addStatus(NamedStatus("packets", NamedStatus::TYPE_UINT, ~0UL), error);
  node->addStatus(NamedStatus("temp", NamedStatus::TYPE_DOUBLE, 21.5), error);
  return node;
}

void attach(DeviceNode& parent, const std::shared_ptr<DeviceNode>& subDevice) {
  std::string error;
  if (!parent.addSubDevice(subDevice, false, error)) throw std::runtime_error(error);
}

void write(const std::filesystem::path& file, const google::protobuf::MessageLite& message) {
  std::ofstream stream(file, std::ios::binary);
  if (!message.SerializeToOstream(&stream))
    throw std::runtime_error("cannot write " + file.string());
}

class Reporter {
 public:
  explicit Reporter(std::filesystem::path directory) : directory_(std::move(directory)) {
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directories(directory_);
  }

  //! [report]
  // Called whenever a report is due; an empty pointer says that the installation is gone.
  void report(const std::shared_ptr<DeviceNode>& live) {
    if (!EventHelper::ComputeEvent(snapshot_, live, event_)) return;  // nothing to report
    send(event_, live);
    snapshot_ = live ? std::make_shared<DeviceNode>(*live) : nullptr;  // a deep copy
  }
  //! [report]

 private:
  void send(const proto::DeviceToOrvServiceEvent& event, const std::shared_ptr<DeviceNode>& live) {
    const std::string step = std::to_string(10 + steps_++);
    write(directory_ / (step + ".event"), event);
    if (live) write(directory_ / (step + ".tree"), live->toProtoBuf());
  }

  std::filesystem::path directory_;
  int steps_ = 0;
  std::shared_ptr<DeviceNode> snapshot_;  // of what was reported last
  proto::DeviceToOrvServiceEvent event_;
};

void play(Reporter& reporter) {
  std::string error;
  const auto rack = device("rack", proto::DeviceNode::RACK);
  const auto host = device("host", proto::DeviceNode::HOST);
  attach(*rack, device("fan", static_cast<DeviceNode::DeviceClass>(4711)));
  attach(*rack, host);
  attach(*host, device("disk", proto::DeviceNode::STORAGE));
  reporter.report(rack);

  // State: a value set, changed and forgotten; health with a text and without.
  rack->getDeviceById("disk")->getStatus("mode")->setValue(std::string("idle"));
  rack->getStatus("offset")->setValue(0L);
  host->getStatus("packets")->setValue(0UL);
  host->setGlobalStatus({GlobalStatus::LEVEL_ERROR, "fan stopped"});
  reporter.report(rack);
  rack->getDeviceById("disk")->getStatus("temp")->unsetValue();
  host->setGlobalStatus({});
  reporter.report(rack);
  reporter.report(rack);  // nothing changed: no event

  // Configuration, and state in the same step: the tree is sent whole.
  rack->setName("the rack");
  rack->removeSubDevice("disk", true, error);
  attach(*rack, device("sensor", proto::DeviceNode::SENSOR));
  host->getStatus("temp")->setValue(-1e-3);
  reporter.report(rack);
  rack->getDeviceById("sensor")->getStatus("temp")->setValue(22.0);
  reporter.report(rack);

  reporter.report(nullptr);
  reporter.report(rack);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "Usage: write_events DIRECTORY\n";
    return 2;
  }
  try {
    Reporter reporter(argv[1]);
    play(reporter);
    return 0;
  } catch (const std::exception& fault) {
    std::cerr << argv[0] << ": " << fault.what() << "\n";
    return 1;
  }
}
