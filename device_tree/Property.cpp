#include "device_tree/Property.h"

namespace orv::device_tree {

namespace proto = orv::proto::monitoring;

Property::Property(const std::string& propertyName, Type propertyType,
                   const Value& propertyValue) noexcept
    : name(propertyName), type(propertyType), value(propertyValue) {}

Property::Property(const proto::Property& message) noexcept { read(message); }

void Property::read(const proto::Property& source) {
  name = source.name();
  type = TYPE_STRING;
  value = source.value();
}

bool Property::operator!=(const Property& other) noexcept {
  if (name != other.name || type != other.type) return true;
  return type == TYPE_STRING && value != other.value;
}

bool Property::operator==(const Property& other) noexcept { return !(*this != other); }

std::string Property::debugString() const noexcept {
  std::string text = name;
  if (type == TYPE_STRING) {
    text += " (string ";
    text += boost::get<std::string>(value);
  } else {
    text += " (? ?";
  }
  text += ')';
  return text;
}

proto::Property Property::toProtoBuf() const noexcept {
  proto::Property target;
  toProtoBuf(target);
  return target;
}

void Property::toProtoBuf(proto::Property& target) const noexcept {
  target.Clear();
  target.set_name(name);
  target.set_type(proto::Property::STRING);
  target.set_value(boost::get<std::string>(value));
}

}  // namespace orv::device_tree
