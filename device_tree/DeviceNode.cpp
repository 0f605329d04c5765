#include "device_tree/DeviceNode.h"

#include <boost/variant/get.hpp>
#include <cstddef>
#include <stdexcept>
#include <typeinfo>
#include <utility>
#include <vector>

#include "device_tree/Walk.h"

namespace orv::device_tree {

namespace proto = orv::proto::monitoring;

namespace {

// A release of many nodes, see the destructor: those still to be released, and the one at hand. A
// map in which all keys are equal is a queue that takes over the entries of another map and
// allocates nothing.
struct AllEqual {
  bool operator()(const std::string&, const std::string&) const noexcept { return false; }
};
struct Release {
  std::multimap<std::string, std::shared_ptr<DeviceNode>, AllEqual> queue;
  const DeviceNode* node = nullptr;
};
thread_local Release* release = nullptr;  // the innermost one that this thread is carrying out

template <typename Visit>
void forEachSubDevice(const DeviceNode& node, bool recursive, Visit visit) {
  Walk walk(node);
  while (const auto* subDevice = walk.next()) {
    visit(*subDevice);
    if (!recursive) walk.skipBelow();
  }
}

DeviceNode* findNode(DeviceNode& root, const std::string& deviceId) {
  if (root.getDeviceId() == deviceId) return &root;
  Walk walk(root);
  while (const auto* node = walk.next()) {
    if ((*node)->getDeviceId() == deviceId) return node->get();
  }
  return nullptr;
}

// Files a copy of `value` unless its name is taken; `what` names the kind of entry in the refusal.
template <typename Value>
bool file(std::map<std::string, std::shared_ptr<Value>>& entries, const std::string& name,
          const Value& value, const char* what, const DeviceNode& node, std::string& errorMessage) {
  errorMessage.clear();
  const auto place = entries.lower_bound(name);
  if (place != entries.end() && place->first == name) {
    errorMessage = node.formatMessage(what + (" " + name) + " already exists");
    return false;
  }
  entries.emplace_hint(place, name, std::make_shared<Value>(value));
  return true;
}

template <typename Value>
void copyEntries(const std::map<std::string, std::shared_ptr<Value>>& source,
                 std::map<std::string, std::shared_ptr<Value>>& target) {
  for (const auto& [key, value] : source) {
    target.emplace_hint(target.end(), key, value ? std::make_shared<Value>(*value) : nullptr);
  }
}

}  // namespace

std::string GetIndent(unsigned int level) noexcept {
  return std::string(std::size_t{2} * level, ' ');
}

DeviceNode::DeviceNode() noexcept = default;

DeviceNode::DeviceNode(const std::string& nodeId, const std::string& nodeName,
                       DeviceClass nodeClass) noexcept
    : deviceId(nodeId), name(nodeName), deviceClass(nodeClass) {}

DeviceNode::DeviceNode(const DeviceNode& other) : DeviceNode() {
  copyOwn(other);
  copySubDevices(other);
  // Both walks take the same steps: what is copied below a node is entered by the next step.
  Walk sources(other);
  Walk copies(*this);
  while (true) {
    const auto* source = sources.next();
    const auto* copy = copies.next();
    if (source == nullptr || copy == nullptr) return;
    (*copy)->copySubDevices(**source);
  }
}

void DeviceNode::copyOwn(const DeviceNode& other) {
  deviceId = other.deviceId;
  name = other.name;
  deviceClass = other.deviceClass;
  globalStatus = other.globalStatus;
  copyEntries(other.properties, properties);
  copyEntries(other.statuses, statuses);
}

// One level; the nodes below the sub-devices are not copied.
void DeviceNode::copySubDevices(const DeviceNode& other) {
  for (const auto& [key, subDevice] : other.subDevices) {
    const auto entry = subDevices.emplace_hint(subDevices.end(), key, nullptr);
    if (!subDevice) continue;
    entry->second = std::make_shared<DeviceNode>();
    entry->second->copyOwn(*subDevice);
  }
}

DeviceNode::DeviceNode(const proto::DeviceNode& message) : DeviceNode() {
  // A level of the message that is being built: its node is complete, its sub-devices are not.
  struct Level {
    const proto::DeviceNode* message;
    DeviceNode* node;
    std::shared_ptr<DeviceNode> owner;  // empty for this node
    int nextSubDevice = 0;
  };
  readOwn(message);
  std::vector<Level> levels;
  levels.push_back({&message, this, nullptr});
  while (true) {
    Level& level = levels.back();
    if (level.nextSubDevice < level.message->sub_devices_size()) {
      const proto::DeviceNode& subMessage = level.message->sub_devices(level.nextSubDevice++);
      auto subDevice = std::make_shared<DeviceNode>();
      subDevice->readOwn(subMessage);
      DeviceNode* const node = subDevice.get();
      levels.push_back({&subMessage, node, std::move(subDevice)});
      continue;
    }
    std::shared_ptr<DeviceNode> complete = std::move(level.owner);
    levels.pop_back();
    if (levels.empty()) return;
    DeviceNode& parent = *levels.back().node;
    std::string error;
    if (!parent.attach(std::move(complete), true, error)) {
      throw std::runtime_error(parent.formatMessage(error));
    }
  }
}

void DeviceNode::readOwn(const proto::DeviceNode& message) {
  deviceId = message.id();
  name = message.name();
  deviceClass = message.device_class();
  std::string error;
  for (const auto& element : message.properties()) {
    Property property;
    property.read(element);
    if (!file(properties, property.name, property, "Property", *this, error)) {
      throw std::runtime_error(formatMessage(error));
    }
  }
  globalStatus.read(message.global_status());
  for (const auto& element : message.statuses()) {
    NamedStatus status;
    status.read(element);
    if (!file(statuses, status.name, status, "Status", *this, error)) {
      throw std::runtime_error(formatMessage(error));
    }
  }
}

std::string DeviceNode::messageHeader() const { return "Device " + deviceId + " - " + name; }

// A sub-device released here runs this destructor in turn. So that a deep tree does not nest as
// many calls, a node that is being released hands its sub-devices to that release.
DeviceNode::~DeviceNode() {
  if (subDevices.empty()) return;
  Release own;
  Release& current = release != nullptr && release->node == this ? *release : own;
  while (!subDevices.empty()) {
    current.queue.insert(current.queue.cend(), subDevices.extract(subDevices.cbegin()));
  }
  if (&current != &own) return;
  Release* const outer = std::exchange(release, &own);
  while (!own.queue.empty()) {
    const auto entry = own.queue.extract(own.queue.cbegin());
    own.node = entry.mapped().get();
  }
  release = outer;
}

std::string DeviceNode::debugString(unsigned int indent) const noexcept {
  std::string text;
  appendOwnText(text, indent);
  Walk walk(*this);
  while (const auto* subDevice = walk.next()) {
    const DeviceNode& node = **subDevice;
    const unsigned int level = indent + 2 * static_cast<unsigned int>(walk.depth());
    if (typeid(node) == typeid(DeviceNode)) {
      node.appendOwnText(text, level);
    } else {
      text += node.debugString(level);
      walk.skipBelow();
    }
  }
  return text;
}

void DeviceNode::appendOwnText(std::string& text, unsigned int indent) const {
  const std::string header = GetIndent(indent);
  const std::string counts = GetIndent(indent + 1);
  text += header + "Device: name " + name + " - id " + deviceId + "\n";
  text += header + "Status: " + globalStatus.debugString() + "\n";
  text += header + "Class: " + std::to_string(static_cast<int>(deviceClass)) + "\n";
  const auto appendEntries = [&](const auto& entries, const char* what) {
    text += counts + std::to_string(entries.size()) + what;
    for (const auto& [key, value] : entries) {
      if (value) text += "[" + value->debugString() + "] ";
    }
    text += "\n";
  };
  appendEntries(properties, " property(ies): ");
  appendEntries(statuses, " status(es): ");
  text += counts + std::to_string(subDevices.size()) + " child(ren):\n";
}

void DeviceNode::setName(std::string newName) noexcept { name = std::move(newName); }

void DeviceNode::setDeviceClass(DeviceClass newClass) noexcept { deviceClass = newClass; }

void DeviceNode::setGlobalStatus(GlobalStatus newStatus) noexcept {
  globalStatus = std::move(newStatus);
}

bool DeviceNode::setDeviceId(const std::string& newDeviceId, std::string& errorMessage) noexcept {
  errorMessage.clear();
  if (!deviceId.empty()) {
    errorMessage = formatMessage("Cannot change a device ID");
    return false;
  }
  deviceId = newDeviceId;
  return true;
}

bool DeviceNode::addProperty(const Property& property, std::string& errorMessage) noexcept {
  return file(properties, property.name, property, "Property", *this, errorMessage);
}

bool DeviceNode::addStatus(const NamedStatus& status, std::string& errorMessage) noexcept {
  return file(statuses, status.name, status, "Status", *this, errorMessage);
}

bool DeviceNode::addSubDevice(std::shared_ptr<DeviceNode> subDevice, bool replace,
                              std::string& errorMessage) noexcept {
  return attach(std::move(subDevice), replace, errorMessage);
}

bool DeviceNode::attach(std::shared_ptr<DeviceNode> subDevice, bool replace,
                        std::string& errorMessage) {
  errorMessage.clear();
  if (!subDevice) {
    errorMessage = formatMessage("Trying to add an invalid (null) sub-device");
    return false;
  }
  if (findNode(*subDevice, deviceId) != nullptr) {
    errorMessage = formatMessage("Sub-device has same ID as parent: " + deviceId);
    return false;
  }
  const std::string& key = subDevice->deviceId;
  const auto place = subDevices.lower_bound(key);
  if (place == subDevices.end() || place->first != key) {
    subDevices.emplace_hint(place, key, std::move(subDevice));
  } else if (replace) {
    place->second = std::move(subDevice);
  } else {
    errorMessage = formatMessage("Sub-device already exists: " + key);
    return false;
  }
  return true;
}

bool DeviceNode::removeSubDevice(const std::string& key, bool recursive,
                                 std::string& errorMessage) noexcept {
  errorMessage.clear();
  if (subDevices.erase(key) != 0) return true;
  if (recursive) {
    Walk walk(*this);
    while (const auto* node = walk.next()) {
      if ((*node)->subDevices.erase(key) != 0) return true;
    }
  }
  errorMessage = formatMessage(key + " not found");
  return false;
}

std::shared_ptr<DeviceNode> DeviceNode::getDeviceById(const std::string& soughtId) noexcept {
  DeviceNode* const node = findNode(*this, soughtId);
  return node != nullptr ? node->weak_from_this().lock() : nullptr;
}

std::shared_ptr<NamedStatus> DeviceNode::getStatus(const std::string& statusName) const noexcept {
  const auto entry = statuses.find(statusName);
  return entry != statuses.end() ? entry->second : nullptr;
}

std::list<std::string> DeviceNode::getTreeDeviceIds() const noexcept {
  std::list<std::string> ids = getSubDeviceIds(true);
  ids.push_front(deviceId);
  return ids;
}

std::list<std::string> DeviceNode::getSubDeviceIds(bool recursive) const noexcept {
  std::list<std::string> ids;
  forEachSubDevice(*this, recursive, [&](const auto& node) { ids.push_back(node->deviceId); });
  return ids;
}

std::list<std::shared_ptr<DeviceNode>> DeviceNode::getSubDevicesByName(
    const std::string& soughtName, bool recursive) noexcept {
  std::list<std::shared_ptr<DeviceNode>> found;
  forEachSubDevice(*this, recursive, [&](const auto& node) {
    if (node->name == soughtName) found.push_back(node);
  });
  return found;
}

std::list<std::shared_ptr<DeviceNode>> DeviceNode::getSubDevicesByProperty(
    const std::string& propertyName, const std::string& value, bool recursive) noexcept {
  std::list<std::shared_ptr<DeviceNode>> found;
  forEachSubDevice(*this, recursive, [&](const auto& node) {
    const auto entry = node->properties.find(propertyName);
    if (entry != node->properties.end() && entry->second &&
        boost::get<std::string>(entry->second->value) == value) {
      found.push_back(node);
    }
  });
  return found;
}

std::map<std::string, DeviceNode::Statuses> DeviceNode::getAllStatuses() const noexcept {
  std::map<std::string, Statuses> all{{deviceId, statuses}};
  forEachSubDevice(*this, true,
                   [&](const auto& node) { all.try_emplace(node->deviceId, node->statuses); });
  return all;
}

proto::DeviceNode DeviceNode::toProtoBuf() const noexcept {
  proto::DeviceNode target;
  toProtoBuf(target);
  return target;
}

void DeviceNode::toProtoBuf(proto::DeviceNode& target) const noexcept {
  target.Clear();
  writeOwn(target);
  std::vector<proto::DeviceNode*> open{&target};  // one for each level above the node met
  Walk walk(*this);
  while (const auto* subDevice = walk.next()) {
    const DeviceNode& node = **subDevice;
    if (node.deviceId.empty()) {
      walk.skipBelow();
      continue;
    }
    open.resize(walk.depth());
    open.push_back(open.back()->add_sub_devices());
    node.writeOwn(*open.back());
  }
}

void DeviceNode::writeOwn(proto::DeviceNode& target) const {
  target.set_id(deviceId);
  target.set_name(name);
  target.set_device_class(deviceClass);
  globalStatus.toProtoBuf(*target.mutable_global_status());
  for (const auto& [key, property] : properties) {
    if (property) property->toProtoBuf(*target.add_properties());
  }
  for (const auto& [key, status] : statuses) {
    if (status) status->toProtoBuf(*target.add_statuses());
  }
}

}  // namespace orv::device_tree
