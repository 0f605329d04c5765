// Watches the machine it runs on and prints, reading by reading, the event that leads from what it
// printed last to what it finds now. With a broker it reports the machine there, and prints the
// events that the broker has taken.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "BrokerOptions.h"
#include "CommandLine.h"
#include "ProblemLog.h"
#include "Service.h"
#include "Signals.h"
#include "device_tree/Summary.h"
#include "device_tree/Utils.h"
#include "host_monitor/HostReader.h"
#include "reporting/Connection.h"
#include "reporting/Reporter.h"

using orv::device_tree::utils::EventHelper;
using orv::reporting::Event;
using orv::reporting::Tree;
using Clock = std::chrono::steady_clock;

namespace {

struct Options {
  double interval = 5;
  std::uint32_t count = 0;
  std::string format = "summary";
  bool tree = false;
  std::string root = "/";
  std::string name;
  BrokerOptions broker;
};

// Nothing when the command line is done with: it asks for the help or the version.
std::optional<Options> parse(int argc, char** argv) {
  Options options;
  CommandLine app(
      "Reads this machine from /proc and /sys into a device tree, again and again, and prints\n"
      "what changed since the last report. The first report adds the machine itself.\n",
      argv[0]);
  const auto setInterval = [&options](double seconds) {
    options.interval = seconds;
    if (seconds >= 0.01 && seconds <= 86400) return;  // so no NaN
    throw CLI::ValidationError("--interval", "must be from 0.01 to 86400");
  };
  app.add_option_function<double>("--interval", setInterval,
                                  "time between two readings, 0.01 to 86400 (default: 5)")
      ->type_name("SECONDS");
  app.add_option("--count", options.count,
                 "end after N readings, the first included; 0 = when interrupted (default)")
      ->type_name("N");
  app.add_option("--format", options.format,
                 "summary = a line for each change, headed by the reading's number (default)\n"
                 "text = the event messages in Protocol Buffers text form")
      ->check(CLI::IsMember({"summary", "text"}).description(""))
      ->type_name("FORMAT");
  app.add_flag("--tree", options.tree, "print the device tree before the first report");
  app.add_option("--root", options.root,
                 "read DIR/proc, DIR/sys and DIR/run/udev, say of a recorded machine,\n"
                 "instead of this machine's")
      ->type_name("DIR");
  app.add_option("--name", options.name,
                 "identifier of the machine's device (default: \"host\"; with --broker\n"
                 "the machine's own name, and NAME is the name of the reporter too)")
      ->type_name("NAME");
  addBrokerOptions(app, options.broker);
  app.footer(
      "A reading that finds no change counts, but prints nothing. With --broker the program\n"
      "publishes what changed, and prints it when the broker has taken it; lines about the\n"
      "connection go to the standard error. Ctrl-C ends the program with status 0, a bad option\n"
      "with status 2, any other fault, such as an unreadable DIR, with status 1.");
  return app.read(argc, argv) ? std::optional(options) : std::nullopt;
}

// The machine, reading by reading.
class Monitor {
 public:
  // An empty identifier stands for the machine's own name.
  Monitor(const Options& options, const std::string& id)
      : options_(options), live_(makeHost(options.root, id)) {}

  const Tree& live() const { return live_; }
  bool isLast() const { return reading_ == options_.count; }
  void read();
  // The event led from one tree to the other.
  void show(const Event& event, const Tree& before, const Tree& after) const;

 private:
  const Options& options_;
  const Tree live_;
  unsigned long reading_ = 0;
};

void Monitor::read() {
  updateHost(options_.root, *live_);
  ++reading_;
  if (reading_ == 1 && options_.tree) print(live_->debugString() + "\n");
}

void Monitor::show(const Event& event, const Tree& before, const Tree& after) const {
  const std::string number = std::to_string(reading_);
  if (options_.format == "text") {
    print("# reading " + number + "\n" + event.Utf8DebugString());
    return;
  }
  std::string lines;
  for (const auto& line : orv::device_tree::utils::GetSummary(event, before, after)) {
    lines += number;
    lines += ' ';
    lines += line.text;
    lines += '\n';
  }
  print(lines);
}

Clock::duration intervalOf(const Options& options) {
  return std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(options.interval));
}

void watch(const Options& options) {
  const Signals signals;
  Monitor monitor(options, options.name.empty() ? "host" : options.name);
  Tree snapshot;  // the tree as it was shown last
  Event event;
  do {
    monitor.read();
    if (EventHelper::ComputeEvent(snapshot, monitor.live(), event)) {
      monitor.show(event, snapshot, monitor.live());
      std::string refusal;
      if (!EventHelper::ApplyEvent(event, snapshot, refusal)) throw std::logic_error(refusal);
    }
  } while (!monitor.isLast() && !signals.arrive(intervalOf(options)));
}

void log(const std::string& line) { std::cerr << printable(line) << "\n"; }

void publish(const Options& options) {
  constexpr std::chrono::seconds farewell(10);  // how long the last report waits for the broker
  const Signals signals;
  Service service;
  if (!service.waitAfterFailures(signals)) return;
  Monitor monitor(options, options.name);
  orv::reporting::ReporterCallbacks callbacks;
  callbacks.published = [&monitor](const std::string& /*root*/, const orv::reporting::Step& step) {
    monitor.show(step.event, step.before, step.after);
  };
  ProblemLog problems(log);
  callbacks.problem = [&problems](const auto& problem) { problems.tell(problem); };
  orv::reporting::Reporter reporter(monitor.live()->getDeviceId(), callbacks);
  orv::reporting::Connection connection(brokerOf(options.broker), reporter, log,
                                        connectionOptionsOf(options.broker));
  service.ready();
  for (;;) {
    monitor.read();
    reporter.report(monitor.live());
    const auto end = Clock::now() + (monitor.isLast() ? farewell : intervalOf(options));
    do {
      const auto slice =
          std::min<Clock::duration>(end - Clock::now(), std::chrono::milliseconds(200));
      connection.serve(std::chrono::ceil<std::chrono::milliseconds>(slice));
      service.alive();
      problems.serve();
      if (signals.arrive(Clock::duration(0)) || (monitor.isLast() && reporter.isSettled())) {
        service.stopping();
        return;
      }
    } while (Clock::now() < end);
    if (monitor.isLast()) throw std::runtime_error("the broker has not taken the last report");
  }
}

}  // namespace

int main(int argc, char** argv) {
  return runProgram(argv[0], [&] {
    const auto options = parse(argc, argv);
    if (!options) return;
    if (!options->broker.urls.empty()) {
      publish(*options);
    } else if (Service().isPresent()) {
      throw std::invalid_argument("no broker is named, which a service needs");
    } else {
      watch(*options);
    }
  });
}
