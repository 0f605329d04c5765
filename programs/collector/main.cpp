// Follows the trees of a fleet over a broker and prints what changes in them.
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
#include "collector/Fleet.h"
#include "collector/FleetHistory.h"
#include "collector/Forget.h"
#include "collector/HistoryHttp.h"
#include "collector/Http.h"
#include "collector/MetricOptions.h"
#include "collector/Partitions.h"
#include "device_tree/Summary.h"
#include "reporting/Collector.h"
#include "reporting/Connection.h"

using orv::device_tree::utils::GetSummary;
using orv::reporting::Condition;
using orv::reporting::Event;
using orv::reporting::Tree;

namespace {

struct Options {
  BrokerOptions broker;
  orv::reporting::CollectorOptions collector;
  std::optional<std::uint16_t> httpPort;
  std::string httpAddress = "127.0.0.1";
  MetricOptions metrics;
  HistoryOptions history;
  std::uint32_t count = 0;
  std::string forgotten;  // the reporter to forget; empty: collect
  bool isForced = false;
};

// Nothing when the command line is done with: it asks for the help or the version.
std::optional<Options> parse(int argc, char** argv) {
  Options options;
  CommandLine app(
      "Follows the trees of every reporter and prints a line for each change, headed by the\n"
      "identifier of the root, and a line when a root comes, goes out of date, loses its reporter\n"
      "or is gone.\n",
      argv[0]);
  addBrokerOptions(app, options.broker);
  app.get_option("--broker")->required();
  const auto follow = [&options](const std::string& text) {
    const Partitions partitions = partitionsOf(text);
    options.collector.firstPartition = partitions.first;
    options.collector.lastPartition = partitions.last;
  };
  app.add_option_function<std::string>("--partitions", follow,
                                       "follow the partitions A to B of 0 to 1023 (default: all)")
      ->type_name("A-B");
  app.add_option("--prefix", options.collector.prefix,
                 "what the topics of the fleet begin with (default: orv/1)")
      ->type_name("PREFIX");
  CLI::Option* const http =
      app.add_option("--http", options.httpPort,
                     "show the fleet in a browser, as JSON below /api/roots and to\n"
                     "Prometheus at /metrics (0: on any port that is free). Nobody is\n"
                     "asked for a password")
          ->type_name("PORT");
  app.add_option("--http-address", options.httpAddress,
                 "with --http: the address to listen at (default: 127.0.0.1)")
      ->option_text("ADDRESS")
      ->check([](const std::string& text) { return text.empty() ? "It is empty" : std::string(); })
      ->needs(http);
  addMetricOptions(app, options.metrics, http);
  addHistoryOptions(app, options.history);
  app.add_option("--count", options.count, "end after N events; 0 = when interrupted (default)")
      ->type_name("N");
  CLI::App* const forget = app.add_subcommand(
      "forget",
      "clear the state and the trees of a reporter that will not come back from the\n"
      "broker, and end: forget NAME --broker URL");
  forget->fallthrough();
  forget->configurable(false);  // a setting must not clear anything
  forget->set_help_flag();
  forget->add_option("NAME", options.forgotten, "the name of the reporter")->required();
  forget->add_flag("--force", options.isForced, "also one that is online");
  app.footer(
      "Lines about the connection and about messages that are refused go to the standard error,\n"
      "and so does the address of the page. Ctrl-C ends the program with status 0, a bad option\n"
      "with status 2, any other fault with status 1.");
  return app.read(argc, argv) ? std::optional(options) : std::nullopt;
}

void show(const std::string& root, const std::string& line) {
  print(printable(root) + ' ' + printable(line) + '\n');
}

void logLine(const std::string& line) { std::cerr << printable(line) << std::endl; }

void collect(const Options& options) {
  const Signals signals;
  Service service;
  if (!service.waitAfterFailures(signals)) return;
  std::unique_ptr<FleetHistory> history;
  if (!options.history.file.empty()) {
    history = std::make_unique<FleetHistory>(options.history, logLine);
  }
  unsigned long events = 0;
  bool isOver = false;  // that everything is out of date then is no news
  orv::reporting::CollectorCallbacks callbacks;
  callbacks.applied = [&](const std::string& root, const orv::reporting::Step& step) {
    ++events;
    if (history) history->record(root, step);
    for (const auto& line : GetSummary(step.event, step.before, step.after)) show(root, line.text);
  };
  callbacks.changed = [&](const std::string& root, Condition condition) {
    if (history && condition == Condition::FORGOTTEN) history->forget(root);
    if (!isOver) show(root + ":", textOf(condition));
  };
  ProblemLog problems(logLine);
  callbacks.problem = [&problems](const auto& problem) { problems.tell(problem); };
  Fleet fleet(callbacks, options.collector);
  auto connectionOptions = connectionOptionsOf(options.broker);
  if (!options.history.session.empty()) {
    connectionOptions.clientName = options.history.session;
    connectionOptions.sessionExpiry = std::chrono::seconds(options.history.sessionExpiry);
    connectionOptions.outlivesProcess = true;
  }
  orv::reporting::Connection connection(brokerOf(options.broker), fleet, logLine,
                                        connectionOptions);
  if (history) history->resume(fleet);
  std::shared_ptr<void> http;
  if (options.httpPort) {
    const HistorySource source{options.history.file, [&history] { return history->failure(); }};
    http =
        serveHttp(options.httpAddress, *options.httpPort, fleet, options.metrics, source, logLine);
  }
  service.ready();
  while (!isOver) {
    connection.serve(std::chrono::milliseconds(200));
    service.alive();
    problems.serve();
    if (history) history->serve(fleet.isConnected());
    isOver = signals.arrive(std::chrono::nanoseconds(0)) ||
             (options.count > 0 && events >= options.count);
  }
  service.stopping();
}

}  // namespace

int main(int argc, char** argv) {
  return runProgram(argv[0], [&] {
    const auto options = parse(argc, argv);
    if (!options) return;
    if (options->forgotten.empty()) {
      collect(*options);
    } else {
      forgetReporter(brokerOf(options->broker), options->collector.prefix, options->forgotten,
                     options->isForced, logLine);
    }
  });
}
