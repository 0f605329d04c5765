#pragma once

#include <boost/variant/get.hpp>
#include <boost/variant/variant.hpp>
#include <cstdint>
#include <string>

#include "device_tree/Export.h"
#include "proto/monitoring/device_tree.pb.h"

namespace orv::device_tree {

namespace utils {
class EventHelper;
}

/// One named, typed piece of a device's changing state.
///
/// The type is fixed when the status is made. The value may be unknown ("not set").
///
/// The kind of the value should be the one that belongs to the type:
///
///     TYPE_STRING  std::string         TYPE_UINT    unsigned long, 5UL
///     TYPE_INT     long, 5L            TYPE_DOUBLE  double
///
/// That is the caller's duty and not checked. A message says of a value of another kind that none
/// is set.
///
/// A status without a value holds the integer 0. So a `TYPE_INT` that is not known equals one that
/// is 0, and the step from one to the other is no change. Where a value may be unknown, use
/// `TYPE_UINT` or `TYPE_DOUBLE`.
///
/// A plain value that owns its strings. Several threads may read one at once; a change needs the
/// caller's exclusion. An operation declared noexcept ends the process when memory runs out.
class ORV_DEVICE_TREE_EXPORT NamedStatus {
 public:
  /// Any 32-bit number may be held; one outside the enumeration is an unknown type.
  enum Type : std::int32_t { TYPE_STRING = 0, TYPE_INT = 1, TYPE_UINT = 2, TYPE_DOUBLE = 3 };

  using Value = boost::variant<long, unsigned long, double, std::string>;

  /// A status whose value is not known.
  NamedStatus(const std::string& statusName, Type statusType) noexcept;

  /// A status whose value is set, whatever its kind.
  NamedStatus(const std::string& statusName, Type statusType, const Value& statusValue) noexcept;

  /// Takes name, type and the value field that belongs to the type, if it is present; other value
  /// fields are ignored. An absent type reads as `TYPE_STRING`. A parser leaves a number outside
  /// the enumeration absent, so a received one becomes `TYPE_STRING`. One that was put into the
  /// message in memory becomes `TYPE_INT` without a value.
  NamedStatus(const orv::proto::monitoring::NamedStatus& message) noexcept;

  const std::string& getName() const noexcept { return name; }
  Type getType() const noexcept { return type; }
  bool isValueSet() const noexcept { return valueSet; }
  /// The value held; the integer 0 when none is set.
  const Value& getValue() const noexcept { return value; }

  /// Sets the value, of whatever kind; the type stays. A literal says its kind: 5L, 5UL, 5.0,
  /// std::string("on"). Throws std::bad_alloc when there is no memory for a string. Then
  /// `isValueSet` stays as it was, and so does the value unless its kind was to change.
  void setValue(const Value& newValue);

  /// Forgets the value; the type stays.
  void unsetValue() noexcept;

  /// Whether names, types or values differ. Values are read as the kind that belongs to the type:
  /// numbers without tolerance (a NaN differs from itself), strings byte by byte. Whether a value
  /// is set is not compared. Two statuses of one unknown type always differ.
  ///
  /// Throws boost::bad_get when names and types are equal and either value is not of that kind. A
  /// status without a value holds an integer, which only a `TYPE_INT` takes.
  bool operator!=(const NamedStatus& other) const;
  /// Exactly the negation of `operator!=`; throws as it does.
  bool operator==(const NamedStatus& other) const;

  /// One line: "temp (double 21.500000)", "mode (string not set)". Numbers are written in full and
  /// the same in every locale. An unknown type, and a value whose kind disagrees with the type,
  /// show as "?".
  std::string debugString() const noexcept;

  /// A message with the name, the type unless that is unknown, and the value field that belongs to
  /// the type if a value of that kind is set.
  orv::proto::monitoring::NamedStatus toProtoBuf() const noexcept;
  /// Makes `target` that message, whatever it held, and reuses the memory it has.
  void toProtoBuf(orv::proto::monitoring::NamedStatus& target) const noexcept;

 private:
  // They read messages where a lack of memory has to pass, which the constructor does not let.
  friend class DeviceNode;
  friend class utils::EventHelper;

  NamedStatus() = default;
  ORV_DEVICE_TREE_NO_EXPORT void read(const orv::proto::monitoring::NamedStatus& source);

  std::string name;
  Type type = TYPE_INT;  // what an unknown number in a message becomes
  bool valueSet = false;
  Value value = 0L;
};

}  // namespace orv::device_tree
