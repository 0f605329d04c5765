// Random lives, for the fuzzer and the tests: bytes become messages and the calls of a careless
// caller, and each result is held against plain code. A broken promise is a std::logic_error that
// tells the trees, the event and the edits that led there.

#include <google/protobuf/stubs/logging.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

#include "device_tree/Walk.h"
#include "tests/PlainDefinition.h"

namespace {

using namespace plain;
namespace proto = orv::proto::monitoring;
namespace utils = orv::device_tree::utils;
using utils::EventHelper;
using Event = proto::DeviceToOrvServiceEvent;

// A tree as plain data, read, written and edited by the plainest code. Nothing here calls what it
// judges; the operations of single properties, statuses and healths are judged in TextTest.cpp.
struct Node {
  const auto& getSubDevices() const { return subDevices; }
  std::string refuse(const std::string& text) const {
    return "Device " + id + " - " + name + ": " + text;
  }

  std::string id;
  std::string name;
  int deviceClass;
  GlobalStatus health;
  DeviceNode::Properties properties = {};
  DeviceNode::Statuses statuses = {};
  std::map<std::string, std::shared_ptr<Node>> subDevices = {};
};

using NodeRead = std::shared_ptr<Node>;

// Every node, the root first, in walk order.
template <typename AnyNode>
std::vector<AnyNode> walk(const AnyNode& root) {
  std::vector<AnyNode> nodes;
  if (!root) return nodes;
  nodes.push_back(root);
  for (const auto& [key, subDevice] : root->getSubDevices()) {
    for (const auto& node : walk(subDevice)) nodes.push_back(node);
  }
  return nodes;
}

// Everything that a tree holds, each value with its kind: for a person, and two are equal only if
// the trees are. Texts have their length in front.
std::string describe(const NodeRead& node, const std::string& lead = "\n  ") {
  if (!node) return " none";
  std::string out;
  const auto put = [&out](const auto& value) {
    out += ' ';
    if constexpr (std::is_same_v<decltype(value), const std::string&>) {
      out += std::to_string(value.size()) + ':' + value;
    } else if constexpr (std::is_convertible_v<decltype(value), std::string>) {
      out += value;  // a label
    } else {
      std::array<char, 32> digits{};
      out.append(digits.data(), std::to_chars(digits.begin(), digits.end(), +value).ptr);
    }
  };
  const auto line = [&](const auto&... values) {
    out += lead;
    (put(values), ...);
  };
  line("device", node->id, node->name, "class", node->deviceClass, "health", node->health.level,
       node->health.message);
  for (const auto& [key, property] : node->properties) {
    line(" property", key);
    if (property)
      line("  is", property->name, property->type, boost::get<std::string>(property->value));
  }
  for (const auto& [key, status] : node->statuses) {
    line(" status", key);
    if (!status) continue;
    const auto& value = status->getValue();
    line("  is", status->getName(), status->getType(), status->isValueSet() ? "set" : "not set",
         value.which());
    boost::apply_visitor(put, value);
  }
  for (const auto& [key, subDevice] : node->subDevices) {
    line(" sub-device", key);
    out += describe(subDevice, lead + "    ");
  }
  return out;
}

// The tree that the message describes. Throws std::runtime_error with the text of the refusal.
NodeRead read(const proto::DeviceNode& message) {
  const auto node = std::make_shared<Node>(
      Node{message.id(), message.name(), message.device_class(), message.global_status()});
  const auto require = [&](bool holds, const std::string& text) {
    if (!holds) throw std::runtime_error(node->refuse(node->refuse(text)));
  };
  for (const auto& element : message.properties()) {
    auto& entry = node->properties[element.name()];
    require(!entry, "Property " + element.name() + " already exists");
    entry = std::make_shared<Property>(element);
  }
  for (const auto& element : message.statuses()) {
    auto& entry = node->statuses[element.name()];
    require(!entry, "Status " + element.name() + " already exists");
    entry = std::make_shared<NamedStatus>(element);
  }
  for (const auto& element : message.sub_devices()) {
    const auto subDevice = read(element);
    for (const auto& below : walk(subDevice)) {
      require(below->id != node->id, "Sub-device has same ID as parent: " + node->id);
    }
    node->subDevices[subDevice->id] = subDevice;
  }
  return node;
}

// The same as the node and those below it; one that is filed twice is one here as well.
NodeRead read(const NodePtr& node, std::map<NodePtr, NodeRead>&& known = {}) {
  NodeRead& same = known[node];
  if (same || !node) return same;
  same = std::make_shared<Node>(Node{node->getDeviceId(), node->getName(), node->getDeviceClass(),
                                     node->getGlobalStatus(), node->getProperties(),
                                     node->getStatuses()});
  for (const auto& [key, subDevice] : node->getSubDevices()) {
    same->subDevices[key] = read(subDevice, std::move(known));  // NOLINT(bugprone-use-after-move)
  }
  return same;
}

std::string describe(const NodePtr& node) { return describe(read(node)); }

void write(const Node& node, proto::DeviceNode& message) {
  message.set_id(node.id);
  message.set_name(node.name);
  message.set_device_class(static_cast<DeviceNode::DeviceClass>(node.deviceClass));
  node.health.toProtoBuf(*message.mutable_global_status());
  for (const auto& [key, property] : node.properties) {
    if (property) property->toProtoBuf(*message.add_properties());
  }
  for (const auto& [key, status] : node.statuses) {
    if (status) status->toProtoBuf(*message.add_statuses());
  }
  for (const auto& [key, subDevice] : node.subDevices) {
    if (subDevice && !subDevice->id.empty()) write(*subDevice, *message.add_sub_devices());
  }
}

bool remove(Node& node, const std::string& key, bool recursive) {
  if (node.subDevices.erase(key) != 0) return true;
  return recursive && std::any_of(node.subDevices.begin(), node.subDevices.end(), [&](auto& entry) {
           return entry.second && remove(*entry.second, key, true);
         });
}

// The plain definition of a comparison takes too long for larger trees.
constexpr std::size_t MOST_NODES = 30;

// Bytes that a terminal does not show come as numbers.
std::string readable(const std::string& text) {
  std::string out;
  for (const char c : text) {
    const bool isShown = c == '\n' || (c >= ' ' && c <= '~');
    out += isShown ? std::string(1, c) : '\\' + std::to_string(static_cast<unsigned char>(c));
  }
  return out;
}

void check(bool holds, const std::string& promise) {
  if (!holds) throw std::logic_error(readable(promise));
}

void checkSame(const std::string& is, const std::string& expected, const char* promise) {
  if (is != expected) check(false, promise + ("\nIs: " + is) + "\nExpected: " + expected);
}

template <typename Message>
void checkSame(const Message& is, const Message& expected, const char* promise) {
  if (is.SerializeAsString() == expected.SerializeAsString()) return;
  checkSame(is.ShortDebugString(), '\n' + expected.ShortDebugString(), promise);
}

// When the action breaks a promise, what `tell` returns comes after it.
template <typename Action, typename Tell>
void explain(Action action, Tell tell) try {
  action();
} catch (const std::logic_error& broken) {
  throw std::logic_error(broken.what() + ('\n' + readable(tell())));
}

class Input {
 public:
  explicit Input(std::string bytes) : rest_(std::move(bytes)), letters_(oneIn(2) ? 3 : 12) {}

  bool atEnd() const { return rest_.empty(); }
  std::string bytes(std::size_t most) {
    const std::string taken = rest_.substr(0, most);
    rest_.erase(0, most);
    return taken;
  }
  template <typename Number>
  Number number() {
    Number value{};
    const std::string taken = bytes(sizeof value);
    std::memcpy(&value, taken.data(), taken.size());
    return value;
  }
  std::size_t below(std::size_t limit) { return number<std::uint8_t>() % limit; }
  bool oneIn(std::size_t n) { return below(n) == n - 1; }
  template <typename Container>
  const auto& pick(const Container& choices) {
    return choices[below(choices.size())];
  }

  std::string text() {
    static const std::vector<std::string> TEXTS{
        "", "\xff", std::string("a\0", 2), "aaaaaaaaaaaaaaaa",
        "bbbbbbbb\x1a\xdc\xd6z%N\xbe\x1e"};  // of one hash value
    if (oneIn(16)) return bytes(below(40));
    return oneIn(4) ? pick(TEXTS) : std::string(1, static_cast<char>('a' + below(letters_)));
  }
  double real() { return pick(std::vector<double>{0.0, -0.0, 1.5, NAN, HUGE_VAL, 1e300}); }
  template <typename Enum = int>
  Enum anyOf() {
    return static_cast<Enum>(oneIn(8) ? number<std::int32_t>() : static_cast<int>(below(6)));
  }

 private:
  std::string rest_;
  std::size_t letters_;
};

// Sets most fields. Numbers that an enumeration does not have become unknown fields.
void fill(Input& input, google::protobuf::Message& message) {
  using Field = google::protobuf::FieldDescriptor;
  const auto& fields = *message.GetReflection();
  for (int i = 0; i < message.GetDescriptor()->field_count(); ++i) {
    const Field* const field = message.GetDescriptor()->field(i);
    const bool isTree = field->message_type() == message.GetDescriptor();
    for (std::size_t n = field->is_repeated() ? input.below(isTree ? 4 : 3) : 0; n > 0; --n) {
      fill(input, *fields.AddMessage(&message, field));
    }
    if (field->is_repeated() || input.oneIn(16)) continue;
    const auto type = field->cpp_type();
    if (type == Field::CPPTYPE_MESSAGE) fill(input, *fields.MutableMessage(&message, field));
    if (type == Field::CPPTYPE_STRING) fields.SetString(&message, field, input.text());
    if (type == Field::CPPTYPE_INT64) fields.SetInt64(&message, field, input.anyOf());
    if (type == Field::CPPTYPE_UINT64) fields.SetUInt64(&message, field, input.below(3));
    if (type == Field::CPPTYPE_DOUBLE) fields.SetDouble(&message, field, input.real());
    if (type == Field::CPPTYPE_ENUM) fields.SetEnumValue(&message, field, input.anyOf());
  }
}

NamedStatus anyStatus(Input& input) {
  NamedStatus status(input.text(), input.anyOf<NamedStatus::Type>());
  const std::vector<NamedStatus::Value> values{
      input.number<long>(), input.number<unsigned long>() % 3, input.real(), input.text()};
  if (!input.oneIn(4)) status.setValue(input.pick(values));
  return status;
}

// Describes the tree that is made, or says why it is refused.
template <typename Make>
std::string outcomeOf(Make make) try {
  return describe(make());
} catch (const std::runtime_error& refused) {
  return refused.what();
}

NodePtr build(const proto::DeviceNode& message) {
  NodePtr built;
  const auto outcome = outcomeOf([&] { return built = std::make_shared<DeviceNode>(message); });
  const auto expected = outcomeOf([&] { return read(message); });
  explain([&] { checkSame(outcome, expected, "a message builds its tree or is refused"); },
          [&] { return "Message: " + message.ShortDebugString(); });
  return built;
}

// The map of a node, to be edited as no operation does it.
template <typename Map>
Map& mutableMap(const Map& entries) {
  return const_cast<Map&>(entries);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
}

// From SPOILT on the configuration changes.
enum Edit { VALUE, KEY, OWN, SPOILT, ID, PROPERTY, STATUS, SUB_DEVICE, REMOVAL, EDITS };

// Changes one of the nodes, which belong to several trees or to none; the configuration on request
// only. Appends to the story what it does.
void edit(Input& input, std::vector<NodePtr>& nodes, bool configuration, std::string& story) {
  const std::size_t number = input.below(nodes.size());
  const NodePtr node = nodes[number];
  const std::string before = describe(node);
  const auto expected = read(node);
  const std::string text = input.text();
  const auto kind = static_cast<Edit>(input.below(configuration ? EDITS : SPOILT));
  const auto tell = [&](const std::string& what) {
    story += "\n  node " + std::to_string(number) + ", \"" + expected->id + "\": " + what;
  };
  std::string error = kind == OWN ? "" : "left over";
  std::string refusal;
  bool done = true;
  if (kind == VALUE) {
    const auto entry = node->getStatuses().find(text);
    const auto status = entry == node->getStatuses().end() ? nullptr : entry->second;
    check(node->getStatus(text) == status, "a query hands out the tree's own object");
    const NamedStatus given = anyStatus(input);
    if (status) tell("value of status " + text + ", as of " + given.debugString());
    if (status && given.isValueSet()) status->setValue(given.getValue());
    if (status && !given.isValueSet()) status->unsetValue();
    return;
  }
  if (kind == KEY) {
    auto& entries = mutableMap(node->getSubDevices());
    if (entries.empty() || entries.count("") != 0) return;
    const auto place = static_cast<std::ptrdiff_t>(input.below(entries.size()));
    auto entry = entries.extract(std::next(entries.begin(), place));
    tell("no key for sub-device " + entry.key());
    entry.key().clear();
    entries.insert(std::move(entry));
    return;
  }
  if (kind == SPOILT) {
    if (input.oneIn(4)) mutableMap(node->getProperties())[text] = nullptr;
    const auto other = std::make_shared<NamedStatus>(text, input.anyOf<NamedStatus::Type>());
    if (input.oneIn(2)) mutableMap(node->getStatuses())[text] = input.oneIn(2) ? other : nullptr;
    if (input.oneIn(4)) mutableMap(node->getSubDevices())[text] = nullptr;
    const auto property = node->getProperties().begin();
    if (property != node->getProperties().end() && property->second) property->second->value = text;
    tell("spoilt with " + text + " to" + describe(node));
    return;
  }
  if (kind == OWN) {
    expected->deviceClass = input.anyOf();
    expected->health = {input.anyOf<GlobalStatus::Level>(), text};
    if (configuration) expected->name = text;
    tell("class " + std::to_string(expected->deviceClass) + ", name " + expected->name +
         ", health " + expected->health.debugString());
    node->setDeviceClass(static_cast<DeviceNode::DeviceClass>(expected->deviceClass));
    node->setGlobalStatus(expected->health);
    node->setName(expected->name);
  } else if (kind == ID) {
    tell("setDeviceId " + text);
    if (!expected->id.empty()) refusal = "Cannot change a device ID";
    if (expected->id.empty()) expected->id = text;
    done = node->setDeviceId(text, error);
  } else if (kind == PROPERTY) {
    const Property property(text, input.anyOf<Property::Type>(), input.text());
    tell("addProperty " + property.debugString());
    const auto [entry, isNew] = expected->properties.try_emplace(text);
    if (isNew) entry->second = std::make_shared<Property>(property);
    if (!isNew) refusal = "Property " + text + " already exists";
    done = node->addProperty(property, error);
  } else if (kind == STATUS) {
    const NamedStatus status = anyStatus(input);
    tell("addStatus " + status.debugString());
    const auto [entry, isNew] = expected->statuses.try_emplace(status.getName());
    if (isNew) entry->second = std::make_shared<NamedStatus>(status);
    if (!isNew) refusal = "Status " + status.getName() + " already exists";
    done = node->addStatus(status, error);
  } else if (kind == SUB_DEVICE) {
    NodePtr subDevice = input.oneIn(3) ? input.pick(nodes) : nullptr;
    if (!subDevice && !input.oneIn(16)) {
      subDevice =
          std::make_shared<DeviceNode>(input.oneIn(4) ? "" : text, "", DeviceNode::DeviceClass{});
      nodes.push_back(subDevice);
    }
    const bool replace = input.oneIn(2);
    tell((replace ? "addSubDevice, replace, node " : "addSubDevice, node ") +
         std::to_string(std::find(nodes.begin(), nodes.end(), subDevice) - nodes.begin()) +
         describe(subDevice));
    const std::string id = subDevice ? subDevice->getDeviceId() : "";
    const auto isParent = [&](const auto& below) { return below->getDeviceId() == expected->id; };
    const auto all = walk(subDevice);
    if (!subDevice) {
      refusal = "Trying to add an invalid (null) sub-device";
    } else if (std::any_of(all.begin(), all.end(), isParent)) {
      refusal = "Sub-device has same ID as parent: " + expected->id;
    } else if (!replace && expected->subDevices.count(id) != 0) {
      refusal = "Sub-device already exists: " + id;
    } else {
      expected->subDevices[id] = read(subDevice);
    }
    done = node->addSubDevice(subDevice, replace, error);
    if (done && id.empty() && input.oneIn(2)) {  // a device below one of the same identifier
      tell("its identifier for the new sub-device as well");
      subDevice->setDeviceId(expected->id, error);
      return;
    }
    for (const auto& any : nodes) {
      if (walk(any).size() <= MOST_NODES) continue;
      tell("too large, sub-device " + id + " taken out again");
      mutableMap(node->getSubDevices()).erase(id);
      return;
    }
  } else {
    const bool recursive = input.oneIn(2);
    tell((recursive ? "removeSubDevice, recursive, " : "removeSubDevice ") + text);
    if (!remove(*expected, text, recursive)) refusal = text + " not found";
    done = node->removeSubDevice(text, recursive, error);
  }
  checkSame(done ? "done" + error : error, refusal.empty() ? "done" : expected->refuse(refusal),
            "an operation is refused as its definition says");
  checkSame(describe(node), done ? describe(expected) : before,
            "an operation has its effect and no other");
}

void checkMessages(const NodePtr& tree, proto::DeviceNode& kept) {
  proto::DeviceNode expected;
  write(*read(tree), expected);
  tree->toProtoBuf(kept);
  checkSame(kept, expected, "a tree is written as it is");
  checkSame(tree->toProtoBuf(), expected, "at each call");
  build(kept);
}

void checkCopy(const NodePtr& tree) {
  const auto copied = std::make_shared<DeviceNode>(*tree);
  checkSame(describe(copied), describe(tree), "a copy is equal");
  checkSame(copied->debugString(), tree->debugString(), "in words as well");
  for (const auto& node : walk(copied)) {
    bool isOwn = node.use_count() == 2;  // beside the owner the list just made
    for (const auto& [key, property] : node->getProperties()) isOwn &= property.use_count() <= 1;
    for (const auto& [key, status] : node->getStatuses()) isOwn &= status.use_count() <= 1;
    check(isOwn, "a copy shares nothing");
  }
}

void checkQueries(const NodePtr& tree, const std::string& text) {
  const auto nodes = walk(tree);
  std::size_t place = 0;
  const auto isOther = [&](const DeviceNode& met) { return &met != nodes.at(place++).get(); };
  check(!anyNode(std::as_const(*tree), isOther) && place == nodes.size(), "a walk meets all nodes");
  const auto statuses = tree->getAllStatuses();
  std::map<std::string, NodePtr> first;
  for (const auto& node : nodes) first.try_emplace(node->getDeviceId(), node);
  check(statuses.size() == first.size(), "the statuses of each identifier");
  for (const auto& [id, node] : first) {
    check(tree->getDeviceById(id) == node, "the first device of an identifier");
    check(statuses.at(id) == node->getStatuses(), "the statuses of the first device");
  }
  check(first.count(text) != 0 || !tree->getDeviceById(text), "no device of that identifier");

  for (const bool recursive : {false, true}) {
    std::vector<NodePtr> below(recursive ? nodes.begin() + 1 : nodes.end(), nodes.end());
    for (const auto& [key, node] : tree->getSubDevices()) {
      if (!recursive && node) below.push_back(node);
    }
    std::list<std::string> ids;
    std::list<NodePtr> named;
    std::list<NodePtr> selected;
    for (const auto& node : below) {
      ids.push_back(node->getDeviceId());
      if (node->getName() == text) named.push_back(node);
      const auto entry = node->getProperties().find(text);
      if (entry == node->getProperties().end() || !entry->second) continue;
      if (boost::get<std::string>(entry->second->value) == text) selected.push_back(node);
    }
    check(tree->getSubDeviceIds(recursive) == ids, "identifiers below");
    check(tree->getSubDevicesByName(text, recursive) == named, "devices by name");
    check(tree->getSubDevicesByProperty(text, text, recursive) == selected, "devices by property");
    ids.push_front(tree->getDeviceId());
    check(!recursive || tree->getTreeDeviceIds() == ids, "all identifiers in walk order");
  }
}

bool isUnique(const NodePtr& tree) {
  return !tree || tree->getAllStatuses().size() == walk(tree).size();
}

// Whether a message says all that is in the tree, and events carry it.
bool isRegular(const NodePtr& tree) {
  if (!tree) return true;
  proto::DeviceNode message;
  write(*read(tree), message);
  for (const auto& node : walk(tree)) {
    for (const auto& [key, status] : node->getStatuses()) {
      if (!status || !sameValue(*status, *status)) return false;  // not a number
    }
  }
  return isUnique(tree) && describe(read(message)) == describe(tree);
}

// Whether all the changes could be carried out; the tree is of no use if not.
bool changeStatuses(const proto::StatusChangeEvent& changes, const NodePtr& tree) {
  for (const auto& change : changes.global_status_changes()) {
    const auto device = tree->getDeviceById(change.device_id());
    if (!device && !change.device_id().empty()) return false;
    if (device) device->setGlobalStatus(change.status());
  }
  for (const auto& change : changes.named_status_changes()) {
    const auto device = tree->getDeviceById(change.device_id());
    if (!device && change.device_id().empty()) continue;
    const auto status = device ? device->getStatus(change.status().name()) : nullptr;
    const NamedStatus now = change.status();
    if (!status || status->getType() != now.getType()) return false;
    *status = now;
  }
  return true;
}

// Applies the event to the trees that a sender and a receiver keep, as it is or damaged.
void checkApplying(Input& input, const NodePtr& oldTree, const NodePtr& newTree, Event event) {
  const bool damaged = input.oneIn(3);
  const bool exact = !damaged && isRegular(oldTree) && isRegular(newTree);
  auto& changes = *event.MutableExtension(proto::StatusChangeEvent::base);
  if (damaged) event.set_event_type(Event::STATUS_CHANGE);
  if (damaged) fill(input, changes);
  if (damaged && input.oneIn(4)) fill(input, event);
  Event received;
  received.ParsePartialFromString(event.SerializePartialAsString());
  NodePtr snapshot = oldTree ? std::make_shared<DeviceNode>(*oldTree) : nullptr;
  NodePtr follower = oldTree && exact ? build(oldTree->toProtoBuf()) : nullptr;
  const auto tell = [&event] { return "Event applied: " + event.ShortDebugString(); };
  const auto apply = [&](const Event& applied, NodePtr& tree) {
    const std::string before = describe(tree);
    const NodePtr held = tree;
    const auto changed = tree ? std::make_shared<DeviceNode>(*tree) : nullptr;
    std::string error = "left over";
    const bool done = EventHelper::ApplyEvent(applied, tree, error);
    const std::string after = describe(tree);
    check(done == error.empty(), "a refused event has a text");
    if (!done) checkSame(after, before, "a refused event changes nothing");
    check(done && applied.event_type() != Event::STATUS_CHANGE ? describe(held) == before
                                                               : tree == held,
          "a tree is changed in place or let go as it was");
    if (changed && isUnique(changed) && applied.has_event_type() &&
        applied.event_type() == Event::STATUS_CHANGE) {
      check(done == changeStatuses(changes, changed), "changes are refused as a whole");
      if (done) checkSame(after, describe(changed), "changes are carried out");
    }
    check(!done || EventHelper::ApplyEvent(applied, tree, error), "an event is applied twice");
    checkSame(describe(tree), after, "applied twice is applied once");
    Event none;
    check(!exact || (done && !EventHelper::ComputeEvent(tree, newTree, none)),
          "an event leads from the old tree to the new one, but here to" + after);
  };
  explain([&] { apply(event, snapshot); }, tell);
  if (exact) explain([&] { apply(received, follower); }, tell);
}

template <typename Map, typename Report>
void forEachKey(const Map& oldMap, const Map& newMap, Report report) {
  std::map<std::string, std::pair<typename Map::mapped_type, typename Map::mapped_type>> pairs;
  for (const auto& [key, value] : oldMap) pairs[key].first = value;
  for (const auto& [key, value] : newMap) pairs[key].second = value;
  for (const auto& [key, pair] : pairs) report(key, pair.first, pair.second);
}

void listDifferences(const NodeRead& before, const NodeRead& after, std::string& list) {
  const Node& device = *(after ? after : before);
  const auto add = [&](std::string what, auto& oldEntry, auto& newEntry, auto change, auto name) {
    what += !oldEntry ? " added" : !newEntry ? " removed" : change;
    list += "\n  " + device.id + ": " + what + "|" + name;
  };
  if (!before || !after) return add("device", before, after, "", device.name);
  if (before->name != after->name) {
    add("device", before, after, " renamed to " + after->name, device.name);
  }
  forEachKey(before->properties, after->properties, [&](auto& key, auto& left, auto& right) {
    if (left && right && left->value == right->value) return;
    add("property " + key, left, right, " changed", key);
  });
  forEachKey(before->statuses, after->statuses, [&](auto& key, auto& left, auto& right) {
    if (left && right && left->getType() == right->getType()) return;
    add("status " + key, left, right, " has another type", key);
  });
  forEachKey(before->subDevices, after->subDevices,
             [&](auto&, auto& left, auto& right) { listDifferences(left, right, list); });
}

void checkDifferences(const NodePtr& oldTree, const NodePtr& newTree, bool same) {
  std::list<orv::device_tree::ConfigurationDifference> differences(1);  // appended to
  utils::GetConfigurationDifferences(oldTree, newTree, differences);
  std::string listed;
  for (const auto& difference : differences) {
    listed += "\n  " + difference.debugString() + "|" + difference.name;
  }
  check(same == (differences.size() == 1) || !isUnique(oldTree) || !isUnique(newTree),
        "configurations that differ have differences");
  if (same || !isRegular(oldTree) || !isRegular(newTree)) return;
  std::string expected = "\n  : device added|";
  const bool replaced = oldTree && newTree && oldTree->getDeviceId() != newTree->getDeviceId();
  if (replaced) listDifferences(read(oldTree), nullptr, expected);
  listDifferences(replaced ? nullptr : read(oldTree), read(newTree), expected);
  checkSame(listed, expected, "the differences of two configurations");
}

void writeChanges(const GlobalChanges& healths, const NamedChanges& statuses, Event& event) {
  auto& changes = *event.MutableExtension(proto::StatusChangeEvent::base);
  const auto write = [](auto& change, const std::string& id, const auto& status) {
    change.set_device_id(id);
    status.toProtoBuf(*change.mutable_status());
  };
  for (const auto& [id, now] : healths) write(*changes.add_global_status_changes(), id, now);
  for (const auto& [id, now] : statuses) write(*changes.add_named_status_changes(), id, *now);
}

void checkComparison(Input& input, const NodePtr& oldTree, const NodePtr& newTree, Event& event) {
  const bool same = isSameConfiguration(oldTree, newTree);
  check(utils::IsSameConfiguration(oldTree, newTree) == same,
        same ? "IsSameConfiguration: it is the same" : "IsSameConfiguration: it differs");
  checkDifferences(oldTree, newTree, same);

  GlobalChanges healths, expectedHealths;
  NamedChanges statuses, expectedStatuses;
  getStatusDifferences(oldTree, newTree, expectedHealths, expectedStatuses);
  for (const std::size_t times : {1U, 2U}) {
    utils::GetStatusDifferences(oldTree, newTree, healths, statuses);
    check(healths.size() == times * expectedHealths.size(), "changes of health are appended");
    check(statuses.size() == times * expectedStatuses.size(), "changes of statuses are appended");
  }
  check(std::equal(expectedStatuses.begin(), expectedStatuses.end(), statuses.begin()) &&
            std::equal(expectedHealths.begin(), expectedHealths.end(), healths.begin()),
        "the changes of two trees");

  Event expected;
  if (!same || !healths.empty() || !statuses.empty()) {
    expected.set_event_type(!oldTree   ? Event::DEVICE_ADD
                            : !newTree ? Event::DEVICE_REMOVE
                            : !same    ? Event::CONFIGURATION_CHANGE
                                       : Event::STATUS_CHANGE);
  }
  if (!oldTree && newTree) {
    write(*read(newTree),
          *expected.MutableExtension(proto::DeviceAddEvent::base)->mutable_device());
  } else if (oldTree && !newTree) {
    auto& removal = *expected.MutableExtension(proto::DeviceRemoveEvent::base);
    removal.set_device_id(oldTree->getDeviceId());
  } else if (!same) {
    write(*read(newTree),
          *expected.MutableExtension(proto::ConfigurationChangeEvent::base)->mutable_device());
  } else if (expected.has_event_type()) {
    writeChanges(expectedHealths, expectedStatuses, expected);
  }
  const bool computed = EventHelper::ComputeEvent(oldTree, newTree, event);
  checkSame(event, expected, "the event says what differs");
  check(computed == expected.has_event_type(), "an event exactly when something differs");
  if (computed) checkApplying(input, oldTree, newTree, event);
}

// One life. Appends to the story the trees that it begins with, and each edit.
void live(Input input, std::string& story) {
  static Event event;  // kept from call to call, as a reporting process keeps it
  static proto::DeviceNode message;

  std::vector<NodePtr> trees;
  for (std::size_t i = 0; i < 2; ++i) {
    message.Clear();
    Input part(input.bytes(400));
    if (part.oneIn(16)) message.ParsePartialFromString(part.bytes(300));
    fill(part, message);
    trees.push_back(build(message));
  }
  const auto live = std::make_shared<DeviceNode>(trees[0] ? *trees[0] : DeviceNode());
  trees.push_back(live);
  std::vector<NodePtr> nodes;
  for (const auto& tree : trees) {
    story += "\nNodes from " + std::to_string(nodes.size()) + ':' + describe(tree);
    for (const auto& node : walk(tree)) nodes.push_back(node);
  }
  for (const std::size_t edits : {32U, 16U, 2U}) {  // those in the middle of the state only
    story += "\nEdits before the next copy:";
    while (!input.atEnd() && !input.oneIn(edits)) edit(input, nodes, edits != 16, story);
    trees.push_back(std::make_shared<DeviceNode>(*live));
  }

  const std::string text = input.text();
  for (const auto& oldTree : trees) {
    for (const auto& newTree : trees) {
      const auto checkAll = [&] {
        checkComparison(input, oldTree, newTree, event);
        if (!oldTree || oldTree != newTree) return;
        checkMessages(oldTree, message);
        checkCopy(oldTree);
        checkQueries(oldTree, text);
      };
      explain(checkAll,
              [&] { return "Old tree:" + describe(oldTree) + "\nNew tree:" + describe(newTree); });
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const google::protobuf::LogSilencer silence;  // about texts that are not UTF-8
  const Input input({reinterpret_cast<const char*>(data), size});
  std::string story;
  explain([&] { live(input, story); }, [&] { return "How it came to this:" + story; });
  return 0;
}
