// The protocol through random histories. One that fails is played once more and tells its story.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <set>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Collector.h"
#include "reporting/Reporter.h"
#include "reporting/Wire.h"

namespace {

using namespace std::chrono_literals;
using namespace orv::reporting;
using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;

std::string bytesOf(const Tree& tree) { return tree->toProtoBuf().SerializeAsString(); }
std::string textOf(const Tree& tree) { return tree ? tree->debugString() : "none\n"; }

// A process that reports. It can be set back to what it was earlier: it plays again what it was
// told until then.
class Process final : public Endpoint {
 public:
  Process(std::string itsName, std::uint64_t itsSeed, std::uint64_t itsNumber)
      : name(std::move(itsName)), seed(itsSeed), number(itsNumber), reporter(name, {}, options()) {}

  std::unique_ptr<Process> setBack(std::size_t steps, Time now) const {
    auto copy = std::make_unique<Process>(name, seed, number);
    const std::map<std::string, Message> nothing;
    WireEnd link;
    link.retained = &nothing;
    link.number = number;
    for (std::size_t i = 0; i < steps; ++i) log[i](*copy, link);
    copy->disconnected(now);
    copy->wasSetBack = true;
    return copy;
  }

  void report(const Tree& live) {
    const auto copy = std::make_shared<DeviceNode>(*live);
    log.emplace_back([copy](Process& p, Link&) { p.report(std::make_shared<DeviceNode>(*copy)); });
    trees[live->getDeviceId()] = live;
    reporter.report(live);
  }
  void remove(const std::string& id) {
    log.emplace_back([id](Process& p, Link&) { p.remove(id); });
    trees.erase(id);
    reporter.remove(id);
  }
  std::optional<Message> connecting() override {
    log.emplace_back([](Process& p, Link&) { p.connecting(); });
    return reporter.connecting();
  }
  void connected(Link& link, Time now) override {
    log.emplace_back([now](Process& p, Link& other) { p.connected(other, now); });
    reporter.connected(link, now);
  }
  bool ending(Time now) override {
    log.emplace_back([now](Process& p, Link&) { p.ending(now); });
    return reporter.ending(now);
  }
  void disconnected(Time now) override {
    log.emplace_back([now](Process& p, Link&) { p.disconnected(now); });
    reporter.disconnected(now);
  }
  void settled(std::uint64_t which, const std::string& refusal, Time now) override {
    log.emplace_back([=](Process& p, Link&) { p.settled(which, refusal, now); });
    reporter.settled(which, refusal, now);
  }
  void received(const Message& message, Time now) override {
    log.emplace_back([=](Process& p, Link&) { p.received(message, now); });
    reporter.received(message, now);
  }
  Time serve(Time now) override {
    log.emplace_back([=](Process& p, Link&) { p.serve(now); });
    return reporter.serve(now);
  }

  bool wasSetBack = false;
  std::map<std::string, Tree> trees;
  std::vector<std::function<void(Process&, Link&)>> log;

 private:
  ReporterOptions options() const {
    ReporterOptions result;
    result.seed = seed;
    if (seed % 2 == 0) result.leastKept = 50;
    return result;
  }

  std::string name;
  std::uint64_t seed;
  std::uint64_t number;  // of the last message before its first
  Reporter reporter;
};

// Two processes that report three roots, and one that collects them, over a broker. While the wire
// is bad, messages get lost, doubled and overtaken, connections break, wills come late, and each of
// the four is restarted at any moment. Every value is written once, so that a tree that was put
// together wrongly is none that its reporter ever had. Roots move from one process to the other,
// the broker refuses some for a while, comes back empty or with what it had saved earlier, and the
// processes are set back in time.
class History : Wire {
 public:
  History(unsigned int seed, bool isTold) : Wire(3), random(seed), tellsStory(isTold) {
    for (WireEnd& side : ends) start(side);
    for (const char* id : {"r0", "r1", "r2"}) live[id] = nullptr;
  }

  // Returns what is wrong, with the story; nothing when all is well.
  std::string play(int length) {
    while (length-- > 0 && fault.empty()) step();
    tell("From here on the wire is good");
    if (!std::exchange(ends.back().denied, {}).empty()) disconnect(ends.back());
    calmDown(140s);  // a heartbeat, the patience, and the silence of a process that has ended
    checkCurrent();
    if (!refused.empty()) {
      tell("The broker refuses nothing any more");
      refused.clear();
      now += 600s;
    }
    for (int i = 0; i < 6; ++i) {
      calmDown(25s);
      checkCurrent();
    }
    compare();
    const auto requests = [this] {
      return collector->counters().requests + collector->counters().listRequests;
    };
    const std::uint64_t before = requests();
    if (before >= 100) fail("There were many requests");
    calmDown(120s);
    if (requests() != before) fail("Requests go on");
    tell("A newcomer");
    start(ends.back());
    calmDown(140s);
    compare();
    const Topics topics("orv/1");
    for (const auto& [topic, message] : retained) {
      const auto root = topics.rootOf(topic);
      orv::proto::monitoring::RootList list;
      if (topics.listOf(topic)) list.ParseFromString(message.payload);
      for (const auto& listed : list.roots()) {
        if (!live.at(listed.root()) && !hasMissed)
          fail("The broker still has a list with " + listed.root());
      }
      if (root && !live.at(*root) && !hasRefused) fail("The broker still has " + *root);
    }
    return fault;
  }

 private:
  // What can happen. One that is impossible now is drawn again.
  struct Step {
    unsigned int weight;  // of 1000
    const char* name;
    bool (*isPossible)(const History&, const WireEnd&);
    void (*play)(History&, WireEnd&);
  };
  static const std::vector<Step> steps;

  unsigned int pick(std::size_t count) {
    return std::uniform_int_distribution<unsigned int>(
        0, static_cast<unsigned int>(count) - 1)(random);
  }
  template <typename Queue>
  unsigned int any(const Queue& queue) {
    return pick(queue.size());
  }
  Process& reporterOf(const std::string& id) { return *processes.at(owners.at(id)); }

  void step() {
    const unsigned int at = any(ends);
    WireEnd& side = ends.at(at);
    auto next = steps.begin();
    do {
      unsigned int number = pick(1000);
      for (next = steps.begin(); number >= next->weight; ++next) number -= next->weight;
    } while (!next->isPossible(*this, side));
    if (tellsStory) tell(names.at(at) + ": " + next->name);
    next->play(*this, side);
    if (side.isConnected) side.endpoint->serve(now);
  }

  void start(WireEnd& side) {
    breakOff(side);
    const std::size_t at = placeOf(side);
    if (at == processes.size()) return startCollector();
    auto& process = processes.at(at);
    process = std::make_unique<Process>(names.at(at), random(), side.number);
    begin(side, *process);
    for (const auto& [id, tree] : live) {
      if (tree && owners.at(id) == at) process->report(tree);
    }
  }

  std::size_t placeOf(const WireEnd& side) const {
    return static_cast<std::size_t>(&side - ends.data());
  }

  // Once only: what a process that was set back drew cannot be drawn again.
  bool canBeSetBack(const WireEnd& side) const {
    const std::size_t at = placeOf(side);
    return at < processes.size() && !processes.at(at)->wasSetBack;
  }

  // What it was told until its last state counts as later than what it is set back to; else nobody
  // could tell. It looks at that state first when it connects again.
  void setBack(WireEnd& side) {
    const std::size_t at = placeOf(side);
    auto& process = processes.at(at);
    const std::size_t last = pick(process->log.size() + 1);
    const bool comesWill = pick(2) == 0;
    for (int i = 0; i < 3; ++i, now += 31s) {
      for (process->serve(now); !side.up.empty(); process->serve(now)) takeUp(side, 0, true);
    }
    cut(side, 0);
    while (comesWill && !wills.empty()) publishWill();
    process = process->setBack(last, now);
    begin(side, *process);
    for (auto& [id, tree] : live) {
      const auto then = process->trees.find(id);
      const bool isThere = then != process->trees.end();
      if (owners.at(id) != at) {
        process->remove(id);  // it has moved meanwhile
      } else {
        tree = isThere ? then->second : nullptr;
      }
    }
    connect(side);
    while (!side.down.empty()) takeDown(side, 0, false);
  }

  void move() {
    const auto& [id, tree] = *std::next(live.begin(), any(live));
    if (!tree) return;
    reporterOf(id).remove(id);
    owners[id] = 1 - owners[id];
    reporterOf(id).report(tree);
  }

  void startCollector() {
    CollectorOptions options;
    options.seed = random();
    if (*options.seed % 2 == 0) options.mostReviewed = 0;  // a part at a time
    told.clear();
    CollectorCallbacks callbacks;
    callbacks.changed = [this](const std::string& id, Condition condition) {
      told[id] = condition;
    };
    callbacks.applied = [this](const std::string& id, const orv::reporting::Step& step) {
      if (tellsStory) tell("an event of " + id + ": " + step.event.ShortDebugString());
      const Tree& tree = step.after;
      if (tree && had[id].count(bytesOf(tree)) == 0) fail(id, "never was like that", tree);
    };
    collector = std::make_unique<Collector>(callbacks, options);
    begin(ends.back(), *collector);
  }

  void breakOff(WireEnd& side) {
    std::size_t arriving = 0;
    while (arriving < side.up.size() && pick(2) == 0) ++arriving;
    cut(side, arriving);
  }
  void disconnect(WireEnd& side) {
    const bool wasConnected = side.isConnected;
    breakOff(side);
    if (!wasConnected) return;
    side.endpoint->disconnected(now);
    if (side.endpoint != collector.get()) return;
    for (const std::string& id : collector->roots()) {
      const auto view = collector->view(id);
      if (view->condition != Condition::CURRENT) continue;
      fail(id, "is called current without a connection", view->tree);
    }
  }

  void edit() {
    auto& [id, tree] = *std::next(live.begin(), any(live));
    const std::string value = std::to_string(++values);
    if (tellsStory) tell("  " + id + " gets the value " + value);
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

  void checkCurrent() {
    for (const auto& [id, tree] : live) {
      const auto view = collector->view(id);
      if (!view || view->condition != Condition::CURRENT) continue;
      if (tree && bytesOf(view->tree) == bytesOf(tree)) continue;
      fail(id, "is called current, at " + view->sequence.text() + " of " + view->reporter,
           view->tree);
    }
  }

  void compare() {
    std::vector<std::string> ids;
    for (const auto& [id, tree] : live) {
      if (!tree) continue;
      ids.push_back(id);
      const auto view = collector->view(id);
      const Tree arrived = view ? view->tree : nullptr;
      if (!arrived || bytesOf(arrived) != bytesOf(tree)) fail(id, "is not the same", arrived);
      const bool isTold = told[id] == Condition::CURRENT;
      if (!view || (view->condition == Condition::CURRENT && isTold)) continue;
      fail(id, "is not current, at " + view->sequence.text() + ": " + view->reason, arrived);
    }
    if (collector->roots() != ids) fail("The collector has another root");
  }

  void tell(const std::string& line) { story.push_back(line); }
  void fail(const std::string& what) {
    if (!fault.empty()) return;
    fault = what + "\nWhat happened before:\n";
    const auto first = static_cast<std::ptrdiff_t>(story.size()) - 30;
    std::for_each(story.begin() + std::max<std::ptrdiff_t>(first, 0), story.end(),
                  [this](const std::string& line) { fault += "  " + line + "\n"; });
  }
  void fail(const std::string& id, const std::string& what, const Tree& tree) {
    fail(id + " " + what + "\nThe collector has " + textOf(tree) + "The reporter has " +
         textOf(live[id]));
  }

  std::mt19937 random;
  bool tellsStory;
  std::vector<std::string> story;
  std::string fault;
  const std::array<std::string, 3> names = {"a", "b", "collector"};
  std::map<std::string, Tree> live;
  std::map<std::string, std::set<std::string>> had;
  unsigned int values = 0;
  std::array<std::unique_ptr<Process>, 2> processes;
  std::map<std::string, std::size_t> owners = {{"r0", 0}, {"r1", 0}, {"r2", 1}};
  std::map<std::string, Message> saved;  // by the broker
  bool hasMissed = false;                // then a list may stay until its reporter connects again
  bool hasRefused =
      false;  // then a tree may stay that nobody has, as its reporter may not clear it
  std::unique_ptr<Collector> collector;
  std::map<std::string, Condition> told;  // by the collector
};

bool always(const History& /*h*/, const WireEnd& /*s*/) { return true; }
bool hasUp(const History& /*h*/, const WireEnd& s) { return !s.up.empty(); }
bool hasDown(const History& /*h*/, const WireEnd& s) { return s.isConnected && !s.down.empty(); }
bool isOff(const History& /*h*/, const WireEnd& s) { return !s.isConnected; }

const std::vector<History::Step> History::steps = {
    {200, "a tree changes", always, [](History& h, WireEnd&) { h.edit(); }},
    {172, "the broker takes", hasUp, [](History& h, WireEnd& s) { h.takeUp(s, 0, true); }},
    {24, "the broker takes any", hasUp,
     [](History& h, WireEnd& s) { h.takeUp(s, h.any(s.up), true); }},
    {12, "the answer is lost", hasUp,
     [](History& h, WireEnd& s) { h.takeUp(s, 0, false), h.disconnect(s); }},
    {6, "the broker refuses", hasUp,
     [](History& h, WireEnd& s) { h.refuse(s), h.hasRefused = true; }},
    {175, "hears", hasDown, [](History& h, WireEnd& s) { h.takeDown(s, 0, false); }},
    {95, "hears any", hasDown, [](History& h, WireEnd& s) { h.takeDown(s, h.any(s.down), false); }},
    {30, "hears first", hasDown,
     [](History& h, WireEnd& s) { h.takeDown(s, h.any(s.down), true); }},
    {35, "misses", hasDown,
     [](History& h, WireEnd& s) {
       h.loseDown(s, h.any(s.down));
       h.hasMissed = true;
     }},
    {100, "connects", isOff, [](History& h, WireEnd& s) { h.connect(s); }},
    {20, "disconnects", always, [](History& h, WireEnd& s) { h.disconnect(s); }},
    {15, "starts anew", always, [](History& h, WireEnd& s) { h.start(s); }},
    {5, "ends in order, and starts anew", always,
     [](History& h, WireEnd& s) { h.leave(s), h.start(s); }},
    {10, "is set back",
     [](const History& h, const WireEnd& s) { return s.isConnected && h.canBeSetBack(s); },
     [](History& h, WireEnd& s) { h.setBack(s); }},
    {10, "a root moves", always, [](History& h, WireEnd&) { h.move(); }},
    {10, "the broker refuses a root for a while", always,
     [](History& h, WireEnd&) {
       h.refused.insert(Topics("orv/1").event("r" + std::to_string(h.pick(3))));
       h.hasRefused = true;
     }},
    {8, "the broker refuses nothing any more", always,
     [](History& h, WireEnd&) { h.refused.clear(); }},
    {5, "the collector may not read events", always,
     [](History& h, WireEnd&) { h.ends.back().denied = {"orv/1/event/+/+"}; }},
    {5, "the collector may read events again", always,
     [](History& h, WireEnd&) {
       if (!std::exchange(h.ends.back().denied, {}).empty()) h.disconnect(h.ends.back());
     }},
    {5, "the broker saves", always, [](History& h, WireEnd&) { h.saved = h.retained; }},
    {20, "waits", always, [](History& h, WireEnd&) { h.now += 1ms * h.pick(3'000); }},
    {6, "waits long", always, [](History& h, WireEnd&) { h.now += 1ms * h.pick(100'000); }},
    {27, "a will comes", [](const History& h, const WireEnd&) { return !h.wills.empty(); },
     [](History& h, WireEnd&) { h.publishWill(); }},
    {5, "the broker comes back as it was saved", always,
     [](History& h, WireEnd&) {
       h.retained = h.saved;
       for (WireEnd& side : h.ends) h.disconnect(side), side.down.clear();
       h.wills.clear();
     }},
};

TEST(Histories, EndWithTheReportersTrees) {
  for (unsigned int seed = 0; seed < ORV_HISTORIES; ++seed) {
    const int length = 15 + static_cast<int>(seed % 125);
    if (History(seed, false).play(length).empty()) continue;
    FAIL() << "Seed " << seed << ": " << History(seed, true).play(length);
  }
}

}  // namespace
