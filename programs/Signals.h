// The signals that end a program. They wait until the program asks, so that nothing is cut short.
#pragma once

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>

class Signals {
 public:
  Signals() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGINT);
    sigaddset(&set_, SIGTERM);
    sigprocmask(SIG_BLOCK, &set_, nullptr);
  }

  // Waits for so long at most; whether one of the signals came.
  bool arrive(std::chrono::nanoseconds limit) const {
    const auto left = std::max(limit, std::chrono::nanoseconds(0));
    const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
    const timespec time = {seconds.count(), (left - seconds).count()};
    return sigtimedwait(&set_, nullptr, &time) > 0;
  }

 private:
  sigset_t set_ = {};
};
