#include "reporting/Endpoint.h"

namespace orv::reporting {

Link::~Link() = default;

Endpoint::~Endpoint() = default;

bool Endpoint::ending(Time /*now*/) { return false; }

}  // namespace orv::reporting
