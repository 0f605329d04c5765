#include "BrokerOptions.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "reporting/Broker.h"

orv::reporting::Broker brokerOf(const BrokerOptions& options) {
  std::signal(SIGPIPE, SIG_IGN);  // a broken connection says so by itself
  auto broker = orv::reporting::Broker::parse(options.url);
  broker.caFile = options.caFile;
  broker.certificateFile = options.certificateFile;
  broker.keyFile = options.keyFile;
  if (!options.passwordFile.empty()) {
    std::ifstream file(options.passwordFile);
    if (!std::getline(file, broker.password)) {
      throw std::runtime_error("cannot read a password from '" + options.passwordFile + "'");
    }
  } else if (const char* password = std::getenv("ORV_PASSWORD")) {
    broker.password = password;
  }
  return broker;
}
