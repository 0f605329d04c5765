#pragma once

#include <boost/variant/get.hpp>
#include <boost/variant/variant.hpp>
#include <cstdint>
#include <string>

#include "device_tree/Export.h"
#include "proto/monitoring/device_tree.pb.h"

namespace orv::device_tree {

/// One named item of a device's configuration: a name, a value type and a value.
///
/// A plain value that owns its strings. Several threads may read one at once; a change needs the
/// caller's exclusion. The comparison operators are not const members: whoever compares holds the
/// left property as a modifiable object. They change nothing. An operation declared noexcept ends
/// the process when memory runs out.
class ORV_DEVICE_TREE_EXPORT Property {
 public:
  /// Any 32-bit number may be held. One outside the enumeration is an unknown type: it hides the
  /// value in texts and in comparisons and is written to messages as a string.
  enum Type : std::int32_t { TYPE_STRING = 0 };

  using Value = boost::variant<std::string>;

  /// Copies the three arguments; the type is not compared with the value.
  Property(const std::string& propertyName, Type propertyType, const Value& propertyValue) noexcept;

  /// Takes name and value of the message, an absent one as the empty string. The type is always
  /// `TYPE_STRING`; the message's own is not read.
  Property(const orv::proto::monitoring::Property& message) noexcept;

  /// Whether names or types differ, or, for `TYPE_STRING`, the values. Two properties of one name
  /// and one unknown type are equal whatever their values.
  bool operator!=(const Property& other) noexcept;
  /// Exactly the negation of `operator!=`.
  bool operator==(const Property& other) noexcept;

  /// One line: "model (string X200)"; for an unknown type "model (? ?)".
  std::string debugString() const noexcept;

  /// A message with name, type `STRING` and value, each present also when empty.
  orv::proto::monitoring::Property toProtoBuf() const noexcept;
  /// Makes `target` that message, whatever it held, and reuses the memory it has.
  void toProtoBuf(orv::proto::monitoring::Property& target) const noexcept;

  std::string name;
  Type type = TYPE_STRING;
  Value value;

 private:
  friend class DeviceNode;

  Property() = default;
  ORV_DEVICE_TREE_NO_EXPORT void read(const orv::proto::monitoring::Property& source);
};

/// @cond
// The same comparison for two modifiable properties, lasting or temporary. Without these an
// operator that is not const is ambiguous with its own mirror image in C++20.
inline bool operator!=(Property& left, Property& right) noexcept { return left.operator!=(right); }
inline bool operator!=(Property& left, Property&& right) noexcept { return left.operator!=(right); }
inline bool operator!=(Property&& left, Property& right) noexcept { return left.operator!=(right); }
inline bool operator!=(Property&& left, Property&& right) noexcept {
  return left.operator!=(right);
}
inline bool operator==(Property& left, Property& right) noexcept { return left.operator==(right); }
inline bool operator==(Property& left, Property&& right) noexcept { return left.operator==(right); }
inline bool operator==(Property&& left, Property& right) noexcept { return left.operator==(right); }
inline bool operator==(Property&& left, Property&& right) noexcept {
  return left.operator==(right);
}
/// @endcond

}  // namespace orv::device_tree
