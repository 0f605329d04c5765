// The protocol through random histories. One that fails is played once more and tells its story.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>

#include "reporting/Collector.h"
#include "reporting/Reporter.h"
#include "tests/reporting/Wire.h"

namespace {

using namespace std::chrono_literals;
using namespace wire;
using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;

std::string bytesOf(const Tree& tree) { return tree->toProtoBuf().SerializeAsString(); }
std::string textOf(const Tree& tree) { return tree ? tree->debugString() : "none\n"; }

// Two processes that report three roots, and one that collects them, over a broker. While the wire
// is bad, messages get lost, doubled and overtaken, connections break, wills come late, and each of
// the four is restarted at any moment. Every value is written once, so that a tree that was put
// together wrongly is none that its reporter ever had.
class Fleet : Wire {
 public:
  Fleet(unsigned int seed, bool isTold) : random(seed), tellsStory(isTold) {
    for (Side& side : sides) start(side);
    for (const char* id : {"r0", "r1", "r2"}) live[id] = nullptr;
  }

  // Returns what is wrong, with the story; nothing when all is well.
  std::string play(int length) {
    while (length-- > 0 && fault.empty()) step();
    tell("From here on the wire is good");
    calmDown(150s);
    compare();
    const std::uint64_t requests = collector->counters().requests;
    if (requests >= 60) fail("There were many requests");
    calmDown(120s);
    if (collector->counters().requests != requests) fail("Requests go on");
    return fault;
  }

 private:
  // What can happen. One that is impossible now is drawn again.
  struct Step {
    unsigned int weight;  // of 1000
    const char* name;
    bool (*isPossible)(const Fleet&, const Side&);
    void (*play)(Fleet&, Side&);
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
  Reporter& reporterOf(const std::string& id) { return *reporters.at(id == "r2" ? 1 : 0); }

  void step() {
    const unsigned int at = any(sides);
    Side& side = sides.at(at);
    auto next = steps.begin();
    do {
      unsigned int number = pick(1000);
      for (next = steps.begin(); number >= next->weight; ++next) number -= next->weight;
    } while (!next->isPossible(*this, side));
    if (tellsStory) tell(names.at(at) + ": " + next->name);
    next->play(*this, side);
    if (side.isConnected) side.endpoint->serve(now);
  }

  void start(Side& side) {
    breakOff(side);
    const auto at = static_cast<std::size_t>(&side - sides.data());
    if (at == reporters.size()) return startCollector();
    ReporterOptions options;
    options.seed = random();
    auto& reporter = reporters.at(at);
    reporter = std::make_unique<Reporter>(names.at(at), ReporterCallbacks{}, options);
    begin(side, *reporter);
    for (const auto& [id, tree] : live) {
      if (tree && &reporterOf(id) == reporter.get()) reporter->report(tree);
    }
  }

  void startCollector() {
    CollectorOptions options;
    options.seed = random();
    CollectorCallbacks callbacks;
    callbacks.applied = [this](const std::string& id, const Event& event, const Tree&,
                               const Tree& tree) {
      if (tellsStory) tell("an event of " + id + ": " + event.ShortDebugString());
      if (tree && had[id].count(bytesOf(tree)) == 0) fail(id, "never was like that", tree);
    };
    collector = std::make_unique<Collector>(callbacks, options);
    begin(sides.back(), *collector);
  }

  void breakOff(Side& side) {
    std::size_t arriving = 0;
    while (arriving < side.up.size() && pick(2) == 0) ++arriving;
    cut(side, arriving);
  }
  void disconnect(Side& side) {
    const bool wasConnected = side.isConnected;
    breakOff(side);
    if (wasConnected) side.endpoint->disconnected(now);
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

  void compare() {
    std::vector<std::string> ids;
    for (const auto& [id, tree] : live) {
      if (!tree) continue;
      ids.push_back(id);
      const auto view = collector->view(id);
      const Tree arrived = view ? view->tree : nullptr;
      if (!arrived || bytesOf(arrived) != bytesOf(tree)) fail(id, "is not the same", arrived);
      if (view && view->condition != Condition::CURRENT) fail(id, "is not current", arrived);
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
  std::array<std::unique_ptr<Reporter>, 2> reporters;
  std::unique_ptr<Collector> collector;
};

bool always(const Fleet& /*f*/, const Side& /*s*/) { return true; }
bool hasUp(const Fleet& /*f*/, const Side& s) { return !s.up.empty(); }
bool hasDown(const Fleet& /*f*/, const Side& s) { return s.isConnected && !s.down.empty(); }
bool isOff(const Fleet& /*f*/, const Side& s) { return !s.isConnected; }

const std::vector<Fleet::Step> Fleet::steps = {
    {200, "a tree changes", always, [](Fleet& f, Side&) { f.edit(); }},
    {210, "the broker takes", hasUp, [](Fleet& f, Side& s) { f.takeUp(s, 0, true); }},
    {24, "the broker takes any", hasUp, [](Fleet& f, Side& s) { f.takeUp(s, f.any(s.up), true); }},
    {12, "the answer is lost", hasUp,
     [](Fleet& f, Side& s) { f.takeUp(s, 0, false), f.disconnect(s); }},
    {6, "the broker refuses", hasUp, [](Fleet& f, Side& s) { f.refuse(s); }},
    {190, "hears", hasDown, [](Fleet& f, Side& s) { f.takeDown(s, 0, false); }},
    {95, "hears any", hasDown, [](Fleet& f, Side& s) { f.takeDown(s, f.any(s.down), false); }},
    {30, "hears first", hasDown, [](Fleet& f, Side& s) { f.takeDown(s, f.any(s.down), true); }},
    {35, "misses", hasDown, [](Fleet& f, Side& s) { f.loseDown(s, f.any(s.down)); }},
    {100, "connects", isOff, [](Fleet& f, Side& s) { f.connect(s); }},
    {20, "disconnects", always, [](Fleet& f, Side& s) { f.disconnect(s); }},
    {20, "starts anew", always, [](Fleet& f, Side& s) { f.start(s); }},
    {20, "waits", always, [](Fleet& f, Side&) { f.now += 1ms * f.pick(3'000); }},
    {6, "waits long", always, [](Fleet& f, Side&) { f.now += 1ms * f.pick(100'000); }},
    {27, "a will comes", [](const Fleet& f, const Side&) { return !f.wills.empty(); },
     [](Fleet& f, Side&) { f.publishWill(); }},
    {5, "the broker forgets", always,
     [](Fleet& f, Side&) {
       f.retained.clear();
       for (Side& side : f.sides) f.disconnect(side), side.down.clear();
       f.wills.clear();
     }},
};

TEST(Histories, EndWithTheReportersTrees) {
  for (unsigned int seed = 0; seed < ORV_HISTORIES; ++seed) {
    const int length = 15 + static_cast<int>(seed % 125);
    if (Fleet(seed, false).play(length).empty()) continue;
    FAIL() << "Seed " << seed << ": " << Fleet(seed, true).play(length);
  }
}

}  // namespace
