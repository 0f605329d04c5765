// The protocol through random histories.
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "reporting/Collector.h"
#include "reporting/Reporter.h"
#include "tests/reporting/Wire.h"

namespace {

using namespace std::chrono_literals;
using namespace wire;
using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;

std::string bytesOf(const Tree& tree) { return tree->toProtoBuf().SerializeAsString(); }

// Two processes that report three roots, and one that collects them, over a broker. While the wire
// is bad, messages get lost, doubled and overtaken, connections break, wills come late, and each of
// the four is restarted at any moment. Every value is written once, so that a tree that was put
// together wrongly is none that its reporter ever had.
class Fleet {
 public:
  explicit Fleet(unsigned int seed) : random(seed) {
    for (std::size_t i = 0; i < reporters.size(); ++i) startReporter(i);
    startCollector();
    for (const char* id : {"r0", "r1", "r2"}) live[id] = nullptr;
  }

  void liveThrough(int steps) {
    while (steps-- > 0) step();
  }

  // From here on the wire is good.
  void calmDown(std::chrono::seconds duration) { wire.calmDown(duration); }

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
    reporters.at(i) = std::make_unique<Reporter>(i == 0 ? "a" : "b", ReporterCallbacks{}, options);
    start(wire.sides.at(i), *reporters.at(i));
    for (const auto& [id, tree] : live) {
      if (tree && &reporterOf(id) == reporters.at(i).get()) reporters.at(i)->report(tree);
    }
  }

  void startCollector() {
    CollectorOptions options;
    options.seed = random();
    CollectorCallbacks callbacks;
    callbacks.applied = [this](const std::string& id, const Event&, const Tree&, const Tree& tree) {
      EXPECT_TRUE(!tree || had[id].count(bytesOf(tree)) == 1) << id << " never was like that";
    };
    collector = std::make_unique<Collector>(callbacks, options);
    start(wire.sides.back(), *collector);
  }

  void start(Side& side, Endpoint& endpoint) {
    cut(side, false);
    wire.start(side, endpoint);
  }

  void cut(Side& side, bool isTold) {
    std::size_t arriving = 0;
    while (arriving < side.up.size() && pick(2) == 0) ++arriving;
    wire.cut(side, arriving, isTold);
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
    Side& side = wire.sides.at(pick(wire.sides.size()));
    const unsigned int kind = pick(100);
    if (kind < 20) {
      edit();
    } else if (kind < 45 && !side.up.empty()) {
      const bool isLost = pick(20) == 0;  // with it the connection
      if (pick(40) == 0) {
        wire.refuse(side);
      } else {
        wire.takeUp(side, pick(10) == 0 ? pick(side.up.size()) : 0, !isLost);
      }
      if (isLost) cut(side, true);
    } else if (kind < 80 && !side.down.empty() && side.isConnected) {
      const std::size_t at = pick(3) == 0 ? pick(side.down.size()) : 0;
      if (pick(10) == 0) {
        wire.loseDown(side, at);
      } else {
        wire.takeDown(side, at, pick(10) == 0);
      }
    } else if (kind < 90) {
      if (!side.isConnected) wire.connect(side);
    } else if (kind < 93) {
      wire.now += std::chrono::milliseconds(pick(pick(5) == 0 ? 100'000 : 3'000));
    } else if (kind < 95) {
      cut(side, true);
    } else if (kind == 95) {
      startReporter(pick(reporters.size()));
    } else if (kind == 96) {
      startCollector();
    } else if (kind == 97 && pick(2) == 0) {
      for (Side& other : wire.sides) cut(other, true);
      wire.forget();
    } else if (!wire.wills.empty()) {
      wire.publishWill();
    }
    if (side.isConnected) side.endpoint->serve(wire.now);
  }

  std::mt19937 random;
  std::map<std::string, Tree> live;
  std::map<std::string, std::set<std::string>> had;
  unsigned int values = 0;
  Wire wire;
  std::array<std::unique_ptr<Reporter>, 2> reporters;
  std::unique_ptr<Collector> collector;
};

TEST(Histories, EndWithTheReportersTrees) {
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

}  // namespace
