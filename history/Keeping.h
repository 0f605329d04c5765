// Lets go of what is too old or too much, a little at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

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
  struct Done {
    std::size_t rows;
    bool isAll;
  };
  Done letGo(Store& store, const RootEntry& root);

  KeepingRule rule_;
  Gone gone_;
  std::optional<std::int64_t> horizon_;  // up to which is let go now
  std::int64_t root_ = -1;               // done with those up to this one
  Time next_;
  Time looked_;   // when it was looked at last
  Time trusted_;  // from here on the clock is believed
};

}  // namespace orv::history
