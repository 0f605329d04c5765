#include "device_tree/NamedStatus.h"

#include <array>
#include <charconv>

namespace orv::device_tree {

namespace proto = orv::proto::monitoring;

static_assert(sizeof(long) == sizeof(std::int64_t), "integer values are 64 bits wide");

namespace {

// The digits of the format "%f", in every locale.
std::string fixedText(double number) {
  std::array<char, 320> digits{};  // the longest finite double takes 317
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number,
                                 std::chars_format::fixed, 6);
  return std::string(digits.data(), end.ptr);
}

}  // namespace

NamedStatus::NamedStatus(const std::string& statusName, Type statusType) noexcept
    : name(statusName), type(statusType) {}

NamedStatus::NamedStatus(const std::string& statusName, Type statusType,
                         const Value& statusValue) noexcept
    : name(statusName), type(statusType), valueSet(true), value(statusValue) {}

NamedStatus::NamedStatus(const proto::NamedStatus& message) noexcept { read(message); }

void NamedStatus::read(const proto::NamedStatus& source) {
  name = source.name();
  switch (source.type()) {
    case proto::NamedStatus::STRING:
      type = TYPE_STRING;
      if (source.has_string_value()) setValue(source.string_value());
      break;
    case proto::NamedStatus::INT:
      type = TYPE_INT;
      if (source.has_int_value()) setValue(static_cast<long>(source.int_value()));
      break;
    case proto::NamedStatus::UINT:
      type = TYPE_UINT;
      if (source.has_uint_value()) setValue(static_cast<unsigned long>(source.uint_value()));
      break;
    case proto::NamedStatus::DOUBLE:
      type = TYPE_DOUBLE;
      if (source.has_double_value()) setValue(source.double_value());
      break;
  }
}

void NamedStatus::setValue(const Value& newValue) {
  value = newValue;
  valueSet = true;
}

void NamedStatus::unsetValue() noexcept {
  value = 0L;
  valueSet = false;
}

bool NamedStatus::operator!=(const NamedStatus& other) const {
  if (name != other.name || type != other.type) return true;
  switch (type) {
    case TYPE_STRING:
      return boost::get<std::string>(value) != boost::get<std::string>(other.value);
    case TYPE_INT:
      return boost::get<long>(value) != boost::get<long>(other.value);
    case TYPE_UINT:
      return boost::get<unsigned long>(value) != boost::get<unsigned long>(other.value);
    case TYPE_DOUBLE:
      return boost::get<double>(value) != boost::get<double>(other.value);
  }
  return true;
}

bool NamedStatus::operator==(const NamedStatus& other) const { return !(*this != other); }

std::string NamedStatus::debugString() const noexcept {
  const char* label = "? ";
  std::string valueText = "?";
  switch (type) {
    case TYPE_STRING:
      label = "string ";
      if (const auto* text = boost::get<std::string>(&value)) valueText = *text;
      break;
    case TYPE_INT:
      label = "int ";
      if (const auto* number = boost::get<long>(&value)) valueText = std::to_string(*number);
      break;
    case TYPE_UINT:
      label = "uint ";
      if (const auto* number = boost::get<unsigned long>(&value))
        valueText = std::to_string(*number);
      break;
    case TYPE_DOUBLE:
      label = "double ";
      if (const auto* number = boost::get<double>(&value)) valueText = fixedText(*number);
      break;
  }
  std::string line = name + " (" + label;
  line += valueSet ? valueText : "not set";
  line += ')';
  return line;
}

proto::NamedStatus NamedStatus::toProtoBuf() const noexcept {
  proto::NamedStatus target;
  toProtoBuf(target);
  return target;
}

void NamedStatus::toProtoBuf(proto::NamedStatus& target) const noexcept {
  target.Clear();
  target.set_name(name);
  const Value* const known = valueSet ? &value : nullptr;
  switch (type) {
    case TYPE_STRING:
      target.set_type(proto::NamedStatus::STRING);
      if (const auto* text = boost::get<std::string>(known)) target.set_string_value(*text);
      break;
    case TYPE_INT:
      target.set_type(proto::NamedStatus::INT);
      if (const auto* number = boost::get<long>(known)) target.set_int_value(*number);
      break;
    case TYPE_UINT:
      target.set_type(proto::NamedStatus::UINT);
      if (const auto* number = boost::get<unsigned long>(known)) target.set_uint_value(*number);
      break;
    case TYPE_DOUBLE:
      target.set_type(proto::NamedStatus::DOUBLE);
      if (const auto* number = boost::get<double>(known)) target.set_double_value(*number);
      break;
  }
}

}  // namespace orv::device_tree
