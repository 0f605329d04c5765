// Kills a collector that records, again and again, and looks at what its history holds.
//
//   orv_history_kills BROKER COLLECTOR FILE TIMES
//
// A reporter has many roots, each a row of devices. The change number k of a root is written into
// its first device and into one of the others, in turn. So a tree says by itself whether it ever
// was like that.
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "history/Reader.h"
#include "reporting/Connection.h"
#include "reporting/Reporter.h"

namespace {

using namespace std::chrono_literals;
using namespace orv::history;
using orv::device_tree::DeviceNode;
using orv::device_tree::NamedStatus;
using orv::reporting::Tree;

constexpr unsigned long roots = 100;
constexpr unsigned long others = 5;  // devices beside the first
using Numbers = std::array<unsigned long, roots>;

[[noreturn]] void fail(const std::string& problem) { throw std::runtime_error(problem); }
void ignore(const std::string& /*line*/) {}

std::string nameOf(unsigned long device) { return "device-" + std::to_string(device); }

// Of the changes up to `number`, the last one that the device was written by.
unsigned long lastOf(unsigned long device, unsigned long number) {
  return number < device ? 0 : number - (number - device) % others;
}

Tree make(const std::string& id) {
  std::string error;
  const auto root = std::make_shared<DeviceNode>(id, "", DeviceNode::DeviceClass());
  root->addStatus(NamedStatus("k", NamedStatus::TYPE_UINT, 0UL), error);
  for (unsigned long i = 0; i < others; ++i) {
    const auto device = std::make_shared<DeviceNode>(nameOf(i), "", DeviceNode::DeviceClass());
    device->addStatus(NamedStatus("k", NamedStatus::TYPE_UINT, 0UL), error);
    root->addSubDevice(device, false, error);
  }
  return root;
}

// Reports until it is told to end its changes, says what the last ones were, and goes on until the
// other end is closed.
void report(const std::string& broker, int control) {
  orv::reporting::Reporter reporter("plant", {});
  orv::reporting::Connection connection(orv::reporting::Broker::parse(broker), reporter, ignore);
  Numbers numbers{};
  std::vector<Tree> trees;
  for (unsigned long i = 0; i < roots; ++i) {
    trees.push_back(make(std::to_string(i)));
    reporter.report(trees.back());
  }
  std::mt19937 random(1);
  bool changes = true;
  char told = 0;
  while (const auto length = recv(control, &told, 1, MSG_DONTWAIT)) {
    if (length == 1) {
      changes = false;
      send(control, numbers.data(), sizeof numbers, 0);
    }
    for (int i = 0; changes && i < 3; ++i) {
      const unsigned long root = random() % roots;
      const unsigned long k = ++numbers.at(root);
      trees[root]->getStatus("k")->setValue(k);
      trees[root]->getDeviceById(nameOf(k % others))->getStatus("k")->setValue(k);
      reporter.report(trees[root]);
    }
    connection.serve(10ms);
  }
}

unsigned long numberOf(DeviceNode& device) {
  return boost::get<unsigned long>(device.getStatus("k")->getValue());
}

// The change that the tree is of. Throws where there never was such a tree.
unsigned long check(const Tree& tree) {
  const unsigned long k = numberOf(*tree);
  for (unsigned long i = 0; i < others; ++i) {
    const auto device = tree->getDeviceById(nameOf(i));
    if (!device || numberOf(*device) != lastOf(i, k)) {
      fail("There never was\n" + tree->debugString());
    }
  }
  return k;
}

Time now() {
  return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

std::map<std::string, unsigned long> numbersAt(Reader& reader, Time time) {
  std::map<std::string, unsigned long> numbers;
  for (const Root& root : reader.roots()) {
    const auto moment = reader.treeAt(root.id, time);
    if (moment && moment->tree) numbers[root.id] = check(moment->tree);
  }
  return numbers;
}

class Child {
 public:
  explicit Child(const std::function<void()>& run) : id_(fork()) {
    if (id_ != 0) return;
    run();
    std::_Exit(0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
  }

 private:
  pid_t id_;
};

void collect(std::string broker, std::string program, std::string file) {
  for (std::FILE* const stream : {stdout, stderr}) {
    if (std::freopen("/dev/null", "w", stream) == nullptr) std::_Exit(1);
  }
  std::string brokerOption = "--broker";
  std::string historyOption = "--history";
  const std::array<char*, 6> arguments = {program.data(),       brokerOption.data(), broker.data(),
                                          historyOption.data(), file.data(),         nullptr};
  execv(program.c_str(), arguments.data());
}

// Each change of a root follows on the one before it, or comes with a whole tree, as the broker
// keeps one now and then. Where that one leaves out changes, it says so, and only there.
void checkEvents(Reader& reader, const std::string& root) {
  Question question;
  question.root = root;
  question.isNewestFirst = false;
  orv::reporting::Sequence last;
  do {
    const auto page = reader.events(question);
    for (const Recorded& one : page.answers) {
      const bool isNext = one.sequence.epoch == last.epoch && one.sequence.n == last.n + 1;
      const bool isJump = one.sequence.epoch == last.epoch && one.sequence.n > last.n + 1;
      if (one.isCaughtUp != isJump || !(isNext || orv::reporting::isWholeTree(one.event))) {
        fail("Events of " + root + " are missing before " + one.sequence.text());
      }
      last = one.sequence;
    }
    question.after = page.next;
  } while (!question.after.empty());
}

void play(const std::string& broker, const std::string& program, const std::string& file,
          int times) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) fail("There is no pair of sockets");
  const Child plant([&] {
    close(ends[0]);
    report(broker, ends[1]);
  });
  close(ends[1]);
  std::mt19937 random(static_cast<unsigned int>(times));
  std::vector<Time> moments;
  std::map<std::string, unsigned long> last;
  for (int i = 0; i < times; ++i) {
    {
      const Child collector([&] { collect(broker, program, file); });
      std::this_thread::sleep_for(1ms * (i == 0 ? 2000 : 50 + random() % 1500));
    }
    Reader reader(file);
    moments.push_back(now());
    auto numbers = numbersAt(reader, moments.back());
    for (const auto& [root, number] : last) {
      if (numbers[root] < number) fail("What was committed of " + root + " is lost");
    }
    last = std::move(numbers);
    numbersAt(reader, moments[random() % moments.size()]);
  }
  const Child collector([&] { collect(broker, program, file); });
  Numbers expected{};
  send(ends[0], "x", 1, 0);
  if (recv(ends[0], expected.data(), sizeof expected, MSG_WAITALL) != sizeof expected) {
    fail("The reporter has ended");
  }
  Reader reader(file);
  const auto end = std::chrono::steady_clock::now() + 60s;
  for (bool isThere = false; !isThere; std::this_thread::sleep_for(100ms)) {
    if (std::chrono::steady_clock::now() > end) fail("Not all changes arrive");
    const auto numbers = numbersAt(reader, now());
    isThere = numbers.size() == roots;
    for (const auto& [root, number] : numbers) {
      isThere = isThere && number == expected.at(std::stoul(root));
    }
  }
  for (const Root& root : reader.roots()) checkEvents(reader, root.id);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: " << argv[0] << " BROKER COLLECTOR FILE TIMES\n";
    return 2;
  }
  try {
    play(argv[1], argv[2], argv[3], std::atoi(argv[4]));
    return 0;
  } catch (const std::exception& fault) {
    std::cerr << fault.what() << '\n';
    return 1;
  }
}
