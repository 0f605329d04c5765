#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "reporting/Export.h"

namespace orv::reporting {

/// Where an MQTT 5 broker is, and as whom to connect. A plain value.
///
/// Several brokers may stand in for each other: the first that can be reached is used. Whoever is
/// connected to one of them must hear of what the others are told, or only one of them may be up:
/// processes at different brokers that know nothing of each other do not meet.
struct ORV_REPORTING_EXPORT Broker {
  struct Address {
    std::string host;
    std::uint16_t port = 1883;
  };

  /// Reads `mqtt://[user@]host[:port]`, or `mqtts://` for an encrypted connection. A host may be an
  /// IPv6 address in brackets. Throws std::invalid_argument, with a text for people, for anything
  /// else. Refuses a password too: other users of the machine can read command lines.
  static Broker parse(const std::string& url);

  /// Reads the URLs of brokers that stand in for each other, in their order. Refuses also an empty
  /// list, and URLs that differ in more than host and port.
  static Broker parseAll(const std::vector<std::string>& urls);

  std::vector<Address> addresses;
  /// Whether TLS is used. The broker must then have a certificate of the host in its address.
  bool isEncrypted = false;
  /// Empty for none.
  std::string user;
  std::string password;
  /// Certificates in PEM files: of the authority that signed the broker's, empty for those that the
  /// system trusts; and one of our own with its key, empty for none.
  std::string caFile;
  std::string certificateFile;
  std::string keyFile;
};

}  // namespace orv::reporting
