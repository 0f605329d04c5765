#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <deque>
#include <iostream>
#include <vector>

#include "Fleet.h"
#include "Plant.h"
#include "reporting/Connection.h"
#include "reporting/Reporter.h"

namespace bench {

namespace {

using namespace orv::reporting;
using namespace std::chrono;

void fail(const Problem& problem) { throw std::runtime_error(problem.text); }
void log(const std::string& text) { std::cerr << text << '\n'; }

struct Member {
  Member(const Broker& broker, const std::string& name, const ReporterOptions& options)
      : reporter(name, {{}, fail}, options), connection(broker, reporter, log) {}

  Reporter reporter;
  Connection connection;
  bool isTold = true;
};

bool isDue(const Member& member) {
  const Time due = member.connection.due();  // before the clock is read: it is never in the past
  return member.isTold || due <= steady_clock::now();
}

// For a millisecond at most.
void serve(std::deque<Member>& members) {
  if (members.size() == 1) return members.front().connection.serve(milliseconds(1));
  std::vector<pollfd> waited;
  bool isAnyDue = false;
  for (const Member& member : members) {
    const int events = POLLIN | (member.connection.wantsToWrite() ? POLLOUT : 0);
    waited.push_back({member.connection.descriptor(), static_cast<short>(events), 0});
    isAnyDue = isAnyDue || isDue(member);
  }
  poll(waited.data(), waited.size(), isAnyDue ? 0 : 1);
  for (std::size_t i = 0; i < members.size(); ++i) {
    Member& member = members[i];
    if (waited[i].revents != 0 || isDue(member)) {
      member.isTold = false;
      member.connection.serve(milliseconds(0));
    }
  }
}

}  // namespace

void report(const std::string& broker, const Fleet& fleet, int control) {
  Plant plant(fleet.roots, fleet.devices, fleet.statuses);
  double told = 0;
  send(control, &told, sizeof told, 0);
  recv(control, &told, sizeof told, 0);
  ReporterOptions options;
  options.prefix = fleet.prefix;
  std::deque<Member> members;
  for (std::size_t i = 0; i < fleet.reporters; ++i) {
    members.emplace_back(Broker::parse(broker), "bench-" + std::to_string(i), options);
  }
  const auto change = [&](Time due) {
    Member& member = members[plant.next() % members.size()];
    member.reporter.report(plant.change(due));
    member.isTold = true;
  };
  Time due = steady_clock::now();
  for (std::size_t i = 0; i < fleet.roots; ++i) change(due);
  nanoseconds pause(std::llround(told));
  while (const auto length = recv(control, &told, sizeof told, MSG_DONTWAIT)) {
    const Time now = steady_clock::now();
    if (length > 0) {
      due = now;
      pause = nanoseconds(std::llround(told));
    }
    for (; pause.count() > 0 && due <= now; due += pause) change(due);
    serve(members);
  }
}

}  // namespace bench
