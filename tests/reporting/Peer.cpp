// A reporter or a collector that faults.py starts, gives orders on standard input, and kills:
//
//   reporter URL NAME SEED ROOTS    reports the roots NAME/0, NAME/1 and so on
//   collector URL
//   idle URL                        a collector that is served by a loop of its own, without orders

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <random>

#include "loop.inc"
#include "reporting/Collector.h"
#include "reporting/Connection.h"
#include "reporting/Reporter.h"

namespace {

using namespace orv::device_tree;
using namespace orv::reporting;
using std::chrono::milliseconds;

void say(const std::string& line) { std::cout << line << std::endl; }

// The next order, empty while there is none.
std::string nextOrder() {
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  std::string order;
  if (poll(&input, 1, 0) == 1 && !std::getline(std::cin, order)) return "end";
  if (order == "clock") say("clock " + std::to_string(std::time(nullptr)));
  return order;
}

void show(const std::string& root, Condition condition, const Tree& tree) {
  std::cout << "== " << root << " " << static_cast<int>(condition) << "\n"
            << (tree ? tree->debugString() : "no tree\n");
}

Tree makeDevice(const std::string& id, const std::string& value) {
  const auto device =
      std::make_shared<DeviceNode>(id, value, orv::proto::monitoring::DeviceNode::UNKNOWN);
  std::string refusal;
  device->addStatus(NamedStatus("status", NamedStatus::TYPE_STRING, value), refusal);
  device->addProperty(Property("property", Property::TYPE_STRING, value), refusal);
  return device;
}

void change(const Tree& root, std::mt19937& random, const std::string& value) {
  const std::string id = root->getDeviceId() + "." + std::to_string(random() % 4);
  const Tree part = root->getDeviceById(id);
  const Tree& device = part ? part : root;
  const auto choice = random() % 4;
  std::string refusal;
  if (choice == 0) device->getStatus("status")->setValue(value);
  if (choice == 1) device->setGlobalStatus({GlobalStatus::LEVEL_WARNING, value});
  if (choice == 2) device->getProperties().at("property")->value = value;
  if (choice == 3 && !root->removeSubDevice(id, false, refusal)) {
    root->addSubDevice(makeDevice(id, value), false, refusal);
  }
}

void report(const Broker& broker, const std::string& name, const std::string& seed, int count) {
  std::mt19937 random(static_cast<unsigned int>(std::stoul(seed)));
  int changes = 0;
  // No value comes twice: a tree put together from two others never looks right.
  const auto newValue = [&] { return seed + "-" + std::to_string(++changes); };
  ReporterOptions options;  // quicker than usual: the test waits for them
  options.heartbeat = milliseconds(2000);
  options.treePause = milliseconds(1000);
  Reporter reporter(name, {{}, say}, options);
  Connection connection(broker, reporter, say);
  std::vector<Tree> trees;
  for (int number = 0; number < count; ++number) {
    trees.push_back(makeDevice(name + "/" + std::to_string(number), newValue()));
    reporter.report(trees.back());
  }
  for (std::string state = "go";; connection.serve(milliseconds(20))) {
    const std::string order = nextOrder();
    if (order == "end") return;
    if (order == "hold" || order == "go") state = order;
    if (order == "remove") {
      reporter.remove(trees.back()->getDeviceId());
      trees.pop_back();
    }
    if (order == "big" || order == "small") {
      trees.front()->setName(std::string(order == "big" ? 100000 : 10, 'x'));
      reporter.report(trees.front());
    }
    if (state == "go") {
      const Tree& tree = trees[random() % trees.size()];
      change(tree, random, newValue());
      reporter.report(tree);
    } else if (state == "hold" && reporter.isSettled()) {
      state = "held";
      for (const Tree& tree : trees) show(tree->getDeviceId(), Condition::CURRENT, tree);
      say("== end");
    }
  }
}

void collect(const Broker& broker) {
  Collector collector({{}, {}, say});
  Connection connection(broker, collector, say);
  for (std::string order; order != "end"; order = nextOrder()) {
    if (order == "show") {
      for (const std::string& id : collector.roots()) {
        const Collector::View view = collector.view(id).value();
        show(id, view.condition, view.tree);
      }
      say("== end");
    }
    connection.serve(milliseconds(20));
  }
}

void idle(const Broker& broker) {
  Collector collector({{}, {}, say});
  Connection connection(broker, collector, say);
  serveUntilReadable(STDIN_FILENO, connection);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv, argv + argc);
  std::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdin, nullptr, _IONBF, 0);  // so that poll sees each order
  Broker broker = Broker::parse(arguments.at(2));
  if (const char* const password = std::getenv("ORV_PASSWORD")) broker.password = password;
  if (const char* const file = std::getenv("ORV_CA")) broker.caFile = file;
  if (arguments.at(1) == "collector") {
    collect(broker);
  } else if (arguments.at(1) == "idle") {
    idle(broker);
  } else {
    report(broker, arguments.at(3), arguments.at(4), std::stoi(arguments.at(5)));
  }
}
