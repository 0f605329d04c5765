// A reporter or a collector that faults.py starts, gives orders on standard input, and kills:
//
//   reporter URL NAME SEED ROOTS [EASE]   reports the roots NAME/0, NAME/1 and so on; one in EASE
//                                   turns changes something
//   collector URL [CLIENT]          with the session of that client name, which outlives it
//   idle URL                        a collector that is served by a loop of its own, without orders
//   hurry URL                       a collector that says how long it was held up, without orders
//
// URL may be several of them with commas between.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>

#include "loop.inc"
#include "reporting/Collector.h"
#include "reporting/Connection.h"
#include "reporting/Reporter.h"

namespace {

using namespace orv::device_tree;
using namespace orv::reporting;
using std::chrono::milliseconds;

void say(const std::string& line) { std::cout << line << std::endl; }
void complain(const Problem& problem) { say(problem.text); }

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

// With the password that is in the file at that moment.
ConnectionOptions connectionOptions() {
  ConnectionOptions options;
  if (const char* const file = std::getenv("ORV_PASSWORD_FILE")) {
    options.credentials = [file] {
      Credentials credentials{"user", ""};
      std::getline(std::ifstream(file) >> std::ws, credentials.password);
      return credentials;
    };
  }
  return options;
}

void report(const Broker& broker, const std::string& name, const std::string& seed, int count,
            unsigned int ease) {
  std::mt19937 random(static_cast<unsigned int>(std::stoul(seed)));
  int changes = 0;
  // No value comes twice: a tree put together from two others never looks right.
  const auto newValue = [&] { return seed + "-" + std::to_string(++changes); };
  ReporterOptions options;  // quicker than usual: the test waits for them
  options.heartbeat = milliseconds(2000);
  options.treePause = milliseconds(1000);
  Reporter reporter(name, {{}, complain}, options);
  Connection connection(broker, reporter, say, connectionOptions());
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
    if (state == "go" && random() % ease == 0) {
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

void collect(const Broker& broker, const std::string& client) {
  const auto tell = [](const std::string& root, Condition condition) {
    if (condition == Condition::REPORTER_GONE) say("gone: " + root);
  };
  Collector collector({{}, tell, complain});
  ConnectionOptions options = connectionOptions();
  options.clientName = client;
  options.outlivesProcess = !client.empty();
  Connection connection(broker, collector, say, options);
  for (std::string order; order != "end"; order = nextOrder()) {
    if (order == "show") {
      for (const std::string& id : collector.roots()) {
        const Collector::View view = collector.view(id).value();
        show(id, view.condition, view.tree);
      }
      say("== end");
    }
    if (order == "requests") {
      const Collector::Counters& counters = collector.counters();
      say("requests " + std::to_string(counters.requests) + ", of whole trees " +
          std::to_string(counters.treeRequests) + ".");
    }
    connection.serve(milliseconds(20));
  }
}

void idle(const Broker& broker) {
  Collector collector({{}, {}, complain});
  Connection connection(broker, collector, say);
  serveUntilReadable(STDIN_FILENO, connection);
}

void hurry(const Broker& broker) {
  Collector collector({{}, {}, complain});
  Connection connection(broker, collector, say);
  auto longest = milliseconds(0);
  for (int i = 0; i < 30; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    connection.serve(milliseconds(100));
    const auto taken = std::chrono::steady_clock::now() - begin;
    longest = std::max(longest, std::chrono::ceil<milliseconds>(taken));
  }
  say("longest " + std::to_string(longest.count()));
}

// Has more messages on their way than the client library has numbers for.
class Talker final : public Endpoint {
 public:
  static constexpr std::uint64_t MOST = 70'000;

  bool isDone() const { return settled_ == MOST; }

  std::optional<Message> connecting() override { return std::nullopt; }
  void connected(Link& link, Time /*now*/) override {
    Message message;
    message.topic = "talk";
    for (std::uint64_t i = 0; i < MOST; ++i) link.publish(message);
  }
  void disconnected(Time /*now*/) override {}
  void settled(std::uint64_t number, const std::string& refusal, Time /*now*/) override {
    if (number == settled_ + 1 && refusal.empty()) ++settled_;
  }
  void received(const Message& /*message*/, Time /*now*/) override {}
  Time serve(Time /*now*/) override { return Time::max(); }

 private:
  std::uint64_t settled_ = 0;  // in their order
};

void talk(const Broker& broker) {
  Talker talker;
  Connection connection(broker, talker, say);
  while (!talker.isDone()) connection.serve(milliseconds(20));
  say("all are settled");
}

Broker brokerOf(const std::string& urls) {
  std::vector<std::string> list;
  std::istringstream stream(urls);
  for (std::string url; std::getline(stream, url, ',');) list.push_back(url);
  Broker broker = Broker::parseAll(list);
  if (const char* const password = std::getenv("ORV_PASSWORD")) broker.password = password;
  if (const char* const file = std::getenv("ORV_CA")) broker.caFile = file;
  return broker;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv, argv + argc);
  std::signal(SIGPIPE, SIG_IGN);
  std::setvbuf(stdin, nullptr, _IONBF, 0);  // so that poll sees each order
  const Broker broker = brokerOf(arguments.at(2));
  if (arguments.at(1) == "collector") {
    collect(broker, argc > 3 ? arguments.at(3) : "");
  } else if (arguments.at(1) == "idle") {
    idle(broker);
  } else if (arguments.at(1) == "hurry") {
    hurry(broker);
  } else if (arguments.at(1) == "talker") {
    talk(broker);
  } else {
    const unsigned long ease = argc > 6 ? std::stoul(arguments.at(6)) : 1;
    report(broker, arguments.at(3), arguments.at(4), std::stoi(arguments.at(5)),
           static_cast<unsigned int>(ease));
  }
}
