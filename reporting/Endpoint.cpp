#include "reporting/Endpoint.h"

namespace orv::reporting {

Link::~Link() = default;

Endpoint::~Endpoint() = default;

}  // namespace orv::reporting
