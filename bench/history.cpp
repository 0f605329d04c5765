// Measures a history: what it takes on the disk, what recording costs a collector, what questions
// cost, and how long a collector takes that begins with one.
//
//   orv_history_bench [--quick] BROKER DIRECTORY >RESULTS.json

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Plant.h"
#include "device_tree/Utils.h"
#include "history/Reader.h"
#include "history/Recorder.h"
#include "reporting/Collector.h"
#include "reporting/Connection.h"
#include "reporting/Reporter.h"

namespace bench {

namespace {

using namespace orv::reporting;
using namespace std::chrono;
using Json = nlohmann::json;
using orv::history::Reader;
using orv::history::Recorder;

void fail(const std::string& problem) { throw std::runtime_error(problem); }
void failFor(const Problem& problem) { fail(problem.text); }
void log(const std::string& text) { std::cerr << text << '\n'; }

double processorTime() {
  return 1e6 * static_cast<double>(std::clock()) / CLOCKS_PER_SEC;  // in microseconds
}

orv::history::RecorderOptions recorderOptions(std::function<orv::history::Time()> clock = {}) {
  orv::history::RecorderOptions options;
  options.problem = fail;
  options.clock = std::move(clock);
  return options;
}

// A reporter and two collectors without a broker, of which one records.
class Recording final : public Link {
 public:
  Recording(const std::string& file, std::size_t roots, std::size_t devices)
      : plant_(roots, devices),
        recorder_(std::make_unique<Recorder>(file, recorderOptions([this] { return time_; }))),
        file_(file) {
    reporter_.connecting();
    reporter_.connected(*this, now_);
    plain_.connected(nowhere_, now_);
    recording_.connected(nowhere_, now_);
    for (std::size_t i = 0; i < roots; ++i) reporter_.report(plant_.change(now_));
    while (!reporter_.isSettled()) exchange();
    require(recorder_->commit(), recorder_->failure());
    begin_ = std::filesystem::file_size(file) + std::filesystem::file_size(file + "-wal");
    bytes_ = plainCost_ = recordingCost_ = 0;
  }

  // What one event costs the one and the other collector, in microseconds of processor time, the
  // bytes of an event, and what they take on the disk for each byte.
  Json run(int events) {
    constexpr int atOnce = 500;
    for (int i = 0; i < events; ++i) {
      now_ += milliseconds(1);
      time_ += milliseconds(1);
      reporter_.report(plant_.change(now_));
      collect();
      if (i % atOnce == atOnce - 1) exchange();
    }
    recorder_.reset();
    const auto taken = static_cast<double>(std::filesystem::file_size(file_) - begin_);
    return {{"plain", plainCost_ / events},
            {"recording", recordingCost_ / events},
            {"bytes", bytes_ / events},
            {"disk", taken / bytes_}};
  }

  void subscribe(const std::vector<std::string>& /*topics*/, Kept /*kept*/) override {}
  std::uint64_t publish(const Message& message) override {
    messages_.push_back(message);
    messages_.back().isRetained = false;  // it arrives at once
    return ++published_;
  }

 private:
  struct Nowhere final : Link {
    void subscribe(const std::vector<std::string>& /*topics*/, Kept /*kept*/) override {}
    std::uint64_t publish(const Message& /*message*/) override { return ++published; }
    std::uint64_t published = 0;
  };

  // Has the reporter publish, and tells it that the broker took it.
  void collect() {
    reporter_.serve(now_);
    for (; settled_ < published_; ++settled_) reporter_.settled(settled_ + 1, "", now_);
  }

  // Hands over what was published, to the one collector and then to the other.
  void exchange() {
    collect();
    const std::vector<Message> messages = std::exchange(messages_, {});
    for (const Message& message : messages) {
      if (!message.sequence.empty()) bytes_ += static_cast<double>(message.payload.size());
    }
    const auto feed = [&](Collector& collector, double& cost) {
      const double begin = processorTime();
      for (const Message& message : messages) {
        if (message.expiry.count() == 0) collector.received(message, now_);
        if (&collector == &recording_) recorder_->serve();
      }
      collector.serve(now_);
      cost += processorTime() - begin;
    };
    isPlainFirst_ = !isPlainFirst_;
    if (isPlainFirst_) feed(plain_, plainCost_);
    feed(recording_, recordingCost_);
    if (!isPlainFirst_) feed(plain_, plainCost_);
  }

  Time now_{hours(1)};
  orv::history::Time time_{hours(500'000)};
  Plant plant_;
  std::vector<Message> messages_;
  std::uint64_t published_ = 0;
  std::uint64_t settled_ = 0;
  double bytes_ = 0;
  double plainCost_ = 0;
  double recordingCost_ = 0;
  std::uintmax_t begin_ = 0;
  bool isPlainFirst_ = false;
  Nowhere nowhere_;
  std::unique_ptr<Recorder> recorder_;
  std::string file_;
  Reporter reporter_{"bench", {{}, failFor}};
  Collector plain_{{{}, {}, failFor}};
  Collector recording_{
      {[this](const std::string& root, const Step& step) { recorder_->record(root, step); },
       {},
       failFor}};
};

// Fills a file with the course of one tree, which the roots have under many names.
void fill(const std::string& file, std::size_t roots, std::size_t devices, int events) {
  Plant plant(1, devices);
  orv::history::Time time{hours(500'000)};
  Recorder recorder(file, recorderOptions([&time] { return time; }));
  Event event;
  Tree tree;
  std::string error;
  for (int i = 0; i <= events; ++i) {
    const NodePtr& live = plant.change(Time(seconds(i)));
    orv::device_tree::utils::EventHelper::ComputeEvent(tree, live, event);
    const Tree before = tree;
    require(orv::device_tree::utils::EventHelper::ApplyEvent(event, tree, error), error);
    for (std::size_t root = 0; root < roots; ++root) {
      time += milliseconds(1);
      recorder.record(numbered("root-", root),
                      {{root + 1, static_cast<std::uint64_t>(i) + 1}, event, before, tree});
      recorder.serve();
    }
  }
  require(recorder.commit(), recorder.failure());
}

double percentile(std::vector<double>& values, std::size_t percent) {
  std::sort(values.begin(), values.end());
  return values.at(values.size() * percent / 100);
}

// Microseconds of processor time for the tree of a root of 10,000 devices at a time.
Json measureTrees(const std::string& file, bool quick) {
  const int events = 250;
  fill(file, 1, 10'000, events);
  Reader reader(file);
  std::mt19937 random(1);
  std::vector<double> durations;
  for (int i = 0; i < (quick ? 100 : 500); ++i) {
    const orv::history::Time time(hours(500'000) + milliseconds(1 + random() % events));
    const double begin = processorTime();
    const auto moment = reader.treeAt(numbered("root-", 0), time);
    durations.push_back(processorTime() - begin);
    require(moment && moment->tree, "There is no tree");
  }
  return {{"median", percentile(durations, 50)}, {"percentile", percentile(durations, 99)}};
}

// Microseconds of processor time until the trees of so many roots of 100 devices are there.
double measureResume(const std::string& file, std::size_t roots) {
  fill(file, roots, 100, 40);
  const double begin = processorTime();
  Recorder recorder(file, recorderOptions());
  const auto resumed = recorder.resume();
  const double time = processorTime() - begin;
  require(resumed.size() == roots, "Roots are missing");
  return time;
}

// The process that reports: so many events a second, until the other end is closed.
void report(const Broker& broker, const std::string& prefix, std::size_t roots, std::size_t devices,
            double rate, int control) {
  Plant plant(roots, devices);
  ReporterOptions options;
  options.prefix = prefix;
  Reporter reporter("bench", {{}, failFor}, options);
  Connection connection(broker, reporter, log);
  const nanoseconds pause(static_cast<long>(1e9 / rate));
  Time due = steady_clock::now();
  for (std::size_t i = 0; i < roots; ++i) reporter.report(plant.change(due));
  char nothing = 0;
  while (recv(control, &nothing, 1, MSG_DONTWAIT) != 0) {
    for (; due <= steady_clock::now(); due += pause) reporter.report(plant.change(due));
    connection.serve(milliseconds(1));
  }
}

// A collector with a history, in a process of its own that is killed or measured.
class Life {
 public:
  Life(const Broker& broker, const std::string& prefix, const std::string& file, bool hasSession)
      : recorder_(file, recorderOptions()), collector_(callbacks(), collectorOptions(prefix)) {
    for (auto& root : recorder_.resume()) collector_.resume(root.root, root.tree, root.sequence);
    ConnectionOptions options;
    if (hasSession) {
      options.clientName = "collector-" + prefix.substr(4);
      options.sessionExpiry = hours(1);
      options.outlivesProcess = true;
    }
    connection_ = std::make_unique<Connection>(broker, collector_, ignore, options);
  }

  // Seconds from the connection until all are current.
  double start(std::size_t roots) {
    serve([this] { return connection_->isConnected(); });
    const Time begin = steady_clock::now();
    serve([&] { return current_.size() == roots; });
    return duration<double>(steady_clock::now() - begin).count();
  }
  void serve(milliseconds length) {
    const Time end = steady_clock::now() + length;
    serve([end] { return steady_clock::now() >= end; });
  }
  const Collector::Counters& counters() const { return collector_.counters(); }

 private:
  static void ignore(const std::string& /*line*/) {}
  static CollectorOptions collectorOptions(const std::string& prefix) {
    CollectorOptions options;
    options.prefix = prefix;
    return options;
  }
  CollectorCallbacks callbacks() {
    return {[this](const std::string& root, const Step& step) { recorder_.record(root, step); },
            [this](const std::string& root, Condition condition) {
              if (condition == Condition::CURRENT) current_.insert(root);
              if (condition != Condition::CURRENT) current_.erase(root);
            },
            failFor};
  }
  void serve(const std::function<bool()>& isDone) {
    const Time end = steady_clock::now() + minutes(2);
    while (!isDone()) {
      if (steady_clock::now() > end) fail("The fleet does not become current");
      connection_->serve(milliseconds(1));
      recorder_.serve();
    }
  }

  Recorder recorder_;
  std::set<std::string> current_;
  Collector collector_;
  std::unique_ptr<Connection> connection_;
};

// Runs it in a process of its own. With a result, waits for that; else kills it after a while.
Json inProcess(const std::function<Json()>& run) {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) fail("No pair of sockets");
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    try {
      const std::string text = run().dump();
      send(ends[1], text.data(), text.size(), 0);
    } catch (const std::exception& error) {
      log(error.what());
    }
    kill(getpid(), SIGKILL);
  }
  close(ends[1]);
  std::array<char, 4096> text{};
  const auto length = recv(ends[0], text.data(), text.size(), MSG_WAITALL);
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return Json::parse(text.data(), text.data() + std::max<ssize_t>(length, 0));
}

// A collector that is killed, and after two seconds the next one, which begins with its history.
Json measureRestart(const Broker& broker, const std::string& file, std::size_t roots,
                    std::size_t devices, double rate, bool hasSession) {
  const std::string prefix = std::string("orv/") + (hasSession ? "s" : "n") + std::to_string(roots);
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) fail("No pair of sockets");
  const pid_t reporter = fork();
  if (reporter == 0) {
    close(ends[0]);
    report(broker, prefix, roots, devices, rate, ends[1]);
    std::_Exit(0);
  }
  close(ends[1]);
  inProcess([&]() -> Json {
    Life life(broker, prefix, file, hasSession);
    life.start(roots);
    life.serve(seconds(5));
    return 0;
  });
  std::this_thread::sleep_for(seconds(2));
  Json result = inProcess([&]() -> Json {
    const Time begin = steady_clock::now();
    Life life(broker, prefix, file, hasSession);
    const double resumed = duration<double>(steady_clock::now() - begin).count();
    const double current = life.start(roots);
    return {{"resumed", resumed},
            {"current", current},
            {"asked", life.counters().requests},
            {"whole", life.counters().treeRequests}};
  });
  close(ends[0]);
  waitpid(reporter, nullptr, 0);
  result.update({{"roots", roots}, {"devices", devices}, {"rate", rate}, {"session", hasSession}});
  return result;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
  const bool quick = argc == 4 && std::string(argv[1]) == "--quick";
  if (argc != 3 && !quick) {
    std::cerr << "usage: " << argv[0] << " [--quick] BROKER DIRECTORY >RESULTS.json\n";
    return 2;
  }
  try {
    using bench::Json;
    const auto broker = bench::Broker::parse(argv[argc - 2]);
    int files = 0;
    const auto file = [&] {
      return std::string(argv[argc - 1]) + "/history-" + std::to_string(++files);
    };
    Json results;
    for (const std::size_t devices : {std::size_t{100}, std::size_t{10}}) {
      results["history"].push_back(
          bench::Recording(file(), quick ? 200 : 1000, devices).run(quick ? 10'000 : 100'000));
    }
    results["trees"] = bench::measureTrees(file(), quick);
    const std::size_t many = quick ? 1000 : 10'000;
    results["resume"] = {{"roots", many}, {"time", bench::measureResume(file(), many)}};
    for (const bool hasSession : {false, true}) {
      results["restarts"].push_back(bench::measureRestart(broker, file(), quick ? 200 : 1000, 100,
                                                          quick ? 200 : 1000, hasSession));
      if (quick) continue;
      results["restarts"].push_back(
          bench::measureRestart(broker, file(), 10'000, 10, 1000, hasSession));
    }
    std::cout << results.dump(2) << '\n';
  } catch (const std::exception& error) {
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return 1;
  }
}
