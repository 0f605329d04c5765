#include "Processes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace bench {

namespace {

sockaddr_in addressOf(std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool isOpen(std::uint16_t port) {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = addressOf(port);
  const bool isOpen =
      connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(socket);
  return isOpen;
}

void require(bool done, const std::string& error) {
  if (!done) throw std::runtime_error(error);
}

}  // namespace

std::uint16_t freePort() {
  const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = addressOf(0);
  socklen_t size = sizeof address;
  const bool isBound = bind(socket, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                       getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(socket);
  require(isBound, "No port is free");
  return ntohs(address.sin_port);
}

double processorTime(pid_t process) {
  clockid_t clock = 0;
  timespec time = {};
  require(clock_getcpuclockid(process, &clock) == 0 && clock_gettime(clock, &time) == 0,
          "A process has ended");
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double residentBytes(pid_t process) {
  double pages = 0;
  std::ifstream("/proc/" + std::to_string(process) + "/statm") >> pages >> pages;
  return pages * static_cast<double>(sysconf(_SC_PAGESIZE));
}

Child::Child(const std::function<void(int control)>& body) {
  std::array<int, 2> ends{};
  const bool hasPair = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0;
  require(hasPair, "No pair of sockets");
  const pid_t forked = fork();
  require(forked >= 0, "No process");
  process_ = forked;
  close(ends.at(process_ == 0 ? 0 : 1));
  control_ = ends.at(process_ == 0 ? 1 : 0);
  if (process_ > 0) return;
  int result = 0;
  try {
    body(control_);
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    result = 1;
  }
  _exit(result);
}

Child::~Child() {
  close(control_);
  waitpid(process_, nullptr, 0);
}

double Child::read() const {
  double number = 0;
  require(recv(control_, &number, sizeof number, MSG_WAITALL) == sizeof number,
          "A process has ended");
  return number;
}

void Child::write(double number) const { send(control_, &number, sizeof number, MSG_NOSIGNAL); }

BrokerProcess::BrokerProcess(std::string settings)
    : settings_(std::filesystem::absolute(std::move(settings))), port_(freePort()) {
  std::string name = std::filesystem::temp_directory_path() / "orv-XXXXXX";
  require(mkdtemp(name.data()) != nullptr, "No directory for the broker");
  directory_ = name;
  start();
}

BrokerProcess::~BrokerProcess() {
  kill();
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void BrokerProcess::start() {
  std::vector<std::string> words = {"mosquitto", "-c", settings_, "-p", std::to_string(port_)};
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  process_ = fork();
  require(process_ >= 0, "No process");
  if (process_ == 0) {
    const int log = creat((directory_ + "/log").c_str(), 0600);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    if (chdir(directory_.c_str()) == 0) execvp("mosquitto", arguments.data());
    _exit(127);
  }
  while (!isOpen(port_)) {
    require(waitpid(process_, nullptr, WNOHANG) == 0, "The broker does not start");
    usleep(1000);
  }
}

void BrokerProcess::kill() const {
  ::kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

void BrokerProcess::restart() {
  kill();
  start();
}

}  // namespace bench
