// Uses the reporting library as far as that goes without a broker.
#undef NDEBUG
#include <cassert>
#include <stdexcept>

#include "reporting/Connection.h"
#include "reporting/Reporter.h"

using namespace orv::reporting;

int main() {
  const auto ignore = [](const std::string&) {};
  Reporter reporter("monitor", {});
  const Connection connection(Broker::parse("mqtt://localhost"), reporter, ignore);
  assert(!connection.isConnected());
  try {
    Broker::parse("localhost");
  } catch (const std::invalid_argument&) {
    return 0;
  }
  return 1;
}
