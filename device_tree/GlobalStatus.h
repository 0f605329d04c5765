#pragma once

#include <cstdint>
#include <string>

#include "device_tree/Export.h"
#include "proto/monitoring/device_tree.pb.h"

namespace orv::device_tree {

namespace utils {
class EventHelper;
}

/// The overall health of one device: a grade and a free text that explains it.
///
/// A plain value that owns its text. Several threads may read one at once; a change needs the
/// caller's exclusion. An operation declared noexcept ends the process when memory runs out.
class ORV_DEVICE_TREE_EXPORT GlobalStatus {
 public:
  /// Any 32-bit number may be held. One outside the enumeration counts as an error in texts and in
  /// messages, and as itself in comparisons.
  enum Level : std::int32_t { LEVEL_OK = 0, LEVEL_WARNING = 1, LEVEL_ERROR = 2 };

  /// `LEVEL_OK` without a text.
  GlobalStatus() noexcept = default;

  /// Copies both.
  GlobalStatus(Level healthLevel, const std::string& text) noexcept
      : level(healthLevel), message(text) {}

  /// Takes the level and the text of the message. An absent level reads as `LEVEL_OK`, an absent
  /// text as the empty one. A parser leaves a level that is not in the enumeration absent, so a
  /// received one becomes `LEVEL_OK`. One that was put into the message in memory becomes
  /// `LEVEL_ERROR`.
  GlobalStatus(const orv::proto::monitoring::GlobalStatus& healthMessage) noexcept;

  /// Whether the levels differ as numbers or the texts in any byte.
  bool operator!=(const GlobalStatus& other) const noexcept;
  /// Exactly the negation of `operator!=`.
  bool operator==(const GlobalStatus& other) const noexcept;

  /// One line: "OK", "Warning" or "Error", followed by ": " and the text unless that is empty.
  std::string debugString() const noexcept;

  /// A message with the level always present, the text only when it is not empty.
  orv::proto::monitoring::GlobalStatus toProtoBuf() const noexcept;
  /// Makes `target` that message, whatever it held, and reuses the memory it has.
  void toProtoBuf(orv::proto::monitoring::GlobalStatus& target) const noexcept;

  Level level = LEVEL_OK;
  /// Empty when there is nothing to explain.
  std::string message;

 private:
  // They read messages where a lack of memory has to pass, which the constructor does not let.
  friend class DeviceNode;
  friend class utils::EventHelper;

  ORV_DEVICE_TREE_NO_EXPORT void read(const orv::proto::monitoring::GlobalStatus& source);
};

}  // namespace orv::device_tree
