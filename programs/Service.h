// The service manager that runs the program, if one does: systemd. It is told that the program is
// at work (sd_notify(3) describes the messages) and has the program restarted when one that hangs
// says so no more. A program whose starts fail one after the other waits longer each time.
//
// Without a service manager nothing here has an effect.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

class Signals;

class Service {
 public:
  Service();

  // Whether the program runs as a service.
  bool isPresent() const { return !socket_.empty(); }

  // Counts this start and waits as long as the failed ones before it call for. False when a signal
  // ended that.
  bool waitAfterFailures(const Signals& signals);

  // The program is at work. Throws std::runtime_error when that cannot be told.
  void ready();

  // The program still does its work: to be called again and again, by the thread that does it.
  void alive();

  // The program ends in order, so the next start does not wait.
  void stopping();

 private:
  using Clock = std::chrono::steady_clock;
  bool tell(const std::string& message) const;
  void forgetFailures();

  std::string socket_;              // where the service manager listens
  std::filesystem::path failures_;  // the file with the number of failed starts; empty: none
  Clock::duration interval_{};      // between two signs of life; zero: none is wanted
  Clock::time_point ready_;
  Clock::time_point told_;
};
