// The history of a fleet: what a collector records, and begins with when it starts.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "reporting/Publication.h"

namespace CLI {
class App;
}
class Fleet;

struct HistoryOptions {
  std::string file;     // empty: nothing is recorded
  double keepDays = 0;  // 0: for ever
  double keepSize = 0;  // in GB; 0: as much as there is
  // Of the session at the broker that goes on when this process ends; empty: there is none.
  std::string session;
  long sessionExpiry = 3600;  // in seconds
};

// Declares --history and the options that go with it.
void addHistoryOptions(CLI::App& app, HistoryOptions& options);

class FleetHistory {
 public:
  // `log` is told what is wrong. Throws std::runtime_error where this program has no history.
  FleetHistory(const HistoryOptions& options, std::function<void(const std::string&)> log);
  FleetHistory(const FleetHistory&) = delete;
  FleetHistory& operator=(const FleetHistory&) = delete;
  ~FleetHistory();

  // To be called before the first connection.
  void resume(Fleet& fleet);
  void record(const std::string& root, const orv::reporting::Step& step);
  void forget(const std::string& root);
  // To be called twice a second at least. While there is no connection nobody sees what happens.
  void serve(bool isConnected);

  // Why nothing is recorded now; empty when all is well. Any thread may call it.
  std::string failure() const;

 private:
  struct Core;
  std::unique_ptr<Core> core_;
};
