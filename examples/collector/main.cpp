// Follows the trees of a fleet over a broker and prints what changes in them.
#include <getopt.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "BrokerOptions.h"
#include "Signals.h"
#include "Summary.h"
#include "collector/Fleet.h"
#include "collector/Http.h"
#include "collector/Partitions.h"
#include "reporting/Collector.h"
#include "reporting/Connection.h"

using orv::reporting::Condition;
using orv::reporting::Event;
using orv::reporting::Tree;

namespace {

constexpr const char* usage = R"(Usage: collector --broker URL [OPTION]...

Follows the trees of every reporter and prints a line for each change, headed by the identifier of
the root, and a line when a root comes, goes out of date, loses its reporter or is gone.

)";
constexpr const char* usageEnd =
    R"(  --partitions A-B    follow the partitions A to B of 0 to 63 (default: all)
  --prefix PREFIX     what the topics of the fleet begin with (default orv/1)
  --http [ADDRESS:]PORT
                      show the fleet in a browser, as JSON below /api/roots and to Prometheus at
                      /metrics (default address 127.0.0.1; port 0: any that is free). Nobody is
                      asked for a password
  --count N           end after N events; 0 = when interrupted (default)
  --help              print this text

Lines about the connection and about messages that are refused go to the standard error, and so does
the address of the page. Ctrl-C ends the program with status 0, a bad option with status 2.
)";

struct Options {
  BrokerOptions broker;
  orv::reporting::CollectorOptions collector;
  std::optional<std::string> http;
  unsigned long count = 0;
};

Options parse(int argc, char** argv) {
  const std::array<option, 11> known = {{{"broker", required_argument, nullptr, 'B'},
                                         {"password-file", required_argument, nullptr, 'P'},
                                         {"ca", required_argument, nullptr, 'A'},
                                         {"certificate", required_argument, nullptr, 'C'},
                                         {"key", required_argument, nullptr, 'K'},
                                         {"partitions", required_argument, nullptr, 'p'},
                                         {"prefix", required_argument, nullptr, 'x'},
                                         {"http", required_argument, nullptr, 'H'},
                                         {"count", required_argument, nullptr, 'c'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {}}};
  Options options;
  for (int code = 0; (code = getopt_long(argc, argv, "", known.data(), nullptr)) != -1;) {
    if (code == '?') std::exit(2);  // getopt_long has named the fault
    if (code == 'h') {
      std::cout << usage << brokerUsage << usageEnd << std::flush;
      std::exit(0);
    }
    if (code == 'B') options.broker.url = optarg;
    if (code == 'P') options.broker.passwordFile = optarg;
    if (code == 'A') options.broker.caFile = optarg;
    if (code == 'C') options.broker.certificateFile = optarg;
    if (code == 'K') options.broker.keyFile = optarg;
    if (code == 'x') options.collector.prefix = optarg;
    if (code == 'H') options.http = optarg;
    if (code == 'p') {
      const Partitions partitions = partitionsOf(optarg);
      options.collector.firstPartition = partitions.first;
      options.collector.lastPartition = partitions.last;
    }
    if (code == 'c') {
      const std::string text = optarg;
      const char* const end = text.data() + text.size();
      const auto [rest, error] = std::from_chars(text.data(), end, options.count);
      if (error != std::errc() || rest != end) {
        throw std::runtime_error("not a number: '" + text + "'");
      }
    }
  }
  if (optind != argc) throw std::runtime_error(std::string("unexpected '") + argv[optind] + "'");
  if (options.broker.url.empty()) throw std::runtime_error("--broker is missing");
  return options;
}

// The text with its control characters escaped: whoever may publish chooses it.
std::string printable(const std::string& text) {
  constexpr const char* digits = "0123456789abcdef";
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const bool isHigh = byte == 0xc2 && at + 1 < text.size() &&
                        static_cast<unsigned char>(text[at + 1]) < 0xa0;  // U+0080 to U+009F
    if (byte < 0x20 || byte == 0x7f || isHigh) {
      result.append({'\\', 'x', digits[byte >> 4U], digits[byte & 15U]});
    } else {
      result += text[at];
    }
  }
  return result;
}

void print(std::ostream& stream, const std::string& root, const std::string& line) {
  if (!(stream << printable(root) << ' ' << printable(line) << std::endl)) {
    throw std::runtime_error("cannot write the output");
  }
}

void collect(const Options& options) {
  const Signals signals;
  unsigned long events = 0;
  orv::reporting::CollectorCallbacks callbacks;
  callbacks.applied = [&](const std::string& root, const Event& event, const Tree& before,
                          const Tree& tree) {
    ++events;
    for (const std::string& line : summaryOf(event, before, tree)) print(std::cout, root, line);
  };
  callbacks.changed = [&](const std::string& root, Condition condition) {
    print(std::cout, root + ":", textOf(condition));
  };
  const auto tell = [](const std::string& line) { std::cerr << printable(line) << std::endl; };
  callbacks.problem = tell;
  Fleet fleet(callbacks, options.collector);
  orv::reporting::Connection connection(brokerOf(options.broker), fleet, tell);
  std::shared_ptr<void> http;
  if (options.http) http = serveHttp(*options.http, fleet, tell);
  while (options.count == 0 || events < options.count) {
    connection.serve(std::chrono::milliseconds(200));
    if (signals.arrive(std::chrono::nanoseconds(0))) return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    collect(parse(argc, argv));
    return 0;
  } catch (const std::exception& fault) {
    std::cerr << argv[0] << ": " << fault.what() << "\n";
    return 2;
  }
}
