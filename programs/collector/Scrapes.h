// The metrics that clients are reading.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "collector/Exposition.h"

// What is kept for a client that is slow is limited for all of them together: where there is too
// much, the oldest are given up, and the newest is read to its end. So clients that are slow on
// purpose neither take the memory nor keep others from the metrics. Any thread may use it.
class Scrapes {
 public:
  // Hands out the metrics piece by piece, empty at the end. Throws std::runtime_error when they
  // were given up.
  std::function<std::string()> add(Exposition metrics);

 private:
  class Scrape;

  std::mutex mutex_;
  std::list<std::weak_ptr<Scrape>> scrapes_;  // the oldest first
};
