// The protocol of the reporting library on a simulated wire, without a broker.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "device_tree/Utils.h"
#include "proto/monitoring/reporting.pb.h"
#include "reporting/Collector.h"
#include "reporting/Reporter.h"

using namespace orv::reporting;
using namespace std::chrono_literals;
using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;

namespace {

std::string bytesOf(const Tree& tree) { return tree->toProtoBuf().SerializeAsString(); }

// What a process has with the broker: a connection, now and then, and a session.
struct Side : Link {
  void subscribe(const std::vector<std::string>& filters) override {
    topics = filters;
    for (const auto& [topic, message] : *retained) arrive(message);
  }
  int publish(const Message& message) override {
    up.emplace_back(++number, message);
    return number;
  }
  void arrive(const Message& message) {
    for (const std::string& filter : topics) {
      const std::size_t wild = std::min(filter.find('+'), filter.size());
      if (message.topic.compare(0, wild, filter, 0, wild) == 0) down.push_back(message);
    }
  }

  Endpoint* endpoint = nullptr;
  const std::map<std::string, Message>* retained = nullptr;
  bool isConnected = false;
  std::optional<Message> will;
  std::vector<std::string> topics;
  std::deque<std::pair<int, Message>> up;
  std::deque<Message> down;
  int number = 0;
};

// Two processes that report three roots, and one that collects them, over a broker. While the wire
// is bad, messages get lost, doubled and overtaken, connections break, wills come late, and each of
// the four is restarted at any moment. Every value is written once, so that a tree that was put
// together wrongly is none that its reporter ever had.
class Fleet {
 public:
  explicit Fleet(unsigned int seed) : random(seed) {
    for (Side& side : sides) side.retained = &retained;
    for (std::size_t i = 0; i < reporters.size(); ++i) startReporter(i);
    startCollector();
    for (const char* id : {"r0", "r1", "r2"}) live[id] = nullptr;
  }

  void liveThrough(int steps) {
    while (steps-- > 0) step();
  }

  // From here on the wire is good: delivers everything, and says whether all became quiet.
  void calmDown(std::chrono::seconds duration) {
    for (const Time end = now + duration; now < end; now += 5s) {
      for (Side& side : sides) {
        if (!side.isConnected) connect(side);
      }
      for (const Message& will : std::exchange(wills, {})) accept(will);
      for (bool isQuiet = false; !isQuiet;) {
        isQuiet = true;
        for (Side& side : sides) {
          isQuiet = isQuiet && side.up.empty() && side.down.empty();
          while (!side.up.empty()) takeUp(side, 0, true);
          while (!side.down.empty()) takeDown(side, 0, false);
          side.endpoint->serve(now);
        }
      }
    }
  }

  void expectEqual() {
    std::vector<std::string> ids;
    for (const auto& [id, tree] : live) {
      if (!tree) continue;
      ids.push_back(id);
      const auto view = collector->view(id);
      ASSERT_TRUE(view && view->tree) << id << " is missing";
      EXPECT_EQ(view->condition, Condition::CURRENT) << id;
      EXPECT_EQ(bytesOf(view->tree), bytesOf(tree)) << id;
    }
    EXPECT_EQ(collector->roots(), ids);
  }

  std::uint64_t requests() const { return collector->counters().requests; }

 private:
  unsigned int pick(std::size_t count) {
    return std::uniform_int_distribution<unsigned int>(
        0, static_cast<unsigned int>(count) - 1)(random);
  }
  Reporter& reporterOf(const std::string& id) { return *reporters.at(id == "r2" ? 1 : 0); }

  void startReporter(std::size_t i) {
    ReporterOptions options;
    options.seed = random();
    reporters.at(i) = std::make_unique<Reporter>(
        i == 0 ? "a" : "b", [](const auto&) {}, options);
    start(sides.at(i), *reporters.at(i));
    for (const auto& [id, tree] : live) {
      if (tree && &reporterOf(id) == reporters.at(i).get()) reporters.at(i)->report(tree);
    }
  }

  void startCollector() {
    CollectorOptions options;
    options.seed = random();
    CollectorCallbacks callbacks;
    callbacks.applied = [this](const std::string& id, const Event&, const Tree& tree) {
      EXPECT_TRUE(!tree || had[id].count(bytesOf(tree)) == 1) << id << " never was like that";
    };
    callbacks.changed = [](const auto&, Condition) {};
    callbacks.problem = [](const auto&) {};
    collector = std::make_unique<Collector>(callbacks, options);
    start(sides.back(), *collector);
  }

  void start(Side& side, Endpoint& endpoint) {
    cut(side, false);
    side.endpoint = &endpoint;
    side.topics.clear();
    side.down.clear();
  }

  void connect(Side& side) {
    side.will = side.endpoint->connecting();
    side.isConnected = true;
    side.endpoint->connected(side, now);
  }

  void cut(Side& side, bool isTold) {
    while (!side.up.empty() && pick(2) == 0) takeUp(side, 0, false);
    side.up.clear();
    if (side.isConnected && side.will) wills.push_back(*side.will);
    if (side.isConnected && isTold) side.endpoint->disconnected(now);
    side.isConnected = false;
  }

  // The broker takes a message.
  void accept(const Message& message) {
    if (message.isRetained) {
      retained[message.topic] = message;
      if (message.payload.empty()) retained.erase(message.topic);
    }
    Message passedOn = message;
    passedOn.isRetained = false;
    for (Side& side : sides) side.arrive(passedOn);
  }

  void takeUp(Side& side, std::size_t at, bool isAnswered) {
    const auto [number, message] = side.up.at(at);
    side.up.erase(side.up.begin() + static_cast<std::ptrdiff_t>(at));
    accept(message);
    if (isAnswered) side.endpoint->settled(number, "", now);
  }

  void takeDown(Side& side, std::size_t at, bool stays) {
    const Message message = side.down.at(at);
    if (!stays) side.down.erase(side.down.begin() + static_cast<std::ptrdiff_t>(at));
    side.endpoint->received(message, now);
  }

  void edit() {
    auto& [id, tree] = *std::next(live.begin(), pick(live.size()));
    const std::string value = std::to_string(++values);
    std::string error;
    if (!tree) {
      tree = std::make_shared<DeviceNode>(id, value, orv::proto::monitoring::DeviceNode::RACK);
      tree->addStatus(NamedStatus("s", NamedStatus::TYPE_STRING, value), error);
    } else if (const unsigned int kind = pick(20); kind == 0) {
      reporterOf(id).remove(id);
      tree.reset();
      return;
    } else if (kind < 3) {
      tree->addSubDevice(std::make_shared<DeviceNode>(value, value, DeviceNode::DeviceClass()),
                         false, error);
    } else if (kind == 3 && !tree->getSubDevices().empty()) {
      tree->removeSubDevice(tree->getSubDevices().begin()->first, false, error);
      tree->setName(value);
    } else if (kind < 10 && !tree->getSubDevices().empty()) {
      tree->getSubDevices().begin()->second->setGlobalStatus({{}, value});
    } else {
      tree->getStatus("s")->setValue(value);
    }
    had[id].insert(bytesOf(tree));
    reporterOf(id).report(tree);
  }

  void step() {
    Side& side = sides.at(pick(sides.size()));
    const unsigned int kind = pick(100);
    if (kind < 20) {
      edit();
    } else if (kind < 45 && !side.up.empty()) {
      const bool isLost = pick(20) == 0;  // with it the connection
      if (pick(40) == 0) {
        side.endpoint->settled(side.up.front().first, "not now", now);
        side.up.pop_front();
      } else {
        takeUp(side, pick(10) == 0 ? pick(side.up.size()) : 0, !isLost);
      }
      if (isLost) cut(side, true);
    } else if (kind < 80 && !side.down.empty() && side.isConnected) {
      const std::size_t at = pick(3) == 0 ? pick(side.down.size()) : 0;
      if (pick(10) == 0) {
        side.down.erase(side.down.begin() + static_cast<std::ptrdiff_t>(at));
      } else {
        takeDown(side, at, pick(10) == 0);
      }
    } else if (kind < 90) {
      if (!side.isConnected) connect(side);
    } else if (kind < 93) {
      now += std::chrono::milliseconds(pick(pick(5) == 0 ? 100'000 : 3'000));
    } else if (kind < 95) {
      cut(side, true);
    } else if (kind == 95) {
      startReporter(pick(reporters.size()));
    } else if (kind == 96) {
      startCollector();
    } else if (kind == 97 && pick(2) == 0) {
      retained.clear();
      for (Side& other : sides) {
        cut(other, true);
        other.down.clear();
      }
      wills.clear();
    } else if (!wills.empty()) {
      accept(wills.front());
      wills.pop_front();
    }
    if (side.isConnected) side.endpoint->serve(now);
  }

  std::mt19937 random;
  Time now{1000s};
  std::map<std::string, Tree> live;
  std::map<std::string, std::set<std::string>> had;
  unsigned int values = 0;
  std::map<std::string, Message> retained;
  std::deque<Message> wills;
  std::array<Side, 3> sides;
  std::array<std::unique_ptr<Reporter>, 2> reporters;
  std::unique_ptr<Collector> collector;
};

TEST(Wire, EveryHistoryEndsWithTheReportersTrees) {
  for (unsigned int seed = 0; seed < ORV_HISTORIES && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Fleet fleet(seed);
    fleet.liveThrough(static_cast<int>(20 + seed % 180));
    fleet.calmDown(150s);
    fleet.expectEqual();
    const std::uint64_t requests = fleet.requests();
    EXPECT_LT(requests, 60U);
    fleet.calmDown(120s);
    EXPECT_EQ(fleet.requests(), requests) << "requests go on";
  }
}

TEST(Wire, TopicsCarryEveryRootAndNothingElse) {
  const Topics topics("orv/1");
  EXPECT_EQ(topics.event(""), "orv/1/event/37/%");
  EXPECT_EQ(topics.event("a"), "orv/1/event/12/a");
  const std::string odd = std::string("\x00/+#%\x7f", 6) + "\xc2\x85\xff\xef\xbf\xbf";
  EXPECT_EQ(topics.reporter(odd), "orv/1/reporter/%00%2F%2B%23%25%7F%C2%85%FF%EF%BF%BF");
  EXPECT_EQ(topics.request("pump \xc3\xa4 $"), "orv/1/request/pump \xc3\xa4 $");
  for (const std::string& id : {std::string(), odd, std::string("%"), std::string("a/b")}) {
    EXPECT_EQ(topics.rootOf(topics.event(id)), id);
    EXPECT_EQ(topics.reporterOf(topics.reporter(id)), id);
  }
  for (const char* topic :
       {"orv/1/event/13/a", "orv/1/event/12/%61", "orv/1/event/a", "orv/1/event/",
        "orv/1/event/12/a/", "orv/1/reporter/%2f", "orv/1/reporter/a%", "x"}) {
    EXPECT_FALSE(topics.rootOf(topic) || topics.reporterOf(topic)) << topic;
  }
  for (const char* prefix : {"", "a/+", "#", "$SYS", "a\n"}) {
    EXPECT_THROW(Topics{prefix}, std::invalid_argument) << prefix;
  }
  EXPECT_EQ(Sequence::parse("18446744073709551615.1")->text(), "18446744073709551615.1");
  for (const char* text : {"", "1", "1.", ".1", "1.0", "01.1", "+1.1", "1.-1", "1.1 ", "1.1.1",
                           "18446744073709551616.1", "1.18446744073709551616"}) {
    EXPECT_FALSE(Sequence::parse(text)) << text;
  }
}

// What becomes of many roots when the broker refuses some.
class Refusals : public ::testing::Test {
 protected:
  Refusals() { side.retained = &nothing; }
  void start(int count) {
    for (int i = 0; i < count; ++i) {
      live.push_back(
          std::make_shared<DeviceNode>(std::to_string(i), "", DeviceNode::DeviceClass()));
    }
    change(live.size());
  }
  void change(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      live.at(i)->setName(live.at(i)->getName() + ".");
      reporter.report(live.at(i));
    }
  }

  const std::map<std::string, Message> nothing;
  Side side;
  Time now{1000s};
  std::vector<std::string> problems;
  Reporter reporter{"a", [this](const std::string& problem) { problems.push_back(problem); }};
  std::vector<Tree> live;
};

// A broker that ends the connection some time after it got one root's event, and gives no answer to
// what it got in the same go.
TEST_F(Refusals, OfABrokerThatEndsTheConnectionHoldUpOneRootAlone) {
  const std::string bad = Topics("orv/1").event("50");
  start(1200);
  const auto isBad = [&](const auto& sent) { return sent.second.topic == bad; };
  const auto settleAll = [&](const auto& all) {
    for (const auto& [number, message] : all) reporter.settled(number, "", now);
  };
  std::optional<Message> will = reporter.connecting();
  int ends = 0;
  int goes = 0;
  // Returns how many other events have no answer when the connection ends.
  const auto liveThroughOneConnection = [&] {
    const std::optional<Message> earlierWill = std::exchange(will, reporter.connecting());
    reporter.connected(side, now);
    std::ptrdiff_t unanswered = 0;
    for (reporter.serve(now); !side.up.empty(); reporter.serve(now)) {
      const auto sent = std::exchange(side.up, {});
      ++goes;
      if (std::none_of(sent.begin(), sent.end(), isBad)) {
        settleAll(sent);
        continue;
      }
      ++ends;
      unanswered = static_cast<std::ptrdiff_t>(sent.size()) - 1;
      reporter.report(live.at(50));
      reporter.received(*earlierWill, now);  // so that a state goes out
      reporter.serve(now += 2s);
      break;
    }
    side.up.clear();
    reporter.disconnected(now);
    return unanswered;
  };
  EXPECT_EQ(liveThroughOneConnection(), 999) << "with the state";
  while (problems.empty()) {
    ASSERT_LT(ends, 7) << "more than halving takes";
    liveThroughOneConnection();
  }
  goes = 0;
  EXPECT_EQ(liveThroughOneConnection(), 0) << "all others go through";
  EXPECT_LT(goes, 20) << "not one by one";
  for (int minute = 0; minute < 60; ++minute, now += 60s) {
    change(100);
    EXPECT_EQ(liveThroughOneConnection(), 0) << "tried again with nothing beside it";
  }
  EXPECT_LT(ends, 20) << "after pauses that double up to ten minutes";
  EXPECT_EQ(problems, (std::vector<std::string>{"The broker refuses 50: It ends the connection"}));

  // It is tried again also while the others never come to rest, and goes on when it is taken.
  now += 600s;
  reporter.connected(side, now);
  std::deque<std::pair<int, Message>> sent;
  for (int step = 0; std::none_of(sent.begin(), sent.end(), isBad); ++step) {
    ASSERT_LT(step, 5);
    change(live.size());
    reporter.serve(now);
    settleAll(std::exchange(sent, std::exchange(side.up, {})));
  }
  EXPECT_EQ(sent.size(), 1U);
  settleAll(sent);
  for (; !reporter.isSettled(); reporter.serve(now)) settleAll(std::exchange(side.up, {}));

  for (int i = 0; i < 3; ++i, side.up.clear()) {
    reporter.disconnected(now);
    reporter.connected(side, now);
    reporter.serve(now);
    settleAll(std::exchange(side.up, {}));
    reporter.serve(now);
    reporter.serve(now += 60s);
    EXPECT_EQ(side.up.size(), 1U) << "a state";
  }
  EXPECT_EQ(problems.size(), 1U) << "a connection may end for other reasons";
}

TEST_F(Refusals, OfManyRootsHoldUpNoOther) {
  start(300);
  (void)reporter.connecting();
  reporter.connected(side, now);
  const std::string good = Topics("orv/1").event("200");
  bool isOpen = false;
  // Returns how many events go out at once, the good root's one among them or else none.
  const auto go = [&] {
    reporter.serve(now);
    const auto sent = std::exchange(side.up, {});
    bool isGood = false;
    for (const auto& [number, message] : sent) {
      isGood = isGood || message.topic == good;
      const bool isTaken = isOpen || message.topic == good || message.sequence.empty();
      reporter.settled(number, isTaken ? "" : "no", now);
    }
    return isGood ? sent.size() : 0;
  };
  EXPECT_EQ(go(), 301U) << "with the state";
  EXPECT_EQ(problems.size(), 299U);
  now += 6s;
  EXPECT_EQ(go(), 0U);
  live.at(200)->setName("changed");
  reporter.report(live.at(200));
  EXPECT_TRUE(go() || go()) << "after at most one that is tried again";

  isOpen = true;
  for (int i = 0; !reporter.isSettled(); ++i, now += 1s) {
    ASSERT_LT(i, 1000);
    go();
  }
  change(live.size());
  EXPECT_EQ(go(), 300U) << "those that were refused are no longer alone";
  // One that has nothing to say any more gives its turn on.
  isOpen = false;
  const std::string name = live.at(0)->getName();
  for (const std::string& newName : {name + ".", name}) {
    live.at(0)->setName(newName);
    reporter.report(live.at(0));
    go();
    now += 6s;
  }
  change(live.size());
  EXPECT_GT(go(), 299U);
}

Tree chain(unsigned int levels, const std::string& lowest) {
  std::string error;
  auto tree = std::make_shared<DeviceNode>(lowest, "", DeviceNode::DeviceClass());
  while (--levels > 0) {
    auto above =
        std::make_shared<DeviceNode>(std::to_string(levels), "", DeviceNode::DeviceClass());
    EXPECT_TRUE(above->addSubDevice(tree, false, error)) << error;
    tree = above;
  }
  return tree;
}

TEST(Wire, SenderSendsWhatReceiversCanTakeAndSaysWhatNot) {
  const Time now{1000s};
  std::string refusal;
  Sender sender(7, 10s);
  EXPECT_EQ(sender.next(chain(99, "x"), now, refusal), nullptr);
  EXPECT_EQ(refusal, "The tree has more than 98 levels");
  Tree live = chain(3, "x");
  std::string error;
  ASSERT_TRUE(live->getDeviceById("x")->addSubDevice(chain(1, "1"), false, error));
  EXPECT_EQ(sender.next(live, now, refusal), nullptr);
  EXPECT_NE(refusal.find("Sub-device has same ID as parent: 1"), std::string::npos) << refusal;

  live = chain(98, "x");
  const Publication* publication = sender.next(live, now, refusal);
  ASSERT_TRUE(publication && Event().ParseFromString(publication->event.SerializeAsString()));
  EXPECT_EQ(sender.next(live, now, refusal), nullptr) << "while an event is on its way";
  sender.refused();
  ASSERT_NE(sender.next(live, now, refusal), nullptr);
  EXPECT_EQ(sender.onItsWay()->sequence, (Sequence{7, 1})) << "certainly not taken: used again";
  sender.taken();

  // However many ask, one whole tree goes out when the pause is over; changes go out before it.
  sender.requestTree();
  sender.requestTree();
  EXPECT_EQ(sender.next(live, now + 9s, refusal), nullptr);
  live->setGlobalStatus({{}, "changed"});
  ASSERT_NE(sender.next(live, now + 9s, refusal), nullptr);
  EXPECT_EQ(sender.onItsWay()->event.event_type(), Event::STATUS_CHANGE);
  sender.taken();
  ASSERT_NE(sender.next(live, now + 10s, refusal), nullptr);
  EXPECT_EQ(sender.onItsWay()->event.event_type(), Event::DEVICE_ADD);
  sender.taken();
  EXPECT_EQ(sender.next(live, now + 60s, refusal), nullptr);

  // Two devices of one identifier: receivers take the change for that of the first one, and refuse.
  live = chain(1, "r");
  const Tree second = chain(1, "b");
  ASSERT_TRUE(second->addStatus(NamedStatus("s", NamedStatus::TYPE_UINT, 1UL), error));
  for (const Tree& lowest : {chain(1, "b"), second}) {
    const Tree above = chain(1, lowest == second ? "d" : "a");
    ASSERT_TRUE(above->addSubDevice(lowest, false, error));
    ASSERT_TRUE(live->addSubDevice(above, false, error));
  }
  Sender other(8, 10s);
  for (const auto type : {Event::DEVICE_ADD, Event::STATUS_CHANGE, Event::DEVICE_ADD}) {
    ASSERT_NE(other.next(live, now, refusal), nullptr);
    EXPECT_EQ(other.onItsWay()->event.event_type(), type);
    other.taken();
    second->getStatus("s")->setValue(2UL);
  }
}

// What a collector is told and asks for, message by message.
class Told : public ::testing::Test, protected Side {
 protected:
  Told() {
    CollectorCallbacks callbacks;
    callbacks.applied = [](const auto&, const Event&, const Tree&) {};
    callbacks.changed = [this](const std::string& id, Condition condition) {
      said.push_back(id + " " + std::to_string(static_cast<int>(condition)));
    };
    callbacks.problem = [this](const std::string& problem) { said.push_back(problem); };
    collector = std::make_unique<Collector>(callbacks);
    collector->connected(*this, now);
  }
  void subscribe(const std::vector<std::string>& /*topics*/) override {}

  void state(const std::string& name, std::uint64_t start, bool isOnline,
             const std::vector<std::pair<std::string, Sequence>>& roots, bool isKept = false) {
    orv::proto::monitoring::ReporterState state;
    state.set_start(start);
    state.set_online(isOnline);
    for (const auto& [id, latest] : roots) {
      auto& root = *state.add_roots();
      root.set_root(id);
      root.set_epoch(latest.epoch);
      root.set_n(latest.n);
    }
    collector->received({Topics("orv/1").reporter(name), state.SerializeAsString(), isKept, {}, {}},
                        now);
  }

  void tree(const std::string& id, const Sequence& sequence, const std::string& idInside) {
    Sender sender(sequence.epoch, 0s);
    std::string refusal;
    const std::string payload =
        sender.next(chain(1, idInside), now, refusal)->event.SerializeAsString();
    collector->received({Topics("orv/1").event(id), payload, {}, sequence.text(), {}}, now);
  }
  void tree(const std::string& id, const Sequence& sequence) { tree(id, sequence, id); }

  std::vector<std::string> heard() { return std::exchange(said, {}); }

  using Lines = std::vector<std::string>;
  Time now{1000s};
  std::unique_ptr<Collector> collector;
  std::vector<std::string> said;
};

TEST_F(Told, TwoReportersOfOneRootOrNameAreSaidOnceAndDoNotFight) {
  state("a", 1, true, {{"r", {10, 1}}});
  tree("r", {10, 1});
  EXPECT_EQ(heard(), (Lines{"r 0"}));
  for (int i = 0; i < 3; ++i) {
    state("b", 2, true, {{"r", {20, 1}}});
    tree("r", {20, 1});
    tree("r", {10, 2});
    state("a", 1, true, {{"r", {10, 2}}});
  }
  EXPECT_EQ(heard(), (Lines{"The root r is reported by a and by b", "r 1", "r 0"}));
  state("a", 3, true, {{"r", {30, 1}}});
  state("a", 1, true, {{"r", {10, 2}}});
  state("a", 1, true, {{"r", {10, 2}}});
  state("a", 1, false, {});
  EXPECT_EQ(heard(), (Lines{"r 1", "Two processes report under the name a"}));
  state("a", 3, false, {});
  state("b", 2, true, {{"r", {20, 1}}});
  tree("r", {20, 2});
  EXPECT_EQ(heard(), (Lines{"r 2", "r 1", "r 0"}));
  now += 101s;
  collector->serve(now);
  EXPECT_EQ(heard(), (Lines{"r 2"})) << "silent for too long";
  collector->received({"orv/1/reporter/b", "", true, {}, {}}, now);
  EXPECT_EQ(heard(), (Lines{"r 3"})) << "its state was cleared by hand";
}

TEST_F(Told, ACollectorOfAPartHearsOfThatPart) {
  CollectorOptions options;
  options.firstPartition = options.lastPartition = Topics::partitionOf("r");
  Side side;
  const std::map<std::string, Message> nothing;
  side.retained = &nothing;
  collector = std::make_unique<Collector>(
      CollectorCallbacks{[](const auto&...) {}, [](const auto&...) {}, [](const auto&) {}},
      options);
  collector->connected(side, now);
  const std::string events = Topics("orv/1").event("r");
  EXPECT_EQ(side.topics, (Lines{"orv/1/reporter/+", events.substr(0, events.size() - 1) + "+"}));
  state("a", 1, true, {{"r", {1, 1}}, {"elsewhere", {2, 1}}});
  tree("r", {1, 1});
  tree("elsewhere", {2, 1});
  EXPECT_EQ(collector->roots(), Lines{"r"});
}

TEST_F(Told, AnEventOfNobodyAndALostOneAreMadeGood) {
  state("a", 1, true, {{"r", {1, 1}}});
  tree("r", {1, 1}, "x");
  EXPECT_EQ(heard(), (Lines{"An event of r is refused: The event holds the tree of another root"}));
  tree("r", {1, 1});
  const std::string empty("\x08\x01\xba\x06\x00", 5);  // a STATUS_CHANGE without changes
  collector->received({Topics("orv/1").event("r"), empty, {}, "1.9", {}}, now);
  EXPECT_EQ(heard(), (Lines{"r 0", "r 1"}));
  state("a", 1, true, {{"r", {1, 1}}});
  EXPECT_EQ(heard(), (Lines{"r 0"}));
  state("a", 1, true, {{"r", {1, 2}}});
  for (int second = 0; second < 4; ++second) collector->serve(now += 1s);
  EXPECT_EQ(heard(), Lines{}) << "the event may be on its way";
  collector->serve(now += 1s);
  EXPECT_EQ(heard(), (Lines{"r 1"}));
  EXPECT_EQ(up.back().second.topic, "orv/1/request/a");
}

TEST_F(Told, AKeptStateIsNoSignOfLife) {
  state("a", 1, true, {{"r", {1, 5}}}, true);
  tree("r", {1, 1});
  EXPECT_EQ(heard(), (Lines{"r 1"}));
  collector->serve(now += 1s);
  EXPECT_EQ(up.back().second.topic, "orv/1/request/a");
  EXPECT_EQ(up.back().second.payload, "") << "asks for no tree: the reporter may be gone";
  state("a", 1, true, {{"r", {1, 6}}});
  collector->serve(now += 1s);
  EXPECT_NE(up.back().second.payload, "");
  EXPECT_EQ(heard(), Lines{});
}

TEST_F(Told, RequestsAreGatheredLimitedAndGrowRare) {
  std::vector<std::pair<std::string, Sequence>> roots;
  for (int i = 0; i < 1000; ++i) roots.push_back({std::to_string(i), {1, 1}});
  state("a", 1, true, roots);
  std::vector<std::uint64_t> asked;
  std::size_t messages = 0;
  for (int second = 0; second < 600; ++second, now += 1s) {
    const auto before = collector->counters().requests;
    collector->serve(now);
    asked.push_back(collector->counters().requests - before);
    messages += up.size();
    up.clear();
    if (second % 20 == 0) state("a", 1, true, roots);
  }
  EXPECT_EQ(*std::max_element(asked.begin(), asked.end()), 50U);
  EXPECT_LE(messages, 600U) << "one message a second";
  // 1, 2, 4 to 60 seconds: about 17 requests for each root, were they not limited.
  EXPECT_LT(collector->counters().requests, 20'000U);
  EXPECT_GT(collector->counters().requests, 10'000U);
}

}  // namespace
