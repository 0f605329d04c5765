// Which parts of a whole have changed lately, for readers who know an earlier version of it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <utility>

// One thread at a time, other than for `version`. It remembers a limited number of changes: who is
// further behind is better off with the whole.
class Changes {
 public:
  explicit Changes(std::uint64_t version) : version_(version), forgotten_(version) {}

  // The latest version.
  std::uint64_t version() const { return version_; }

  // In this version something beside the parts has changed, a part, or everything.
  void add(std::uint64_t version) { version_ = version; }
  void add(std::uint64_t version, const std::string& part);
  void addAll(std::uint64_t version);

  // The parts that have changed after the version. Nothing when it cannot tell.
  std::optional<std::set<std::string>> after(std::uint64_t version) const;

 private:
  static constexpr std::size_t most = 20'000;

  std::atomic<std::uint64_t> version_;
  std::uint64_t forgotten_;  // what has changed up to this version is not known
  std::deque<std::pair<std::uint64_t, std::string>> changes_;
};
