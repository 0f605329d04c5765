#include "BrokerOptions.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "reporting/Broker.h"
#include "reporting/Connection.h"

namespace {

// The file that an option names, or else the credential of that name which the service manager has
// handed over, broker_password for example. An empty one is no good: were it as if there was none,
// everybody's authorities would be trusted in place of the one that somebody has lost.
std::string fileOf(const std::string& option, const char* credential) {
  const char* const directory = std::getenv("CREDENTIALS_DIRECTORY");
  if (!option.empty() || directory == nullptr) return option;
  const auto file = std::filesystem::path(directory) / (std::string("broker_") + credential);
  std::error_code unknown;
  return std::filesystem::exists(file, unknown) ? file.string() : "";
}

std::optional<std::string> passwordIn(const std::string& path) {
  std::ifstream file(path);
  std::string password;
  if (!std::getline(file, password)) return std::nullopt;
  // An editor of another system may have written the file.
  if (!password.empty() && password.back() == '\r') password.pop_back();
  return password;
}

}  // namespace

void addBrokerOptions(CLI::App& app, BrokerOptions& options) {
  app.add_option("--broker", options.urls,
                 "mqtt://[USER@]HOST[:PORT], or mqtts:// for an encrypted connection;\n"
                 "more than once for brokers that stand in for each other")
      ->option_text("URL")
      ->allow_extra_args(false);
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
  auto broker = orv::reporting::Broker::parseAll(options.urls);
  broker.caFile = fileOf(options.caFile, "ca");
  broker.certificateFile = fileOf(options.certificateFile, "certificate");
  broker.keyFile = fileOf(options.keyFile, "key");
  const std::string passwordFile = fileOf(options.passwordFile, "password");
  if (!passwordFile.empty()) {
    const auto password = passwordIn(passwordFile);
    if (!password) {
      throw std::runtime_error("cannot read a password from '" + passwordFile + "'");
    }
    broker.password = *password;
  } else if (const char* password = std::getenv("ORV_PASSWORD")) {
    broker.password = password;
  }
  return broker;
}

orv::reporting::ConnectionOptions connectionOptionsOf(const BrokerOptions& options) {
  orv::reporting::ConnectionOptions result;
  const std::string file = fileOf(options.passwordFile, "password");
  if (file.empty()) return result;
  const auto broker = brokerOf(options);
  result.credentials =
      [file, last = orv::reporting::Credentials{broker.user, broker.password}]() mutable {
        last.password = passwordIn(file).value_or(last.password);  // it may be about to be replaced
        return last;
      };
  return result;
}
