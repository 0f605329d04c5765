// Pauses between attempts, for whoever must neither give up nor press.
//
// The pauses double up to the longest. One thread at a time.
#pragma once

#include <chrono>
#include <random>

namespace orv::reporting {

class Backoff {
 public:
  Backoff(std::chrono::milliseconds first, std::chrono::milliseconds longest)
      : first_(first), longest_(longest) {}

  // How long to wait before the next attempt.
  std::chrono::milliseconds next();

  // The same, drawn at random: the first pause between nothing and all of it, each other between
  // half of it and all. Many who failed together then do not try again together.
  std::chrono::milliseconds next(std::mt19937_64& random);

  // How many pauses there were since the beginning or `reset`.
  unsigned int count() const { return count_; }

  // An attempt has succeeded.
  void reset() { count_ = 0; }

 private:
  std::chrono::milliseconds first_;
  std::chrono::milliseconds longest_;
  std::chrono::milliseconds pause_{0};
  unsigned int count_ = 0;
};

}  // namespace orv::reporting
