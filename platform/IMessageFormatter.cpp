#include "platform/IMessageFormatter.h"

namespace orv::utils {

IMessageFormatter::~IMessageFormatter() = default;

std::string IMessageFormatter::formatMessage(const std::string& text) const {
  return messageHeader() + ": " + text;
}

}  // namespace orv::utils
