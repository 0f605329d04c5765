#include "history/Rebuild.h"

#include <google/protobuf/arena.h>

#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "device_tree/Utils.h"
#include "device_tree/Walk.h"
#include "history/Packing.h"

namespace orv::history {

using orv::device_tree::DeviceNode;
using reporting::Event;
using reporting::Tree;
namespace monitoring = orv::proto::monitoring;

namespace {

void readTree(const Store& store, const Row& row, monitoring::DeviceNode& message) {
  const auto bytes = unpack(wholeOf(row).tree);
  if (!bytes || !message.ParseFromString(*bytes)) {
    store.damaged("the tree of row " + std::to_string(row.id));
  }
}

void readEvent(const Store& store, const Row& row, Event& event) {
  const auto bytes = unpack(row.data);
  if (!bytes || !event.ParseFromString(*bytes)) {
    store.damaged("the event of row " + std::to_string(row.id));
  }
}

void apply(const Store& store, const Row& row, const Event& event, Tree& tree) {
  std::string refusal;
  if (!orv::device_tree::utils::EventHelper::ApplyEvent(event, tree, refusal)) {
    store.damaged("row " + std::to_string(row.id) + ": " + refusal);
  }
}

bool isEachIdentifierUnique(const DeviceNode& tree) {
  std::unordered_set<std::string_view> met;
  return !orv::device_tree::anyNode(
      tree, [&met](const DeviceNode& node) { return !met.insert(node.getDeviceId()).second; });
}

// Status changes one after the other, of which the last one of each status counts. To apply that
// costs one look at the tree, however many they were.
class Changes {
 public:
  void add(const Event& event) {
    const auto& changes = event.GetExtension(monitoring::StatusChangeEvent::base);
    for (const auto& change : changes.global_status_changes()) {
      at(healths_, change.device_id(), *all_.mutable_global_status_changes()) = change;
    }
    for (const auto& change : changes.named_status_changes()) {
      // No length of an identifier makes two keys one.
      const std::string key = std::to_string(change.device_id().size()) + ' ' + change.device_id() +
                              change.status().name();
      at(statuses_, key, *all_.mutable_named_status_changes()) = change;
    }
  }

  Event event() const {
    Event event;
    event.set_event_type(Event::STATUS_CHANGE);
    *event.MutableExtension(monitoring::StatusChangeEvent::base) = all_;
    return event;
  }

 private:
  using Places = std::unordered_map<std::string, int>;

  template <typename List>
  static typename List::value_type& at(Places& places, const std::string& key, List& list) {
    const auto [place, isNew] = places.try_emplace(key, list.size());
    return isNew ? *list.Add() : *list.Mutable(place->second);
  }

  monitoring::StatusChangeEvent all_;
  Places healths_;
  Places statuses_;
};

}  // namespace

Tree treeOf(const Store& store, const Row& row) {
  if (wholeOf(row).tree.empty()) return nullptr;
  google::protobuf::Arena arena;  // which is released at once
  auto& message = *google::protobuf::Arena::CreateMessage<monitoring::DeviceNode>(&arena);
  readTree(store, row, message);
  try {
    return std::make_shared<DeviceNode>(message);
  } catch (const std::runtime_error& refusal) {
    store.damaged("row " + std::to_string(row.id) + ": " + refusal.what());
  }
}

Event eventOf(const Store& store, const std::string& root, const Row& row) {
  Event event;
  if (row.kind == Kind::STATUS) {
    readEvent(store, row, event);
  } else if (wholeOf(row).tree.empty()) {
    event.set_event_type(Event::DEVICE_REMOVE);
    event.MutableExtension(monitoring::DeviceRemoveEvent::base)->set_device_id(root);
  } else if (row.kind == Kind::CONFIGURED) {
    event.set_event_type(Event::CONFIGURATION_CHANGE);
    readTree(store, row,
             *event.MutableExtension(monitoring::ConfigurationChangeEvent::base)->mutable_device());
  } else {
    event.set_event_type(Event::DEVICE_ADD);
    readTree(store, row,
             *event.MutableExtension(monitoring::DeviceAddEvent::base)->mutable_device());
  }
  return event;
}

Tree treeOf(const Store& store, const Segment& segment) {
  const std::vector<Row>& rows = segment.rows;
  Tree tree = treeOf(store, rows.front());
  if (rows.size() == 1) return tree;
  if (!tree) store.damaged("row " + std::to_string(rows[1].id) + " changes no tree");
  Event event;
  if (!isEachIdentifierUnique(*tree)) {  // which device is meant can depend on the whole list then
    for (std::size_t i = 1; i < rows.size(); ++i) {
      readEvent(store, rows[i], event);
      apply(store, rows[i], event, tree);
    }
    return tree;
  }
  Changes changes;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    readEvent(store, rows[i], event);
    changes.add(event);
  }
  apply(store, rows.back(), changes.event(), tree);
  return tree;
}

reporting::Sequence sequenceOf(const Segment& segment) {
  reporting::Sequence sequence = wholeOf(segment.rows.front()).sequence;
  sequence.n += segment.rows.size() - 1;
  return sequence;
}

}  // namespace orv::history
