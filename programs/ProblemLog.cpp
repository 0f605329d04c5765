#include "ProblemLog.h"

namespace {

constexpr std::size_t mostLines = 20;
constexpr std::chrono::minutes period(1);

}  // namespace

void ProblemLog::tell(const orv::reporting::Problem& problem) {
  serve();
  Minute& minute = minutes_[problem.kind];
  if (++minute.count <= mostLines) return log_(problem.text);
  ++minute.leftOut;
  minute.last = problem.text;
}

void ProblemLog::serve() {
  const auto now = std::chrono::steady_clock::now();
  for (auto entry = minutes_.begin(); entry != minutes_.end();) {
    Minute& minute = entry->second;
    if (now - minute.begin < period) {
      ++entry;
    } else if (minute.leftOut == 0) {
      entry = minutes_.erase(entry);
    } else {
      log_(minute.last + " (the last of " + std::to_string(minute.leftOut) +
           " like it that were left out within a minute)");
      minute.begin = now;
      minute.leftOut = 0;
      ++entry;
    }
  }
}
