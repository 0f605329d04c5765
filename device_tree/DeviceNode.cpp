#include "device_tree/DeviceNode.h"

#include <boost/variant/get.hpp>
#include <cstddef>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
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
  const DeviceNode* node = nullptr;  // until it has handed over its sub-devices
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
  DeviceNode* found = nullptr;
  anyNode(root, [&](DeviceNode& node) {
    if (node.getDeviceId() == deviceId) found = &node;
    return found != nullptr;
  });
  return found;
}

// Files a copy of `value` unless its name is taken; `what` names the kind of entry in the refusal.
template <typename Value>
bool addEntry(std::map<std::string, std::shared_ptr<Value>>& entries, const std::string& name,
              const Value& value, const char* what, const DeviceNode& node,
              std::string& errorMessage) {
  errorMessage.clear();
  const auto place = entries.lower_bound(name);
  if (place != entries.end() && place->first == name) {
    errorMessage = node.formatMessage(what + (" " + name) + " already exists");
    return false;
  }
  entries.emplace_hint(place, name, std::make_shared<Value>(value));
  return true;
}

// The entry is out of the map before its node is released: the release may run code of the user's
// that edits the same map.
bool removeEntry(DeviceNode::SubDevices& entries, const std::string& key) {
  return !entries.extract(key).empty();
}

template <typename Value>
void copyEntries(const std::map<std::string, std::shared_ptr<Value>>& source,
                 std::map<std::string, std::shared_ptr<Value>>& target) {
  for (const auto& [key, value] : source) {
    target.emplace_hint(target.end(), key, value ? std::make_shared<Value>(*value) : nullptr);
  }
}

// The devices of a message that are being built, from the outermost one in: each is complete but
// for its sub-devices.
//
// No device may be below one of the same identifier. An open device that has the identifier of a
// new one is found here among the open ones. That costs O(log depth), where a search of each
// complete subtree would cost a comparison for each level. The new device counts only if it is
// still there when the open one receives the subtree: a later sub-device replaces an earlier one of
// the same identifier, with everything below it.
class OpenDevices {
 public:
  bool empty() const { return levels_.empty(); }
  DeviceNode& innermost() const { return *levels_.back().node; }
  // Whether the sub-device that was built last, or a device below it, has the innermost device's
  // identifier.
  bool isBelowItself() const { return levels_.back().isBelowItself; }

  // The next sub-device of the innermost device, nullptr when there is none left.
  const proto::DeviceNode* nextSubDevice() {
    Level& level = levels_.back();
    if (level.next == level.message->sub_devices_size()) return nullptr;
    return &level.message->sub_devices(level.next++);
  }

  void push(const proto::DeviceNode& message, DeviceNode& node, std::shared_ptr<DeviceNode> owner) {
    levels_.push_back({&message, &node, std::move(owner)});
    const auto found = byIdentifier_.find(message.id());
    if (found != byIdentifier_.end()) {
      levels_.back().sameAbove = found->second;
      Level& above = levels_[found->second];
      above.isBelowItself = above.isBelowItself || reach() <= found->second;
    }
    if (message.sub_devices_size() > 0) byIdentifier_[message.id()] = levels_.size() - 1;
  }

  // Closes the innermost device and returns its owner.
  std::shared_ptr<DeviceNode> pop() {
    Level level = std::move(levels_.back());
    levels_.pop_back();
    if (level.sameAbove) {
      byIdentifier_[level.message->id()] = *level.sameAbove;
    } else if (level.message->sub_devices_size() > 0) {
      byIdentifier_.erase(level.message->id());
    }
    return std::move(level.owner);
  }

 private:
  struct Level {
    const proto::DeviceNode* message;
    DeviceNode* node;
    std::shared_ptr<DeviceNode> owner;
    int next = 0;
    bool isBelowItself = false;
    std::optional<std::size_t> sameAbove = {};  // the nearest level above that has the identifier
    // Worked out only when a device has the identifier of one above:
    std::optional<std::size_t> reach = {};  // see reach()
    std::vector<bool> isReplaced = {};      // of each sub-device, by a later one
  };

  // The outermost level that will receive the innermost device. A device that is to be replaced,
  // and what is below it, gets no further than its parent.
  std::size_t reach() {
    std::size_t known = levels_.size() - 1;
    while (known > 0 && !levels_[known].reach) --known;
    if (known == 0) levels_[0].reach = 0;
    for (std::size_t i = known + 1; i < levels_.size(); ++i) {
      Level& parent = levels_[i - 1];
      if (parent.isReplaced.empty()) parent.isReplaced = replacedSubDevices(*parent.message);
      const bool isReplaced = parent.isReplaced[static_cast<std::size_t>(parent.next) - 1];
      levels_[i].reach = isReplaced ? i - 1 : *parent.reach;
    }
    return *levels_.back().reach;
  }

  static std::vector<bool> replacedSubDevices(const proto::DeviceNode& message) {
    const int count = message.sub_devices_size();
    std::vector<bool> isReplaced(static_cast<std::size_t>(count));
    std::set<std::string_view> later;
    for (int i = count; i-- > 0;) {
      isReplaced[static_cast<std::size_t>(i)] = !later.insert(message.sub_devices(i).id()).second;
    }
    return isReplaced;
  }

  std::vector<Level> levels_;
  std::map<std::string_view, std::size_t> byIdentifier_;  // the innermost level of each identifier
};

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
  while (const auto* source = sources.next()) (*copies.next())->copySubDevices(**source);
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
  readOwn(message);
  OpenDevices open;
  open.push(message, *this, nullptr);
  while (true) {
    if (const proto::DeviceNode* const next = open.nextSubDevice()) {
      auto subDevice = std::make_shared<DeviceNode>();
      subDevice->readOwn(*next);
      DeviceNode& node = *subDevice;
      open.push(*next, node, std::move(subDevice));
      continue;
    }
    std::shared_ptr<DeviceNode> complete = open.pop();
    if (open.empty()) return;
    DeviceNode& parent = open.innermost();
    if (open.isBelowItself()) {
      throw std::runtime_error(parent.formatMessage(parent.sameIdRefusal()));
    }
    const auto end = parent.subDevices.cend();  // its place, if the message is in order
    parent.subDevices.try_emplace(end, complete->deviceId)->second.swap(complete);
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
    if (!addEntry(properties, property.name, property, "Property", *this, error)) {
      throw std::runtime_error(formatMessage(error));
    }
  }
  globalStatus.read(message.global_status());
  for (const auto& element : message.statuses()) {
    NamedStatus status;
    status.read(element);
    if (!addEntry(statuses, status.name, status, "Status", *this, error)) {
      throw std::runtime_error(formatMessage(error));
    }
  }
}

std::string DeviceNode::messageHeader() const { return "Device " + deviceId + " - " + name; }

// A sub-device released here runs this destructor in turn. So that a deep tree does not nest as
// many calls, a node that is being released hands its sub-devices to that release.
DeviceNode::~DeviceNode() {
  Release* const outer = release;
  const bool handsOver = outer != nullptr && outer->node == this;
  if (handsOver) outer->node = nullptr;  // soon another node may lie at this address
  if (subDevices.empty()) return;
  Release own;
  auto& queue = handsOver ? outer->queue : own.queue;
  while (!subDevices.empty()) queue.insert(queue.cend(), subDevices.extract(subDevices.cbegin()));
  if (handsOver) return;
  release = &own;
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
  return addEntry(properties, property.name, property, "Property", *this, errorMessage);
}

bool DeviceNode::addStatus(const NamedStatus& status, std::string& errorMessage) noexcept {
  return addEntry(statuses, status.name, status, "Status", *this, errorMessage);
}

bool DeviceNode::addSubDevice(std::shared_ptr<DeviceNode> subDevice, bool replace,
                              std::string& errorMessage) noexcept {
  errorMessage.clear();
  if (!subDevice) {
    errorMessage = formatMessage("Trying to add an invalid (null) sub-device");
    return false;
  }
  if (findNode(*subDevice, deviceId) != nullptr) {
    errorMessage = sameIdRefusal();
    return false;
  }
  const auto [entry, isNew] = subDevices.try_emplace(subDevice->deviceId);
  if (!isNew && !replace) {
    errorMessage = formatMessage("Sub-device already exists: " + subDevice->deviceId);
    return false;
  }
  entry->second.swap(subDevice);  // a replaced one is released last, see removeEntry
  return true;
}

std::string DeviceNode::sameIdRefusal() const {
  return formatMessage("Sub-device has same ID as parent: " + deviceId);
}

bool DeviceNode::removeSubDevice(const std::string& key, bool recursive,
                                 std::string& errorMessage) noexcept {
  errorMessage.clear();
  if (removeEntry(subDevices, key)) return true;
  if (recursive) {
    Walk walk(*this);
    while (const auto* node = walk.next()) {
      if (removeEntry((*node)->subDevices, key)) return true;
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
