#include "device_tree/GlobalStatus.h"

namespace orv::device_tree {

namespace proto = orv::proto::monitoring;

GlobalStatus::GlobalStatus(const proto::GlobalStatus& healthMessage) noexcept {
  read(healthMessage);
}

void GlobalStatus::read(const proto::GlobalStatus& source) {
  message = source.message();
  switch (source.level()) {
    case proto::GlobalStatus::OK:
      level = LEVEL_OK;
      break;
    case proto::GlobalStatus::WARNING:
      level = LEVEL_WARNING;
      break;
    default:
      level = LEVEL_ERROR;
  }
}

bool GlobalStatus::operator!=(const GlobalStatus& other) const noexcept {
  return level != other.level || message != other.message;
}

bool GlobalStatus::operator==(const GlobalStatus& other) const noexcept {
  return !(*this != other);
}

std::string GlobalStatus::debugString() const noexcept {
  std::string text = level == LEVEL_OK ? "OK" : level == LEVEL_WARNING ? "Warning" : "Error";
  if (!message.empty()) {
    text += ": ";
    text += message;
  }
  return text;
}

proto::GlobalStatus GlobalStatus::toProtoBuf() const noexcept {
  proto::GlobalStatus target;
  toProtoBuf(target);
  return target;
}

void GlobalStatus::toProtoBuf(proto::GlobalStatus& target) const noexcept {
  target.Clear();
  target.set_level(level == LEVEL_OK        ? proto::GlobalStatus::OK
                   : level == LEVEL_WARNING ? proto::GlobalStatus::WARNING
                                            : proto::GlobalStatus::ERROR);
  if (!message.empty()) target.set_message(message);
}

}  // namespace orv::device_tree
