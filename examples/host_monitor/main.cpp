// Watches the machine it runs on and prints, reading by reading, the event that leads from what it
// reported last to what it finds now. Reports to a broker too, if asked to.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "BrokerOptions.h"
#include "HostReader.h"
#include "Publisher.h"
#include "Signals.h"
#include "Summary.h"
#include "device_tree/Utils.h"

using orv::device_tree::DeviceNode;
using orv::device_tree::utils::EventHelper;
using Event = orv::proto::monitoring::DeviceToOrvServiceEvent;
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

void print(const std::string& text) {
  if (!(std::cout << text << std::flush)) throw std::runtime_error("cannot write the output");
}

// Nothing when all that is wanted is the help, which is printed then.
std::optional<Options> parse(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Reads this machine from /proc and /sys into a device tree, again and again, and prints\n"
      "what changed since the last report. The first report adds the machine itself.\n",
      "host_monitor");
  app.get_formatter()->column_width(26);
  app.set_help_flag("--help", "print this text");
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
                 "read DIR/proc and DIR/sys, say of a recorded machine, instead of\n"
                 "/proc and /sys")
      ->type_name("DIR");
  app.add_option("--name", options.name,
                 "identifier of the machine's device (default: \"host\"; with --broker\n"
                 "the machine's own name, and NAME is the name of the reporter too)")
      ->type_name("NAME");
  addBrokerOptions(app, options.broker);
  app.footer(
      "A reading that finds no change counts, but prints nothing. With --broker the program\n"
      "publishes what changed; lines about the connection go to the standard error. Ctrl-C ends\n"
      "the program with status 0, a bad option or an unreadable DIR with status 2.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    print(app.help());
    return std::nullopt;
  }
  return options;
}

// How long the last report waits for the broker.
constexpr std::chrono::seconds farewell(10);

void monitor(const Options& options) {
  const Signals signals;
  const auto interval =
      std::chrono::ceil<Clock::duration>(std::chrono::duration<double>(options.interval));
  const bool isPublished = !options.broker.url.empty();
  const std::shared_ptr<DeviceNode> live =
      makeHost(options.root, isPublished || !options.name.empty() ? options.name : "host");
  const std::unique_ptr<Publisher> publisher =
      isPublished ? makePublisher(options.broker, live->getDeviceId()) : nullptr;
  std::shared_ptr<DeviceNode> snapshot;  // the tree as it was reported last
  Event event;
  for (unsigned long reading = 1;; ++reading) {
    updateHost(options.root, *live);
    if (reading == 1 && options.tree) print(live->debugString() + "\n");
    if (EventHelper::ComputeEvent(snapshot, live, event)) {
      const std::string number = std::to_string(reading);
      if (options.format == "text") {
        print("# reading " + number + "\n" + event.Utf8DebugString());
      } else {
        std::string lines;
        for (const std::string& line : summaryOf(event, snapshot, live)) {
          lines += number;
          lines += ' ';
          lines += line;
          lines += '\n';
        }
        print(lines);
      }
      std::string refusal;
      if (!EventHelper::ApplyEvent(event, snapshot, refusal)) throw std::logic_error(refusal);
      if (publisher) publisher->report(live);
    }
    const bool isLast = reading == options.count;
    const auto end = Clock::now() + (isLast ? farewell : interval);
    do {
      if (isLast && (!publisher || publisher->isSettled())) return;
      const auto slice =
          std::min<Clock::duration>(end - Clock::now(), std::chrono::milliseconds(200));
      if (publisher) publisher->serve(std::chrono::ceil<std::chrono::milliseconds>(slice));
      if (signals.arrive(publisher ? Clock::duration(0) : end - Clock::now())) return;
    } while (Clock::now() < end);
    if (isLast) throw std::runtime_error("the broker has not taken the last report");
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (const auto options = parse(argc, argv)) monitor(*options);
    return 0;
  } catch (const std::exception& fault) {
    std::cerr << argv[0] << ": " << fault.what() << "\n";
    return 2;
  }
}
