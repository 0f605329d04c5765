// Measures a fleet: a process that reports, one that collects, and a broker between them. Then, in
// one process and without a broker, how cost grows with the number of roots. Last, what open pages
// of the collector program cost.

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Pages.h"
#include "Plant.h"
#include "reporting/Collector.h"
#include "reporting/Connection.h"
#include "reporting/Reporter.h"

namespace bench {

namespace {

using namespace orv::reporting;
using namespace std::chrono;
using Json = nlohmann::json;
using orv::proto::monitoring::StatusChangeEvent;

void fail(const std::string& problem) { throw std::runtime_error(problem); }
void failFor(const Problem& problem) { fail(problem.text); }
void log(const std::string& text) { std::cerr << text << '\n'; }

// The process that reports. Says when its trees are built, and begins when it is told the time from
// one event to the next, zero for no events. Ends when the other end is closed.
void report(const Broker& broker, const std::string& prefix, std::size_t roots, int control) {
  Plant plant(roots, 100);
  nanoseconds pause(0);
  send(control, &pause, sizeof pause, 0);
  recv(control, &pause, sizeof pause, 0);
  ReporterOptions options;
  options.prefix = prefix;
  Reporter reporter("bench", {{}, failFor}, options);
  Connection connection(broker, reporter, log);
  Time due = steady_clock::now();
  for (std::size_t i = 0; i < roots; ++i) reporter.report(plant.change(due));
  while (const auto length = recv(control, &pause, sizeof pause, MSG_DONTWAIT)) {
    const Time now = steady_clock::now();
    if (length > 0) due = now;
    for (; pause.count() > 0 && due <= now; due += pause) reporter.report(plant.change(due));
    connection.serve(milliseconds(1));
  }
}

// The process that collects.
class Receiver {
 public:
  Receiver(const Broker& broker, int control)
      : control_(control), collector_(callbacks()), connection_(broker, collector_, log) {
    await([this] { return connection_.isConnected(); });
  }

  std::uint64_t requests() const { return collector_.counters().requests; }

  // Lets the reporter begin and says after how many seconds all of its trees are there and current.
  double start(std::size_t roots) {
    const Time begin = steady_clock::now();
    setPause(nanoseconds(0));
    await([this, roots] { return current_.size() == roots; });
    const duration<double> time = steady_clock::now() - begin;
    if (requests() > 0) connection_.serve(seconds(11));  // trees that are answers to them
    return time.count();
  }

  // Has the trees change and says what arrived.
  Json run(double rate, seconds length) {
    delays_.clear();
    changes_ = 0;
    const Collector::Counters earlier = collector_.counters();
    setPause(nanoseconds(std::lround(1e9 / rate)));
    connection_.serve(length);
    const auto time = static_cast<double>(length.count());
    Json result{{"rate", rate},
                {"events", static_cast<double>(delays_.size()) / time},
                {"changes", changes_ / time}};
    setPause(nanoseconds(0));
    connection_.serve(seconds(1));  // for what is still on its way
    if (delays_.empty()) fail("No events arrive");
    std::sort(delays_.begin(), delays_.end());
    result["median"] = delays_[delays_.size() / 2];
    result["percentile"] = delays_[delays_.size() * 99 / 100];
    const auto gap = static_cast<std::size_t>(Follower::Outcome::GAP);
    result["gaps"] = collector_.counters().outcomes.at(gap) - earlier.outcomes.at(gap);
    result["requests"] = requests() - earlier.requests;
    result["holds"] =
        result["gaps"] == 0 && result["percentile"] <= 1000 && result["events"] >= 0.95 * rate;
    return result;
  }

 private:
  CollectorCallbacks callbacks() {
    const auto applied = [this](const auto& /*root*/, const orv::reporting::Step& step) {
      if (isWholeTree(step.event)) return;
      const Time due(
          nanoseconds(boost::get<unsigned long>(step.after->getStatus("uptime")->getValue())));
      delays_.push_back(duration<double, std::milli>(steady_clock::now() - due).count());
      changes_ += step.event.GetExtension(StatusChangeEvent::base).named_status_changes_size();
    };
    const auto changed = [this](const std::string& root, Condition condition) {
      if (condition == Condition::CURRENT) current_.insert(root);
      if (condition != Condition::CURRENT) current_.erase(root);
    };
    return {applied, changed, failFor};
  }

  void await(const std::function<bool()>& isDone) {
    const Time end = steady_clock::now() + minutes(2);
    while (!isDone()) {
      if (steady_clock::now() > end) fail("The fleet does not become current");
      connection_.serve(milliseconds(1));
    }
  }

  void setPause(nanoseconds pause) const { send(control_, &pause, sizeof pause, MSG_NOSIGNAL); }

  int control_;
  std::set<std::string> current_;
  std::vector<double> delays_;  // of the events of a run, in milliseconds
  double changes_ = 0;
  Collector collector_;
  Connection connection_;
};

double residentBytes(pid_t process) {
  double pages = 0;
  std::ifstream("/proc/" + std::to_string(process) + "/statm") >> pages >> pages;
  return pages * static_cast<double>(sysconf(_SC_PAGESIZE));
}

Json measureBroker(const Broker& broker, bool quick) {
  const std::size_t roots = 1000;
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) fail("No pair of sockets");
  const pid_t reporter = fork();
  close(ends[reporter == 0 ? 0 : 1]);
  if (reporter == 0) {
    report(broker, "orv/1", roots, ends[1]);
    std::exit(0);
  }
  nanoseconds ready{};
  if (recv(ends[0], &ready, sizeof ready, 0) <= 0) fail("The reporter has ended");
  Receiver receiver(broker, ends[0]);
  const double empty = residentBytes(getpid());
  Json result{{"roots", roots}, {"start", receiver.start(roots)}};
  result["start_requests"] = receiver.requests();
  auto rate = static_cast<double>(roots);
  Json run = receiver.run(rate, seconds(quick ? 5 : 20));
  result["base"] = run;
  result["collector"] = residentBytes(getpid());
  result["root"] = (residentBytes(getpid()) - empty) / static_cast<double>(roots);
  result["reporter"] = residentBytes(reporter);
  while (run["holds"]) {
    result["highest"] = run;
    rate *= 1.5;
    run = receiver.run(rate, seconds(quick ? 2 : 5));
  }
  result["too_high"] = run;
  close(ends[0]);
  waitpid(reporter, nullptr, 0);
  return result;
}

// A reporter and a collector without a broker: hands over what they publish.
class Pair final : public Link {
 public:
  Pair(std::size_t roots, std::size_t devices) : plant_(roots, devices) {
    reporter_.connecting();
    reporter_.connected(*this, now_);
    collector_.connected(*this, now_);
    for (std::size_t i = 0; i < roots; ++i) reporter_.report(plant_.change(now_));
    while (!reporter_.isSettled()) exchange();
    require(current_ == roots, "The trees are not current");
  }

  // Microseconds of processor time for an event, and for each root in a state of the reporter.
  double event(int times) {
    return time(times, [this] { reporter_.report(plant_.change(now_ += milliseconds(1))); });
  }
  double state(int times) {
    return time(times, [this] { now_ += seconds(30); }) / static_cast<double>(plant_.size());
  }

  void subscribe(const std::vector<std::string>& /*topics*/, Kept /*kept*/) override {}
  std::uint64_t publish(const Message& message) override {
    messages_.push_back(message);
    messages_.back().isRetained = false;  // it arrives at once
    return ++published_;
  }

 private:
  double time(int times, const std::function<void()>& action) {
    const std::clock_t begin = std::clock();
    for (int i = 0; i < times; ++i) {
      action();
      exchange();
    }
    return 1e6 * static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC / times;
  }

  void exchange() {
    reporter_.serve(now_);
    for (const Message& message : std::exchange(messages_, {})) {
      ++settled_;
      if (message.expiry.count() > 0) continue;  // a request for a tree that is on its way
      collector_.received(message, now_);
      if (message.sequence.empty()) reporter_.received(message, now_);  // its own state
      reporter_.settled(settled_, "", now_);
    }
    collector_.serve(now_);
  }

  Time now_{hours(1)};
  Plant plant_;
  std::vector<Message> messages_;
  std::uint64_t published_ = 0;
  std::uint64_t settled_ = 0;
  std::size_t current_ = 0;
  Reporter reporter_{"bench", {{}, failFor}};
  Collector collector_{{{},
                        [this](const auto& /*root*/, Condition condition) {
                          if (condition == Condition::CURRENT) ++current_;
                        },
                        failFor}};
};

Json measureGrowth(bool quick) {
  const std::size_t devices = 10;
  Pair few(1000, devices);
  Pair many(10000, devices);
  Json rounds;
  for (int round = 0; round < (quick ? 3 : 7); ++round) {
    rounds.push_back({{"event", {few.event(10000), many.event(10000)}},
                      {"state", {few.state(10), many.state(1)}}});
  }
  return rounds;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
  const bool quick = argc == 4 && std::string(argv[1]) == "--quick";
  if (argc != 3 && !quick) {
    std::cerr << "usage: " << argv[0] << " [--quick] BROKER COLLECTOR >RESULTS.json\n";
    return 2;
  }
  try {
    bench::Json results;
    const auto broker = bench::Broker::parse(argv[argc - 2]);
    results["broker"] = bench::measureBroker(broker, quick);
    results["growth"] = bench::measureGrowth(quick);
    const auto report = [&broker](int control) { bench::report(broker, "pages", 1000, control); };
    results["pages"] = bench::measurePages(argv[argc - 2], argv[argc - 1], report, quick);
    std::cout << results.dump(2) << '\n';
  } catch (const std::exception& error) {
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return 1;
  }
}
