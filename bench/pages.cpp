#include "Pages.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "Fleet.h"
#include "Processes.h"
#include "Trees.h"

namespace bench {

namespace {

using namespace std::chrono;
using Json = nlohmann::json;

sockaddr_in addressOf(std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

pid_t startCollector(const std::string& program, const std::string& broker, std::uint16_t port) {
  std::vector<std::string> words = {program,  "--broker",          broker, "--prefix", "pages",
                                    "--http", std::to_string(port)};
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t process = 0;
  const int fault =
      posix_spawn(&process, program.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  require(fault == 0, "The collector does not start");
  return process;
}

// A page that is open: it reads the news of one root.
class Page {
 public:
  Page(std::uint16_t port, const std::string& root) : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    const sockaddr_in address = addressOf(port);
    const std::string question =
        "GET /api/events?root=" + root + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
    isOpen_ = connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
              send(socket_, question.data(), question.size(), MSG_NOSIGNAL) > 0;
  }
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;
  ~Page() { close(socket_); }

  int socket() const { return socket_; }
  bool isOpen() const { return isOpen_; }

  // Reads what is there and notes the delay of each change that it says.
  void read(std::vector<double>& delays) {
    constexpr std::string_view mark = R"("name":"uptime","type":"UINT","uint_value":")";
    std::array<char, 65'536> buffer{};
    const ssize_t size = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size <= 0) return;
    const steady_clock::time_point now = steady_clock::now();
    text_.append(buffer.data(), static_cast<std::size_t>(size));
    std::size_t at = text_.find(mark);
    while (at != std::string::npos && text_.find('"', at + mark.size()) != std::string::npos) {
      std::int64_t due = 0;
      std::from_chars(text_.data() + at + mark.size(), text_.data() + text_.size(), due);
      const auto delay = now.time_since_epoch() - nanoseconds(due);
      // Devices other than the topmost one have an uptime that says no such thing.
      if (delay < hours(1)) delays.push_back(duration<double, std::milli>(delay).count());
      text_.erase(0, at + mark.size());
      at = text_.find(mark);
    }
    if (at == std::string::npos && text_.size() > mark.size()) {
      text_.erase(0, text_.size() - mark.size());
    }
  }

 private:
  int socket_;
  bool isOpen_ = false;
  std::string text_;
};

using Pages = std::vector<std::unique_ptr<Page>>;

// Reads what the pages get for so long.
std::vector<double> read(const Pages& pages, milliseconds length) {
  std::vector<double> delays;
  std::vector<pollfd> waited;
  for (const auto& page : pages) waited.push_back({page->socket(), POLLIN, 0});
  const auto end = steady_clock::now() + length;
  while (steady_clock::now() < end) {
    poll(waited.data(), waited.size(), 10);
    for (std::size_t i = 0; i < waited.size(); ++i) {
      if (waited[i].revents != 0) pages[i]->read(delays);
    }
  }
  return delays;
}

}  // namespace

Json measurePages(const std::string& settings, const std::string& collector, bool quick) {
  constexpr std::size_t count = 200;
  const seconds length(quick ? 5 : 20);
  const BrokerProcess broker(settings);
  const Child reporter([&](int control) {
    report(broker.url(), {1000, 100, 1, 8, "pages"}, control);
  });
  reporter.read();
  const std::uint16_t port = freePort();
  const pid_t process = startCollector(collector, broker.url(), port);
  while (waitpid(process, nullptr, WNOHANG) == 0 && !Page(port, "").isOpen()) usleep(10'000);
  reporter.write(1e6);   // 1,000 events a second
  read({}, seconds(5));  // until all trees are there

  const auto timeOf = [&](const Pages& pages, std::vector<double>& delays) {
    const double begin = processorTime(process);
    delays = read(pages, length);
    return (processorTime(process) - begin) / static_cast<double>(length.count());
  };
  std::vector<double> delays;
  Json result{{"pages", count}, {"without", timeOf({}, delays)}};
  Pages pages;
  for (std::size_t i = 0; i < count; ++i) {
    pages.push_back(std::make_unique<Page>(port, numbered("root-", i)));
    require(pages.back()->isOpen(), "The collector does not answer");
  }
  read(pages, seconds(2));  // what they get at first
  result["with"] = timeOf(pages, delays);
  require(!delays.empty(), "No news arrive");
  std::sort(delays.begin(), delays.end());
  result["news"] = static_cast<double>(delays.size()) / static_cast<double>(length.count());
  result["median"] = delays[delays.size() / 2];
  result["percentile"] = delays[delays.size() * 99 / 100];
  kill(process, SIGINT);
  waitpid(process, nullptr, 0);
  return result;
}

}  // namespace bench
