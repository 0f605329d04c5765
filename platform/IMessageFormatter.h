#pragma once

#include <string>

#include "device_tree/Export.h"

namespace orv::utils {

/// How a failure becomes the text that a caller reads: a header that names the object which
/// refused, then the bare text.
///
/// The interface holds no data. As many threads may use it as the deriving class allows.
class ORV_DEVICE_TREE_EXPORT IMessageFormatter {
 public:
  /// The words that name this object in the texts it reports.
  virtual std::string messageHeader() const = 0;

  virtual ~IMessageFormatter();

  /// The text that a failing operation of this object hands to its caller:
  /// `messageHeader() + ": " + text`. Throws what `messageHeader` throws, and std::bad_alloc.
  std::string formatMessage(const std::string& text) const;

 protected:
  IMessageFormatter() = default;
  IMessageFormatter(const IMessageFormatter&) = default;
  IMessageFormatter& operator=(const IMessageFormatter&) = delete;
};

}  // namespace orv::utils
