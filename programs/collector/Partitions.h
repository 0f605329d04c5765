// Ranges of partitions, for those who share a fleet.
#pragma once

#include <charconv>
#include <stdexcept>
#include <string>
#include <system_error>

#include "reporting/Topics.h"

struct Partitions {
  unsigned int first = 0;
  unsigned int last = orv::reporting::Topics::PARTITIONS - 1;

  bool contain(const std::string& root) const {
    const unsigned int partition = orv::reporting::Topics::partitionOf(root);
    return first <= partition && partition <= last;
  }
};

// Reads "A-B". Throws std::runtime_error for all else.
inline Partitions partitionsOf(const std::string& text) {
  Partitions result;
  const char* const end = text.data() + text.size();
  const auto first = std::from_chars(text.data(), end, result.first);
  const bool hasTwo = first.ec == std::errc() && first.ptr != end && *first.ptr == '-';
  const auto last = std::from_chars(hasTwo ? first.ptr + 1 : end, end, result.last);
  if (last.ec != std::errc() || last.ptr != end || result.first > result.last ||
      result.last >= orv::reporting::Topics::PARTITIONS) {
    throw std::runtime_error("not A-B of the partitions 0 to 1023: '" + text + "'");
  }
  return result;
}
