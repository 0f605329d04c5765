#include "BrokerOptions.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "reporting/Broker.h"

void addBrokerOptions(CLI::App& app, BrokerOptions& options) {
  app.add_option("--broker", options.url,
                 "mqtt://[USER@]HOST[:PORT], or mqtts:// for an encrypted connection")
      ->type_name("URL");
  const auto addFile = [&app](const char* name, std::string& file, const char* description) {
    app.add_option(name, file, description)->type_name("FILE");
  };
  addFile("--password-file", options.passwordFile,
          "the first line of FILE is the password (default: ORV_PASSWORD of the\nenvironment)");
  addFile("--ca", options.caFile,
          "certificate of the authority that signed the broker's (PEM; default:\n"
          "those that the system trusts)");
  addFile("--certificate", options.certificateFile,
          "certificate to show to the broker (PEM), with --key");
  addFile("--key", options.keyFile, "key of that certificate (PEM)");
}

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
