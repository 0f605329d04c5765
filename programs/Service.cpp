#include "Service.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "Signals.h"

namespace fs = std::filesystem;
using std::chrono::seconds;

namespace {

constexpr seconds firstPause(5);
constexpr seconds longestPause(300);
constexpr std::chrono::minutes stable(10);  // a start that lasts so long has not failed

std::string environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::int64_t number(const std::string& text) { return std::strtoll(text.c_str(), nullptr, 10); }

}  // namespace

Service::Service() : socket_(environment("NOTIFY_SOCKET")) {
  const std::string directory = environment("RUNTIME_DIRECTORY");
  if (!directory.empty()) failures_ = fs::path(directory) / "failures";
  const std::string process = environment("WATCHDOG_PID");
  if (process.empty() || number(process) == getpid()) {
    // The third of the time that the service manager waits, so that one may be late.
    interval_ = std::chrono::microseconds(number(environment("WATCHDOG_USEC")) / 3);
  }
}

bool Service::waitAfterFailures(const Signals& signals) {
  if (failures_.empty()) return true;
  std::int64_t count = 0;
  std::ifstream(failures_) >> count;
  count = std::clamp<std::int64_t>(count, 0, 1000000);
  std::ofstream(failures_) << count + 1;
  if (count == 0) return true;
  const auto doublings = std::min<std::int64_t>(count - 1, 10);
  const seconds pause = std::min(firstPause * (std::int64_t{1} << doublings), longestPause);
  tell("STATUS=Starts that failed: " + std::to_string(count) + ". Waits " +
       std::to_string(pause.count()) + " s");
  return !signals.arrive(pause);
}

void Service::ready() {
  ready_ = told_ = Clock::now();
  if (!tell("READY=1\nSTATUS=")) {
    throw std::system_error(errno, std::generic_category(), "cannot tell the service manager");
  }
}

void Service::alive() {
  const auto now = Clock::now();
  if (interval_ > Clock::duration(0) && now - told_ >= interval_) {
    tell("WATCHDOG=1");
    told_ = now;
  }
  if (now - ready_ >= stable) forgetFailures();
}

void Service::stopping() {
  tell("STOPPING=1");
  forgetFailures();
}

// Whether the message has been sent, or nobody waits for it.
bool Service::tell(const std::string& message) const {
  if (socket_.empty()) return true;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (socket_.size() > sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  std::copy(socket_.begin(), socket_.end(), address.sun_path);
  if (socket_.front() == '@') address.sun_path[0] = '\0';  // a name that is no file
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return false;
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_.size());
  const auto sent = sendto(descriptor, message.data(), message.size(), MSG_NOSIGNAL,
                           reinterpret_cast<const sockaddr*>(&address), size);
  const int fault = errno;
  close(descriptor);
  errno = fault;
  return sent >= 0;
}

void Service::forgetFailures() {
  std::error_code ignored;
  if (!failures_.empty()) fs::remove(failures_, ignored);
  failures_.clear();
}
