#include "reporting/Publication.h"

namespace orv::reporting {

bool isWholeTree(const Event& event) noexcept {
  return event.event_type() == Event::DEVICE_ADD ||
         event.event_type() == Event::CONFIGURATION_CHANGE;
}

}  // namespace orv::reporting
