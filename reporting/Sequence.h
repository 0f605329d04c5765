#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "reporting/Export.h"

namespace orv::reporting {

/// Where an event stands among the events of its root.
///
/// A plain value. Several threads may read one at once; a change needs the caller's exclusion.
struct ORV_REPORTING_EXPORT Sequence {
  /// Random, drawn anew whenever a reporter takes a root up. Says only whether two events belong
  /// together: neither of two epochs is the later one.
  std::uint64_t epoch = 0;
  /// Counts the events of the epoch from 1, which is always a DEVICE_ADD. 0 stands for none yet.
  std::uint64_t n = 0;

  /// The form on the wire: both numbers in decimal with a dot between them, "81985529216486895.7".
  std::string text() const;

  /// Reads what `text` makes of the sequence of an event, and nothing else: no sign, no leading
  /// zero, no n of 0.
  static std::optional<Sequence> parse(const std::string& text);
};

inline bool operator==(const Sequence& a, const Sequence& b) noexcept {
  return a.epoch == b.epoch && a.n == b.n;
}
inline bool operator!=(const Sequence& a, const Sequence& b) noexcept { return !(a == b); }

}  // namespace orv::reporting
