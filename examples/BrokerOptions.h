// The options that name a broker on the command line.
#pragma once

#include <string>

namespace orv::reporting {
struct Broker;
}

struct BrokerOptions {
  std::string url;
  std::string passwordFile;
  std::string caFile;
  std::string certificateFile;
  std::string keyFile;
};

constexpr const char* brokerUsage =
    R"(  --broker URL        mqtt://[USER@]HOST[:PORT], or mqtts:// for an encrypted connection
  --password-file FILE
                      the first line of FILE is the password (default: ORV_PASSWORD of the
                      environment)
  --ca FILE           certificate of the authority that signed the broker's (PEM; default: those
                      that the system trusts)
  --certificate FILE, --key FILE
                      certificate and key to show to the broker (PEM)
)";

// The broker with its password, for a program that is about to connect. Throws
// std::invalid_argument or std::runtime_error.
orv::reporting::Broker brokerOf(const BrokerOptions& options);
