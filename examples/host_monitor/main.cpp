// Watches the machine it runs on and prints, reading by reading, the event that leads from what it
// reported last to what it finds now. Reports to a broker too, if asked to.
#include <getopt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

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

constexpr const char* usage = R"(Usage: host_monitor [OPTION]...

Reads this machine from /proc and /sys into a device tree, again and again, and prints what changed
since the last report. The first report adds the machine itself.

  --interval SECONDS  time between two readings, 0.01 to 86400 (default 5)
  --count N           end after N readings, the first included; 0 = when interrupted (default)
  --format FORMAT     summary = a line for each change, headed by the reading's number (default)
                      text = the event messages in Protocol Buffers text form
  --tree              print the device tree before the first report
  --root DIR          read DIR/proc and DIR/sys, say of a recorded machine, instead of /proc and /sys
  --name NAME         identifier of the machine's device (default: "host"; with --broker the
                      machine's own name, and NAME is the name of the reporter too)
)";
constexpr const char* usageEnd = R"(  --help              print this text

A reading that finds no change counts, but prints nothing. With --broker the program publishes what
changed; lines about the connection go to the standard error. Ctrl-C ends the program with status 0,
a bad option or an unreadable DIR with status 2.
)";

struct Options {
  double interval = 5;
  unsigned long count = 0;
  std::string format = "summary";
  bool tree = false;
  std::string root = "/";
  std::string name;
  BrokerOptions broker;
};

// Sets the number that is written there, and returns whether one is.
template <typename Number>
bool parse(const std::string& text, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end;
}

void print(const std::string& text) {
  if (!(std::cout << text << std::flush)) throw std::runtime_error("cannot write the output");
}

Options parse(int argc, char** argv) {
  const std::array<option, 13> known = {{{"interval", required_argument, nullptr, 'i'},
                                         {"count", required_argument, nullptr, 'c'},
                                         {"format", required_argument, nullptr, 'f'},
                                         {"tree", no_argument, nullptr, 't'},
                                         {"root", required_argument, nullptr, 'r'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {"name", required_argument, nullptr, 'n'},
                                         {"broker", required_argument, nullptr, 'B'},
                                         {"password-file", required_argument, nullptr, 'P'},
                                         {"ca", required_argument, nullptr, 'A'},
                                         {"certificate", required_argument, nullptr, 'C'},
                                         {"key", required_argument, nullptr, 'K'},
                                         {}}};
  Options options;
  const auto require = [](bool good, const std::string& fault) {
    if (!good) throw std::runtime_error(fault + " '" + optarg + "'");
  };
  for (int code = 0; (code = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
    if (code == '?') std::exit(2);  // getopt_long has named the fault
    if (code == 'h') {
      print(usage + std::string(brokerUsage) + usageEnd);
      std::exit(0);
    }
    if (code == 't') options.tree = true;
    if (code == 'r') options.root = optarg;
    if (code == 'n') options.name = optarg;
    if (code == 'B') options.broker.url = optarg;
    if (code == 'P') options.broker.passwordFile = optarg;
    if (code == 'A') options.broker.caFile = optarg;
    if (code == 'C') options.broker.certificateFile = optarg;
    if (code == 'K') options.broker.keyFile = optarg;
    if (code == 'f') {
      options.format = optarg;
      require(options.format == "summary" || options.format == "text",
              "--format must be summary or text, not");
    }
    if (code == 'c') {
      require(parse(optarg, options.count), "--count must be a whole number, not");
    }
    if (code == 'i') {
      require(
          parse(optarg, options.interval) && options.interval >= 0.01 && options.interval <= 86400,
          "--interval must be a number from 0.01 to 86400, not");
    }
  }
  if (optind == argc) return options;
  throw std::runtime_error(std::string("unexpected argument '") + argv[optind] + "'");
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
    monitor(parse(argc, argv));
    return 0;
  } catch (const std::exception& fault) {
    std::cerr << argv[0] << ": " << fault.what() << "\n";
    return 2;
  }
}
