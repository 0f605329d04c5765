#pragma once

#include <stdexcept>

#include "history/Export.h"

namespace orv::history {

/// The file of a history cannot be used: the text names it and says why, in a line for people.
class ORV_HISTORY_EXPORT Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace orv::history
