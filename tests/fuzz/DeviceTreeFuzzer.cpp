// Takes the bytes for messages of other programs and for calls of a careless caller, runs every
// operation on what comes of them and holds each result against its plain definition.

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>

#include "tests/fuzz/PlainTree.h"

namespace {

using namespace plain;
namespace utils = orv::device_tree::utils;
using Event = proto::DeviceToOrvServiceEvent;

// The largest tree on which everything is run, and the most pairs of devices that a comparison by
// its plain definition may take.
constexpr std::size_t MOST_NODES = 200;
constexpr std::size_t MOST_PAIRS = 2000;

void check(bool holds, const char* claim) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", claim);
  std::abort();
}

class Input {
 public:
  Input(const std::uint8_t* bytes, std::size_t size) : provider_(bytes, size) {}

  bool atEnd() { return provider_.remaining_bytes() == 0; }
  std::string bytes() { return provider_.ConsumeRandomLengthString(); }
  std::size_t below(std::size_t limit) {
    return provider_.ConsumeIntegralInRange<std::size_t>(0, limit - 1);
  }
  bool oneIn(std::size_t n) { return below(n) == n - 1; }
  template <typename Container>
  const auto& pick(const Container& choices) {
    return choices[below(choices.size())];
  }

  // The last three have one hash value.
  std::string text() {
    static const std::vector<std::string> TEXTS{"",
                                                "a",
                                                "b",
                                                "c",
                                                "\xff\xc3",
                                                std::string("a\0", 2),
                                                "aaaaaaaaaaaaaaaa",
                                                "bbbbbbbb\x1a\xdc\xd6z%N\xbe\x1e",
                                                "ccccccccS\xa5\x0b~\x12\xd9"
                                                "8\x85"};
    return oneIn(16) ? provider_.ConsumeRandomLengthString(40) : pick(TEXTS);
  }

  // A number of an enumeration or not.
  template <typename Enum>
  Enum anyOf() {
    return static_cast<Enum>(oneIn(8) ? provider_.ConsumeIntegral<std::int32_t>()
                                      : static_cast<std::int32_t>(below(6)));
  }

  template <typename Number>
  Number number() {
    return oneIn(2) ? static_cast<Number>(below(2)) : provider_.ConsumeIntegral<Number>();
  }

  double real() {
    static const std::vector<double> REALS{0.0,
                                           -0.0,
                                           1.5,
                                           std::nan(""),
                                           std::numeric_limits<double>::infinity(),
                                           std::numeric_limits<double>::max()};
    return oneIn(4) ? provider_.ConsumeFloatingPoint<double>() : pick(REALS);
  }

 private:
  FuzzedDataProvider provider_;
};

proto::NamedStatus statusMessage(Input& input) {
  proto::NamedStatus message;
  if (!input.oneIn(8)) message.set_name(input.text());
  if (!input.oneIn(8)) message.set_type(input.anyOf<proto::NamedStatus::Type>());
  if (input.oneIn(2)) message.set_string_value(input.text());
  if (input.oneIn(2)) message.set_int_value(input.number<std::int64_t>());
  if (input.oneIn(2)) message.set_uint_value(input.number<std::uint64_t>());
  if (input.oneIn(2)) message.set_double_value(input.real());
  return message;
}

proto::DeviceNode composedMessage(Input& input) {
  proto::DeviceNode root;
  std::vector<proto::DeviceNode*> nodes{&root};
  while (true) {
    proto::DeviceNode& node = *nodes.back();
    if (!input.oneIn(8)) node.set_id(input.text());
    if (!input.oneIn(8)) node.set_name(input.text());
    if (!input.oneIn(8)) node.set_device_class(input.anyOf<DeviceNode::DeviceClass>());
    for (std::size_t i = input.below(3); i > 0; --i) {
      proto::Property& property = *node.add_properties();
      if (!input.oneIn(8)) property.set_name(input.text());
      if (!input.oneIn(8)) property.set_type(input.anyOf<proto::Property::Type>());
      if (!input.oneIn(8)) property.set_value(input.text());
    }
    if (!input.oneIn(8)) {
      proto::GlobalStatus& health = *node.mutable_global_status();
      if (!input.oneIn(8)) health.set_level(input.anyOf<proto::GlobalStatus::Level>());
      if (!input.oneIn(2)) health.set_message(input.text());
    }
    for (std::size_t i = input.below(3); i > 0; --i) *node.add_statuses() = statusMessage(input);
    if (input.atEnd() || nodes.size() == 40 || input.oneIn(10)) return root;
    proto::DeviceNode& parent = input.oneIn(2) ? node : *input.pick(nodes);
    nodes.push_back(parent.add_sub_devices());
  }
}

proto::DeviceNode anyMessage(Input& input) {
  if (input.oneIn(2)) return composedMessage(input);
  proto::DeviceNode message;
  message.ParsePartialFromString(input.bytes());  // what it got before it failed will do
  return message;
}

NamedStatus anyStatus(Input& input) {
  const auto type = input.anyOf<NamedStatus::Type>();
  const std::string name = input.text();
  switch (input.below(6)) {
    case 0:
      return NamedStatus(name, type, input.number<long>());
    case 1:
      return NamedStatus(name, type, input.number<unsigned long>());
    case 2:
      return NamedStatus(name, type, input.real());
    case 3:
      return NamedStatus(name, type, input.text());
    case 4:
      return NamedStatus(statusMessage(input));
    default:
      return NamedStatus(name, type);
  }
}

// Builds the tree, or finds it refused as the plain definition has it refused.
NodePtr build(const proto::DeviceNode& message) {
  const std::string before = message.SerializePartialAsString();
  NodePtr expected;
  std::string expectedText;
  try {
    expected = construct(message);
  } catch (const std::runtime_error& refusal) {
    expectedText = refusal.what();
  }
  NodePtr built;
  try {
    built = std::make_shared<DeviceNode>(message);
    check(expected != nullptr, "a message is refused when an editing operation would be");
    check(dump(*built, false) == dump(*expected, false), "a message builds the tree it describes");
  } catch (const std::runtime_error& refusal) {
    check(expected == nullptr, "a message is refused only when an editing operation would be");
    check(refusal.what() == expectedText, "a refused message names the node");
  }
  check(message.SerializePartialAsString() == before, "construction leaves the message alone");
  return built;
}

void checkWriting(const NodePtr& tree, proto::DeviceNode& kept) {
  const proto::DeviceNode message = tree->toProtoBuf();
  const std::string bytes = message.SerializeAsString();
  tree->toProtoBuf(kept);
  check(kept.SerializeAsString() == bytes, "a reused message is like a new one");

  const NodePtr readBack = build(message);
  if (readBack != nullptr) {
    build(readBack->toProtoBuf());
    if (isRegular(*tree)) {
      check(dump(*readBack, false) == dump(*tree, false), "written and read back is equal");
    }
  } else {
    check(!isRegular(*tree), "what was written can be read back");
  }
}

void checkCopy(const NodePtr& tree) {
  const auto copy = std::make_shared<DeviceNode>(*tree);
  check(dump(*copy, false) == dump(*tree, false), "a copy is equal");
  check(copy->debugString(3) == tree->debugString(3), "a copy has the same text");
  std::set<const void*> objects;
  for (const bool fromCopy : {false, true}) {
    for (const auto& node : walk(fromCopy ? copy : tree)) {
      const auto meet = [&, fromCopy](const void* object) {
        check(fromCopy ? objects.insert(object).second : (objects.insert(object), true),
              "a copy shares nothing");
      };
      meet(node.get());
      for (const auto& [key, property] : node->getProperties()) meet(property.get());
      for (const auto& [key, status] : node->getStatuses()) meet(status.get());
    }
  }
}

void checkQueries(const NodePtr& tree, const std::string& text) {
  const auto nodes = walk(tree);
  const auto ids = tree->getTreeDeviceIds();
  check(std::equal(nodes.begin(), nodes.end(), ids.begin(), ids.end(),
                   [](auto& node, auto& id) { return node->getDeviceId() == id; }),
        "all identifiers in walk order");
  check(tree->getAllStatuses().size() == std::set<std::string>(ids.begin(), ids.end()).size(),
        "an entry for each identifier");
  tree->getSubDevicesByName(text, true);
  tree->getSubDevicesByProperty(text, text, true);
  for (const auto& id : ids) {
    const auto found = std::find_if(nodes.begin(), nodes.end(),
                                    [&](auto& node) { return node->getDeviceId() == id; });
    check(tree->getDeviceById(id) == *found, "device by id");
  }
  for (const auto& node : nodes) {
    for (const auto& [key, status] : node->getStatuses()) {
      try {
        check((*status == *status) != (*status != *status), "equal or different");
      } catch (const boost::bad_get&) {
      }
    }
  }
}

// How many pairs of devices the plain definition compares, MOST_PAIRS at most.
class PairCount {
 public:
  std::size_t operator()(const NodePtr& oldNode, const NodePtr& newNode) {
    const auto [entry, isNew] = counts_.try_emplace({oldNode.get(), newNode.get()}, 1);
    std::size_t& count = entry->second;
    if (!isNew) return count;
    for (const auto& id : oldNode->getSubDeviceIds(false)) {
      const NodePtr oldSub = oldNode->getDeviceById(id);
      const NodePtr newSub = newNode->getDeviceById(id);
      if (newSub == nullptr || (oldSub == oldNode && newSub == newNode)) continue;
      count = std::min(count + (*this)(oldSub, newSub), MOST_PAIRS);
    }
    return count;
  }

 private:
  std::map<std::pair<const DeviceNode*, const DeviceNode*>, std::size_t> counts_;
};

// Carries out what the event says.
NodePtr replay(const NodePtr& oldTree, const Event& event) {
  if (event.event_type() == Event::DEVICE_REMOVE) return nullptr;
  if (event.event_type() == Event::DEVICE_ADD) {
    return build(event.GetExtension(proto::DeviceAddEvent::base).device());
  }
  if (event.event_type() == Event::CONFIGURATION_CHANGE) {
    return build(event.GetExtension(proto::ConfigurationChangeEvent::base).device());
  }
  const NodePtr tree = build(oldTree->toProtoBuf());
  const auto& changes = event.GetExtension(proto::StatusChangeEvent::base);
  for (const auto& change : changes.global_status_changes()) {
    tree->getDeviceById(change.device_id())->setGlobalStatus(GlobalStatus(change.status()));
  }
  for (const auto& change : changes.named_status_changes()) {
    const NamedStatus given(change.status());
    const auto status = tree->getDeviceById(change.device_id())->getStatus(given.getName());
    given.isValueSet() ? status->setValue(given.getValue()) : status->unsetValue();
  }
  return tree;
}

bool isReplayable(const NodePtr& tree) {
  if (!tree) return true;
  if (!isRegular(*tree)) return false;
  const auto ids = tree->getTreeDeviceIds();
  if (std::set<std::string>(ids.begin(), ids.end()).size() != ids.size()) return false;
  for (const auto& node : walk(tree)) {
    for (const auto& [key, status] : node->getStatuses()) {
      const auto* real = boost::get<double>(&status->getValue());
      if (real != nullptr && std::isnan(*real)) return false;
    }
  }
  return true;
}

void checkComparison(const NodePtr& oldTree, const NodePtr& newTree, Event& event) {
  if (oldTree && newTree && PairCount()(oldTree, newTree) >= MOST_PAIRS) return;
  const bool same = isSameConfiguration(oldTree, newTree);
  check(utils::IsSameConfiguration(oldTree, newTree) == same, "same configuration");

  GlobalChanges expectedGlobal, global{{"kept", GlobalStatus()}};
  NamedChanges expectedNamed, named{{"kept", nullptr}};
  getStatusDifferences(oldTree, newTree, expectedGlobal, expectedNamed);
  utils::GetStatusDifferences(oldTree, newTree, global, named);
  check(global.front().first == "kept" && named.front().first == "kept", "entries are appended");
  global.pop_front(), named.pop_front();
  check(global == expectedGlobal && named == expectedNamed, "status differences");

  Event expected;
  if (!oldTree && newTree) {
    expected.set_event_type(Event::DEVICE_ADD);
    *expected.MutableExtension(proto::DeviceAddEvent::base)->mutable_device() =
        newTree->toProtoBuf();
  } else if (oldTree && !newTree) {
    expected.set_event_type(Event::DEVICE_REMOVE);
    expected.MutableExtension(proto::DeviceRemoveEvent::base)
        ->set_device_id(oldTree->getDeviceId());
  } else if (!same) {
    expected.set_event_type(Event::CONFIGURATION_CHANGE);
    *expected.MutableExtension(proto::ConfigurationChangeEvent::base)->mutable_device() =
        newTree->toProtoBuf();
  } else if (!global.empty() || !named.empty()) {
    expected.set_event_type(Event::STATUS_CHANGE);
    *expected.MutableExtension(proto::StatusChangeEvent::base) = statusChangeEvent(global, named);
  }
  const bool computed = utils::EventHelper::ComputeEvent(oldTree, newTree, event);
  check(computed == expected.has_event_type(), "an event exactly when something differs");
  check(event.SerializeAsString() == expected.SerializeAsString(), "the event says what differs");

  if (!computed || !isReplayable(oldTree) || !isReplayable(newTree)) return;
  Event none;
  check(!utils::EventHelper::ComputeEvent(replay(oldTree, event), newTree, none),
        "the event leads from the old tree to the new one");
}

// Edits trees that may share nodes with each other.
class Editor {
 public:
  Editor(Input& input, const std::vector<NodePtr>& trees) : input_(input), trees_(trees) {
    for (const auto& tree : trees) {
      for (const auto& node : walk(tree)) nodes_.push_back(node);
    }
  }

  const std::vector<NodePtr>& nodes() const { return nodes_; }
  void release() { trees_.clear(), nodes_.clear(); }

  // One operation on one of the nodes; those that change the configuration on request only.
  void edit(bool configuration) {
    const NodePtr node = input_.pick(nodes_);
    const std::string header = node->messageHeader() + ": ";
    const std::string before = dumpAll();
    std::string error = "left over";
    const auto checkOutcome = [&](bool done) {
      check(done ? error.empty() : error.size() > header.size(), "a refusal has a text");
      check(done || error.compare(0, header.size(), header) == 0, "a refusal names the node");
      check(done || dumpAll() == before, "a refused operation changes nothing");
      return done;
    };
    switch (input_.below(configuration ? 11 : 4)) {
      case 0:
        node->setDeviceClass(input_.anyOf<DeviceNode::DeviceClass>());
        break;
      case 1:
        node->setGlobalStatus({input_.anyOf<GlobalStatus::Level>(), input_.text()});
        break;
      case 2:
        if (const auto status = anyEntry(node->getStatuses())) {
          input_.oneIn(3) ? status->unsetValue() : status->setValue(anyStatus(input_).getValue());
        }
        break;
      case 3:
        fileAgainLate(*node);
        break;
      case 4:
        node->setName(input_.text());
        break;
      case 5:
        checkOutcome(node->setDeviceId(input_.text(), error));
        break;
      case 6: {
        const Property property(input_.text(), input_.anyOf<Property::Type>(), input_.text());
        checkOutcome(node->addProperty(property, error));
        break;
      }
      case 7:
        checkOutcome(node->addStatus(anyStatus(input_), error));
        break;
      case 8: {
        const NodePtr subDevice = anyNode();
        if (!checkOutcome(node->addSubDevice(subDevice, input_.oneIn(2), error))) break;
        const std::string key = subDevice->getDeviceId();
        if (key.empty() && input_.oneIn(2)) {
          subDevice->setDeviceId(input_.oneIn(2) ? node->getDeviceId() : input_.text(), error);
        }
        if (largest() > MOST_NODES) node->removeSubDevice(key, false, error);
        break;
      }
      case 9:
        checkOutcome(node->removeSubDevice(input_.text(), input_.oneIn(2), error));
        break;
      default:
        if (const auto property = anyEntry(node->getProperties())) {
          property->value = input_.text();
          if (input_.oneIn(4)) property->name = input_.text();
        }
    }
  }

 private:
  NodePtr anyNode() {
    if (input_.oneIn(16)) return nullptr;
    if (input_.oneIn(4)) return input_.pick(nodes_);
    nodes_.push_back(std::make_shared<DeviceNode>(input_.oneIn(3) ? "" : input_.text(),
                                                  input_.text(), DeviceNode::DeviceClass{}));
    return nodes_.back();
  }

  template <typename Value>
  std::shared_ptr<Value> anyEntry(const std::map<std::string, std::shared_ptr<Value>>& entries) {
    if (entries.empty()) return nullptr;
    return std::next(entries.begin(), static_cast<std::ptrdiff_t>(input_.below(entries.size())))
        ->second;
  }

  // Puts a device like one of the sub-devices in its place, but under the empty key.
  void fileAgainLate(DeviceNode& node) {
    const NodePtr subDevice = anyEntry(node.getSubDevices());
    if (!subDevice) return;
    proto::DeviceNode message = subDevice->toProtoBuf();
    message.clear_id();
    const NodePtr late = build(message);
    std::string error;
    if (!late || !node.addSubDevice(late, false, error)) return;
    node.removeSubDevice(subDevice->getDeviceId(), false, error);
    late->setDeviceId(subDevice->getDeviceId(), error);
    walk(late, nodes_);
  }

  std::string dumpAll() const {
    std::string all;
    for (const auto& tree : trees_) {
      if (tree) all += dump(*tree, true);
    }
    return all;
  }

  // How many nodes the largest subtree of all nodes has; a node that is filed in several places
  // counts for each, so the count is not taken by a walk.
  std::size_t largest() const {
    std::map<const DeviceNode*, std::size_t> sizes;
    std::size_t most = 0;
    for (const auto& node : nodes_) most = std::max(most, size(*node, sizes));
    return most;
  }

  static std::size_t size(const DeviceNode& node, std::map<const DeviceNode*, std::size_t>& sizes) {
    const auto known = sizes.find(&node);
    if (known != sizes.end()) return known->second;
    std::size_t count = 1;
    for (const auto& [key, subDevice] : node.getSubDevices()) count += size(*subDevice, sizes);
    return sizes[&node] = count;
  }

  Input& input_;
  std::vector<NodePtr> trees_;
  std::vector<NodePtr> nodes_;  // of all trees and none
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static Event event;  // kept from call to call, as a reporting process keeps it
  static proto::DeviceNode message;

  Input input(bytes, size);
  std::vector<NodePtr> trees;
  for (int i = 0; i < 2; ++i) {
    NodePtr tree = build(anyMessage(input));
    if (tree && tree->getTreeDeviceIds().size() > MOST_NODES / 2) return 0;
    trees.push_back(std::move(tree));
  }
  NodePtr live = trees[0] ? std::make_shared<DeviceNode>(*trees[0]) : trees[1];
  if (!live) live = std::make_shared<DeviceNode>();
  trees.push_back(live);

  Editor editor(input, trees);
  while (!input.atEnd() && !input.oneIn(16)) editor.edit(true);
  NodePtr snapshot = std::make_shared<DeviceNode>(*live);
  while (!input.atEnd() && !input.oneIn(16)) editor.edit(false);

  const std::string text = input.text();
  for (const auto& tree : trees) {
    if (!tree) continue;
    checkWriting(tree, message);
    checkCopy(tree);
    checkQueries(tree, text);
  }
  trees.push_back(snapshot);
  for (const auto& oldTree : trees) {
    for (const auto& newTree : trees) checkComparison(oldTree, newTree, event);
  }

  const NodePtr held = input.pick(editor.nodes());
  const std::string before = dump(*held, true);
  trees.clear(), live.reset(), snapshot.reset();
  editor.release();
  check(dump(*held, true) == before, "a node that is held stays whole");
  return 0;
}
