#pragma once

#include <cstdint>
#include <string>

#include "reporting/Export.h"

namespace orv::reporting {

/// Where an MQTT 5 broker is, and as whom to connect. A plain value.
struct ORV_REPORTING_EXPORT Broker {
  /// Reads `mqtt://[user@]host[:port]`, or `mqtts://` for an encrypted connection. A host may be an
  /// IPv6 address in brackets. Throws std::invalid_argument, with a text for people, for anything
  /// else. Refuses a password too: other users of the machine can read command lines.
  static Broker parse(const std::string& url);

  std::string host;
  std::uint16_t port = 1883;
  /// Whether TLS is used. The broker must then have a certificate of that host.
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
