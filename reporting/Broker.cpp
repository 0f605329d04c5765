#include "reporting/Broker.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace orv::reporting {

Broker Broker::parse(const std::string& url) {
  const auto refuse = [&](const std::string& fault) {
    throw std::invalid_argument(fault + " in the broker's URL '" + url +
                                "'; it reads mqtt://[USER@]HOST[:PORT] or mqtts://...");
  };
  const std::size_t schemeEnd = url.find("://");
  const std::size_t userEnd = url.rfind('@');
  const std::size_t colon = url.rfind(':', userEnd);
  if (userEnd != std::string::npos && colon != std::string::npos && colon != schemeEnd) {
    throw std::invalid_argument("A password does not belong in the URL of a broker");
  }
  const std::string scheme = url.substr(0, schemeEnd);
  if (schemeEnd == std::string::npos || (scheme != "mqtt" && scheme != "mqtts")) {
    refuse("No known scheme");
  }
  Broker broker;
  broker.isEncrypted = scheme == "mqtts";
  Address& address = broker.addresses.emplace_back();
  address.port = broker.isEncrypted ? 8883 : 1883;
  std::string rest = url.substr(schemeEnd + 3);
  const std::size_t at = rest.rfind('@');
  if (at != std::string::npos) {
    broker.user = rest.substr(0, at);
    rest.erase(0, at + 1);
  }
  std::size_t hostEnd = rest.find(':');
  if (!rest.empty() && rest.front() == '[') {
    hostEnd = rest.find(']');
    address.host = rest.substr(1, hostEnd - 1);
    if (hostEnd == std::string::npos) refuse("No ]");
    ++hostEnd;
  } else {
    address.host = rest.substr(0, hostEnd);
  }
  const auto isStrange = [](unsigned char c) { return c <= ' ' || std::strchr("/?#[]", c); };
  if (address.host.empty() || std::any_of(address.host.begin(), address.host.end(), isStrange)) {
    refuse("No host");
  }
  if (hostEnd < rest.size()) {
    const char* const end = rest.data() + rest.size();
    const auto [last, error] = std::from_chars(rest.data() + hostEnd + 1, end, address.port);
    if (rest[hostEnd] != ':' || error != std::errc() || last != end || address.port == 0) {
      refuse("No port");
    }
  }
  return broker;
}

Broker Broker::parseAll(const std::vector<std::string>& urls) {
  if (urls.empty()) throw std::invalid_argument("There is no URL of a broker");
  Broker broker = parse(urls.front());
  for (auto url = std::next(urls.begin()); url != urls.end(); ++url) {
    const Broker other = parse(*url);
    if (other.isEncrypted != broker.isEncrypted || other.user != broker.user) {
      throw std::invalid_argument(
          "Brokers that stand in for each other have one user, and all or "
          "none of them mqtts://: '" +
          urls.front() + "', '" + *url + "'");
    }
    broker.addresses.push_back(other.addresses.front());
  }
  return broker;
}

}  // namespace orv::reporting
