#pragma once

#include <optional>
#include <string>
#include <utility>

#include "reporting/Export.h"

namespace orv::reporting {

/// The topics of a fleet, below a prefix of one or more levels.
///
///     PREFIX/event/<partition>/<root>   the events of one root
///     PREFIX/state/<name>               the state of one reporter
///     PREFIX/gone/<name>                its will
///     PREFIX/roots/<partition>/<name>   its roots in one partition
///     PREFIX/request/<name>             requests to it
///
/// Roots and names may be any bytes. What a topic cannot carry is percent-encoded: the characters
/// `/`, `+`, `#` and `%`, control characters (U+0000 to U+001F, U+007F to U+009F), the code points
/// that Unicode calls noncharacters, and each byte that does not belong to a character in UTF-8.
/// An encoded byte is `%` and two upper-case digits. The empty text is `%` alone. So there is one
/// topic for each root and one root for each topic.
///
/// Immutable; any thread may use it.
class ORV_REPORTING_EXPORT Topics {
 public:
  /// A collector that cannot follow the whole fleet takes some of the partitions, 0 to 1023.
  static constexpr unsigned int PARTITIONS = 1024;

  /// The partition of a root: the 64-bit FNV-1a hash of its bytes modulo PARTITIONS.
  static unsigned int partitionOf(const std::string& root);

  /// Throws std::invalid_argument when the prefix is empty or a broker would not take it.
  explicit Topics(const std::string& prefix);

  /// A root or name as it stands in a topic, and back; nothing for what `encode` does not make.
  static std::string encode(const std::string& text);
  static std::optional<std::string> decode(const std::string& level);

  std::string event(const std::string& root) const;
  std::string state(const std::string& name) const;
  std::string gone(const std::string& name) const;
  std::string roots(unsigned int partition, const std::string& name) const;
  std::string request(const std::string& name) const;

  /// What to subscribe to for the states and wills of all reporters, for the events and lists of
  /// all roots, for those of one partition, and for all lists of one reporter.
  std::string allStates() const;
  std::string allGone() const;
  std::string allEvents() const;
  std::string eventsOf(unsigned int partition) const;
  std::string allRoots() const;
  std::string rootsOf(unsigned int partition) const;
  std::string rootsOf(const std::string& name) const;

  /// The root or name of a topic that the operations above made; nothing for every other topic.
  std::optional<std::string> rootOf(const std::string& topic) const;
  std::optional<std::string> reporterOf(const std::string& topic) const;  ///< of its state or will
  /// The partition and the reporter of a list.
  std::optional<std::pair<unsigned int, std::string>> listOf(const std::string& topic) const;

 private:
  std::string events_;
  std::string states_;
  std::string gone_;
  std::string roots_;
  std::string requests_;
};

}  // namespace orv::reporting
