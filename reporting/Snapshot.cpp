#include "reporting/Snapshot.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include "device_tree/Utils.h"
#include "device_tree/Walk.h"

namespace orv::reporting {

using device_tree::DeviceNode;
using device_tree::GlobalStatus;
using device_tree::NamedStatus;
using device_tree::Property;
using device_tree::Walk;
using orv::proto::monitoring::StatusChangeEvent;

namespace {

bool areIdentifiersUnique(const DeviceNode& root) {
  std::vector<std::string_view> ids;
  device_tree::anyNode(root, [&](const DeviceNode& node) {
    ids.push_back(node.getDeviceId());
    return false;
  });
  std::sort(ids.begin(), ids.end());
  return std::adjacent_find(ids.begin(), ids.end()) == ids.end();
}

// The entry at its place, in a map that has as many.
bool isSame(const std::pair<const std::string, std::shared_ptr<Property>>& entry,
            const Property& known) {
  return entry.second && entry.first == known.name && *entry.second == known;
}

bool isSameButForValue(const std::pair<const std::string, std::shared_ptr<NamedStatus>>& entry,
                       const NamedStatus& known) {
  const auto& [name, status] = entry;
  return status && name == known.getName() && status->getName() == name &&
         status->getType() == known.getType();
}

}  // namespace

Snapshot::Snapshot(Tree tree) {
  if (areIdentifiersUnique(*tree)) {
    layOut(tree);
  } else {
    tree_ = std::move(tree);
  }
}

void Snapshot::layOut(const Tree& tree) {
  std::size_t devices = 0;
  std::size_t properties = 0;
  std::size_t statuses = 0;
  device_tree::anyNode(std::as_const(*tree), [&](const DeviceNode& node) {
    ++devices;
    properties += node.getProperties().size();
    statuses += node.getStatuses().size();
    return false;
  });
  devices_.reserve(devices);
  properties_.reserve(properties);
  statuses_.reserve(statuses);
  Walk walk(*tree);
  for (const Tree* entry = &tree; entry != nullptr; entry = walk.next()) {
    const DeviceNode& node = **entry;
    devices_.push_back({walk.depth(), node.getDeviceId(), node.getName(), node.getDeviceClass(),
                        node.getGlobalStatus(), node.getProperties().size(),
                        node.getStatuses().size()});
    for (const auto& [name, property] : node.getProperties()) properties_.push_back(*property);
    for (const auto& [name, status] : node.getStatuses()) statuses_.push_back(*status);
  }
}

bool Snapshot::isInStep(const DeviceNode& live, Event& event) noexcept {
  event.Clear();
  changedHealths_.clear();
  changedStatuses_.clear();
  std::size_t property = 0;
  std::size_t status = 0;
  StatusChangeEvent* changes = nullptr;
  const auto change = [&] {
    if (changes == nullptr) changes = event.MutableExtension(StatusChangeEvent::base);
    return changes;
  };
  Walk walk(live);
  const DeviceNode* node = &live;
  for (std::size_t place = 0; place < devices_.size(); ++place) {
    const Device& known = devices_[place];
    if (node == nullptr || walk.depth() != known.depth || node->getDeviceId() != known.id ||
        node->getName() != known.name || node->getProperties().size() != known.properties ||
        node->getStatuses().size() != known.statuses) {
      return false;
    }
    if (node->getGlobalStatus() != known.health) {
      changedHealths_.push_back(place);
      auto& changed = *change()->add_global_status_changes();
      changed.set_device_id(known.id);
      node->getGlobalStatus().toProtoBuf(*changed.mutable_status());
    }
    for (const auto& entry : node->getProperties()) {
      if (!isSame(entry, properties_[property++])) return false;
    }
    for (const auto& entry : node->getStatuses()) {
      const NamedStatus& before = statuses_[status++];
      if (!isSameButForValue(entry, before)) return false;
      if (entry.second->getValue() == before.getValue()) continue;
      changedStatuses_.push_back(status - 1);
      auto& changed = *change()->add_named_status_changes();
      changed.set_device_id(known.id);
      entry.second->toProtoBuf(*changed.mutable_status());
    }
    const Tree* const next = walk.next();
    node = next != nullptr ? next->get() : nullptr;
  }
  if (changes != nullptr) event.set_event_type(Event::STATUS_CHANGE);
  return node == nullptr && !devices_.empty();
}

bool Snapshot::apply(const Event& event) {
  if (tree_) {
    std::string refusal;
    return device_tree::utils::EventHelper::ApplyEvent(event, tree_, refusal);
  }
  const auto& changes = event.GetExtension(StatusChangeEvent::base);
  for (std::size_t i = 0; i < changedHealths_.size(); ++i) {
    const auto& change = changes.global_status_changes(static_cast<int>(i));
    devices_[changedHealths_[i]].health = GlobalStatus(change.status());
  }
  for (std::size_t i = 0; i < changedStatuses_.size(); ++i) {
    const auto& change = changes.named_status_changes(static_cast<int>(i));
    statuses_[changedStatuses_[i]] = NamedStatus(change.status());
  }
  return true;
}

const Tree& Snapshot::tree() {
  if (!tree_) {
    tree_ = build();
    devices_ = {};
    properties_ = {};
    statuses_ = {};
  }
  return tree_;
}

Tree Snapshot::build() const {
  if (tree_) return tree_;
  std::string ignored;  // all of it was in a tree before, so nothing is refused
  std::vector<Tree> open;
  auto property = properties_.begin();
  auto status = statuses_.begin();
  for (const Device& device : devices_) {
    auto node = std::make_shared<DeviceNode>(device.id, device.name, device.deviceClass);
    node->setGlobalStatus(device.health);
    for (std::size_t i = 0; i < device.properties; ++i) node->addProperty(*property++, ignored);
    for (std::size_t i = 0; i < device.statuses; ++i) node->addStatus(*status++, ignored);
    open.resize(device.depth);
    if (!open.empty()) open.back()->addSubDevice(node, false, ignored);
    open.push_back(std::move(node));
  }
  return open.front();
}

}  // namespace orv::reporting
