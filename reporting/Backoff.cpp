#include "reporting/Backoff.h"

#include <algorithm>

namespace orv::reporting {

using std::chrono::milliseconds;

milliseconds Backoff::next() {
  pause_ = std::min(count_++ == 0 ? first_ : 2 * pause_, longest_);
  return pause_;
}

milliseconds Backoff::next(std::mt19937_64& random) {
  const bool isFirst = count_ == 0;
  const milliseconds most = next();
  const milliseconds least = isFirst ? milliseconds(0) : most / 2;
  return milliseconds(
      std::uniform_int_distribution<milliseconds::rep>(least.count(), most.count())(random));
}

}  // namespace orv::reporting
