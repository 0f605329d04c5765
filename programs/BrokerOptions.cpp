#include "BrokerOptions.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "reporting/Broker.h"

namespace {

// The file that an option names, or else the credential of that name which the service manager has
// handed over, broker_password for example. An empty one is none.
std::string fileOf(const std::string& option, const char* credential) {
  const char* const directory = std::getenv("CREDENTIALS_DIRECTORY");
  if (!option.empty() || directory == nullptr) return option;
  const auto file = std::filesystem::path(directory) / (std::string("broker_") + credential);
  std::error_code absent;
  const auto size = std::filesystem::file_size(file, absent);
  return !absent && size > 0 ? file.string() : "";
}

}  // namespace

void addBrokerOptions(CLI::App& app, BrokerOptions& options) {
  app.add_option("--broker", options.url,
                 "mqtt://[USER@]HOST[:PORT], or mqtts:// for an encrypted connection")
      ->type_name("URL");
  const auto addFile = [&app](const char* name, std::string& file, const char* description) {
    app.add_option(name, file, description)->type_name("FILE");
  };
  addFile("--password-file", options.passwordFile,
          "the first line of FILE is the password (default: the credential\nbroker_password "
          "of a service, or ORV_PASSWORD of the environment)");
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
  broker.caFile = fileOf(options.caFile, "ca");
  broker.certificateFile = fileOf(options.certificateFile, "certificate");
  broker.keyFile = fileOf(options.keyFile, "key");
  const std::string passwordFile = fileOf(options.passwordFile, "password");
  if (!passwordFile.empty()) {
    std::ifstream file(passwordFile);
    if (!std::getline(file, broker.password)) {
      throw std::runtime_error("cannot read a password from '" + passwordFile + "'");
    }
  } else if (const char* password = std::getenv("ORV_PASSWORD")) {
    broker.password = password;
  }
  return broker;
}
