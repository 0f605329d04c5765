// Stands in for Publisher.cpp where the reporting library is not built.
#include <stdexcept>

#include "Publisher.h"

std::unique_ptr<Publisher> makePublisher(const BrokerOptions& /*broker*/,
                                         const std::string& /*name*/) {
  throw std::runtime_error("--broker: built without the reporting library (ORV_BUILD_REPORTING)");
}
