// Processes that the benchmarks start, and what they take.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace bench {

// A port that nobody listens on.
std::uint16_t freePort();

// Seconds of processor time that the process has taken.
double processorTime(pid_t process);
// Memory that it has.
double residentBytes(pid_t process);

// A fork of this process that runs `body` with one end of a pair of sockets. The other end is
// `control`. The end closes it, and waits until the process has noticed.
class Child {
 public:
  explicit Child(const std::function<void(int control)>& body);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  pid_t process() const { return process_; }
  int control() const { return control_; }

  // A number from it, or to it. Reading throws std::runtime_error when it has ended.
  double read() const;
  void write(double number) const;

 private:
  int control_ = -1;
  pid_t process_ = 0;
};

// A broker of these settings on a free port of this machine. It keeps its files in a directory of
// its own. The end removes both.
class BrokerProcess {
 public:
  explicit BrokerProcess(std::string settings);
  BrokerProcess(const BrokerProcess&) = delete;
  BrokerProcess& operator=(const BrokerProcess&) = delete;
  ~BrokerProcess();

  // With a numeric host, as no thread that looks up names survives a fork.
  std::string url() const { return "mqtt://127.0.0.1:" + std::to_string(port_); }
  std::uint16_t port() const { return port_; }
  pid_t process() const { return process_; }

  // Ends it without warning and starts it again. It has forgotten everything.
  void restart();

 private:
  void start();
  void kill() const;

  std::string settings_;
  std::string directory_;
  std::uint16_t port_;
  pid_t process_ = 0;
};

}  // namespace bench
