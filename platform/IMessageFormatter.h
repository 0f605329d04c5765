/// How a failure becomes the text that a caller reads: the bare text behind a header that names the
/// object which refused.
///
/// The interface holds no data. Const use of one object from several threads is as safe as the
/// header that the deriving class composes.
#pragma once

#include <string>

#include "device_tree/Export.h"

namespace orv::utils {

class ORV_DEVICE_TREE_EXPORT IMessageFormatter {
 public:
  /// The words that name this object in the texts it reports.
  virtual std::string messageHeader() const = 0;

  virtual ~IMessageFormatter();

  /// The text that a failing operation of this object hands to its caller:
  /// `messageHeader() + ": " + text`. Throws only what composing a string throws, std::bad_alloc.
  std::string formatMessage(const std::string& text) const;

 protected:
  IMessageFormatter() = default;
  IMessageFormatter(const IMessageFormatter&) = default;
  IMessageFormatter& operator=(const IMessageFormatter&) = default;
};

}  // namespace orv::utils
