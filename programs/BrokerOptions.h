// The options that name a broker on the command line.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}
namespace orv::reporting {
struct Broker;
struct ConnectionOptions;
}  // namespace orv::reporting

struct BrokerOptions {
  std::vector<std::string> urls;  // of brokers that stand in for each other
  std::string passwordFile;
  std::string caFile;
  std::string certificateFile;
  std::string keyFile;
};

// Declares them; what the command line has of them arrives in `options` when it is parsed.
void addBrokerOptions(CLI::App& app, BrokerOptions& options);

// The broker with its password, for a program that is about to connect. A file that no option names
// is the service manager's credential `broker_password`, `broker_ca`, `broker_certificate` or
// `broker_key`, if there is one.
// Throws std::invalid_argument or std::runtime_error.
orv::reporting::Broker brokerOf(const BrokerOptions& options);

// Has the file with the password read at each attempt to connect: it may have another one by then.
orv::reporting::ConnectionOptions connectionOptionsOf(const BrokerOptions& options);
