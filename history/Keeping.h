// Lets go of what is too old or too much, a little at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "history/Store.h"

namespace orv::history {

struct KeepingRule {
  std::chrono::seconds age{0};
  std::uint64_t bytes = 0;
};

class Keeping {
 public:
  using Gone = std::function<void(const std::string& root)>;

  // `gone` is told of removed roots of which nothing is kept any longer.
  Keeping(const KeepingRule& rule, Gone gone) : rule_(rule), gone_(std::move(gone)) {}

  // The file may be another one.
  void restart() noexcept {
    horizon_.reset();
    next_ = {};
  }
  // To be called when all is committed. Commits what it does. Throws Error.
  void serve(Store& store, Time now);

 private:
  std::optional<std::int64_t> horizonOf(Store& store, Time now);
  // What is let go at one time.
  struct Old {
    std::vector<std::int64_t> rows;
    std::size_t work = 0;

    void add(const Row& row);
  };
  bool letGo(Store& store, const RootEntry& root, Old& old);
  void letGoRoot(Store& store, const RootEntry& root, Old& old);

  KeepingRule rule_;
  Gone gone_;
  std::optional<std::int64_t> horizon_;  // up to which is let go now
  std::int64_t root_ = -1;               // done with those up to this one
  Time next_;
  Time looked_;   // when it was looked at last
  Time trusted_;  // from here on the clock is believed
};

}  // namespace orv::history
