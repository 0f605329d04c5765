#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Fleet.h"
#include "Plant.h"
#include "reporting/Collector.h"
#include "reporting/Reporter.h"

namespace bench {

namespace {

using namespace orv::reporting;
using namespace std::chrono;
using Json = nlohmann::json;

void fail(const Problem& problem) { throw std::runtime_error(problem.text); }

// Microseconds of processor time of this thread.
double clockTime() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return 1e6 * static_cast<double>(time.tv_sec) + 1e-3 * static_cast<double>(time.tv_nsec);
}

// A reporter with many roots, others with one, and a collector. In place of the broker it hands
// over what they publish and keeps their states and lists.
class Crowd {
 public:
  Crowd(std::size_t roots, std::size_t devices, std::size_t others)
      : plant_(roots, devices, 1), small_(others, 1, 1, "small-") {
    atStart_ = longest([&] { start(roots, others); });
    require(current_ == roots + others, "The trees are not current");
  }

  // Microseconds of processor time for an event, from the change to the acknowledgement.
  double event(int times) {
    const double begin = clockTime();
    for (int i = 0; i < times; ++i) {
      now_ += microseconds(1);  // which is what changes
      change();
      serveReporter(members_.front());
      deliver();
      serveCollector();
    }
    return (clockTime() - begin) / times;
  }

  // What the heartbeat of the reporter with many roots takes while nothing comes or goes.
  Json heartbeat() {
    pass(seconds(40));
    now_ += seconds(30);
    const double before = clockTime();
    serveReporter(members_.front());
    const double reporter = clockTime() - before;
    std::size_t bytes = 0;
    for (const Sent& sent : sent_) bytes += sent.message.topic.size() + sent.message.payload.size();
    const double begin = clockTime();
    deliver();
    return {{"bytes", bytes}, {"reporter", reporter}, {"collector", clockTime() - begin}};
  }

  // The longest step, in microseconds, of each side while that is going on.
  Json longest(const std::function<void()>& action) {
    longest_ = {};
    isTimed_ = true;
    action();
    isTimed_ = false;
    return {longest_.first, longest_.second};
  }
  Json atStart() const { return atStart_; }

  void events(int times) {
    for (int i = 0; i < times; ++i) {
      change();
      now_ += milliseconds(1);
      exchange();
    }
  }
  void pass(seconds time) {
    for (const Time end = now_ + time; now_ < end; now_ += milliseconds(100)) exchange();
  }
  void reconnectReporter() {
    Member& member = members_.front();
    act([&] { member.reporter.disconnected(now_); });
    connect(member);
    pass(seconds(5));
  }
  void reconnectCollector() {
    collect([this] { collector_.disconnected(now_); });
    inbox_.isNew = true;
    collect([this] { collector_.connected(inbox_, now_); });
    pass(seconds(5));
  }
  void remove(std::size_t roots) {
    for (std::size_t i = 0; i < roots; ++i) {
      act([&] { members_.front().reporter.remove(plant_.tree(i)->getDeviceId()); });
    }
    pass(seconds(5));
  }

 private:
  struct Member final : Link {
    Member(Crowd& owner, std::size_t number)
        : crowd(owner), name("bench-" + std::to_string(number)), reporter(name, {{}, fail}) {}

    void subscribe(const std::vector<std::string>& /*topics*/, Kept /*kept*/) override {
      isNew = true;
    }
    std::uint64_t publish(const Message& message) override {
      crowd.sent_.push_back({this, ++published, message});
      return published;
    }

    Crowd& crowd;
    std::string name;
    Reporter reporter;
    std::uint64_t published = 0;
    bool isNew = false;  // and gets what the broker has kept of it
  };

  // The collector's link: requests go to their reporters.
  struct Inbox final : Link {
    explicit Inbox(Crowd& owner) : crowd(owner) {}

    void subscribe(const std::vector<std::string>& /*topics*/, Kept /*kept*/) override {}
    std::uint64_t publish(const Message& message) override {
      crowd.asked_.push_back(message);
      return ++published;
    }

    Crowd& crowd;
    std::uint64_t published = 0;
    bool isNew = false;
  };

  struct Sent {
    Member* member;
    std::uint64_t number;
    Message message;
  };

  void start(std::size_t roots, std::size_t others) {
    collect([this] { collector_.connected(inbox_, now_); });
    for (std::size_t i = 0; i <= others; ++i) members_.emplace_back(*this, i);
    for (std::size_t i = 0; i < roots; ++i) change();
    for (std::size_t i = 0; i < others; ++i) {
      members_[i + 1].reporter.report(small_.change(now_));
    }
    // As it is for whoever reads devices for the first time, the links come last.
    for (Member& member : members_) connect(member);
    pass(seconds(5));
  }

  void change() {
    const NodePtr& tree = plant_.change(now_);
    act([&] { members_.front().reporter.report(tree); });
  }

  void connect(Member& member) {
    act([&] {
      member.reporter.connecting();
      member.reporter.connected(member, now_);
    });
  }

  void step(double& longest, const std::function<void()>& action) {
    if (!isTimed_) return action();  // to ask the clock takes longer than many a step
    const double begin = clockTime();
    action();
    longest = std::max(longest, clockTime() - begin);
  }
  void act(const std::function<void()>& action) { step(longest_.first, action); }
  void collect(const std::function<void()>& action) { step(longest_.second, action); }

  // Whether it has more to do at once.
  bool serveReporter(Member& member) {
    Time due;
    act([&] { due = member.reporter.serve(now_); });
    return due <= now_;
  }
  void serveCollector() {
    Time due = now_;
    while (due <= now_) collect([&] { due = collector_.serve(now_); });
  }

  void exchange() {
    for (Member& member : members_) {
      if (std::exchange(member.isNew, false)) bringKept(member);
      while (serveReporter(member)) deliver();
    }
    while (!sent_.empty() || !asked_.empty()) {
      for (const Message& message : std::exchange(asked_, {})) hand(message);
      deliver();
      while (serveReporter(members_.front())) deliver();
    }
    if (std::exchange(inbox_.isNew, false)) {
      for (const auto& [topic, message] : kept_) {
        if (topic.find("/state/") == std::string::npos) continue;  // the lists came before
        collect([&, kept = &message] { collector_.received(*kept, now_); });
      }
    }
    serveCollector();
  }

  void bringKept(Member& member) {
    for (const auto& [topic, message] : kept_) {
      if (topic.substr(topic.rfind('/') + 1) != member.name) continue;
      act([&, kept = &message] { member.reporter.received(*kept, now_); });
    }
  }

  void hand(const Message& request) {
    for (Member& member : members_) {
      if (request.topic.substr(request.topic.rfind('/') + 1) != member.name) continue;
      act([&] { member.reporter.received(request, now_); });
      serveReporter(member);
    }
  }

  void deliver() {
    for (auto& [member, number, message] : std::exchange(sent_, {})) {
      const bool isEvent = !message.sequence.empty();
      if (!isEvent && message.isRetained) {
        Message& kept = kept_[message.topic];
        kept = message;
        kept.isRetained = true;
      }
      message.isRetained = false;  // it arrives at once
      const auto deliverTo = [&, sender = member, count = number, news = &message](bool isOwn) {
        if (isOwn) {
          if (!isEvent) sender->reporter.received(*news, now_);
          sender->reporter.settled(count, "", now_);
        } else {
          collector_.received(*news, now_);
        }
      };
      collect([&] { deliverTo(false); });
      act([&] { deliverTo(true); });
    }
  }

  CollectorCallbacks callbacks() {
    const auto changed = [this](const auto& /*root*/, Condition condition) {
      if (condition == Condition::CURRENT) ++current_;
    };
    return {{}, changed, fail};
  }

  Time now_{hours(1)};
  Plant plant_;
  Plant small_;
  std::deque<Member> members_;
  std::deque<Sent> sent_;
  std::deque<Message> asked_;
  std::map<std::string, Message> kept_;
  bool isTimed_ = false;
  std::pair<double, double> longest_;  // step of the reporters and of the collector
  Json atStart_;
  std::size_t current_ = 0;
  Inbox inbox_{*this};
  Collector collector_{callbacks()};
};

}  // namespace

Json measureCrowd(bool quick) {
  const std::size_t devices = 10;
  const std::size_t roots = quick ? 10'000 : 100'000;
  Crowd few(1000, devices, 0);
  Crowd many(roots, devices, quick ? 200 : 2000);
  Json result{{"roots", roots}, {"devices", devices}, {"others", quick ? 200 : 2000}};
  result["steps"]["start"] = many.atStart();
  for (int round = 0; round < (quick ? 3 : 7); ++round) {
    result["events"].push_back({few.event(10'000), many.event(10'000)});
    result["heartbeats"].push_back(many.heartbeat());
  }
  const auto longest = [&](const char* name, const std::function<void()>& action) {
    result["steps"][name] = many.longest(action);
  };
  longest("events", [&] { many.events(quick ? 1000 : 5000); });
  longest("heartbeats", [&] { many.pass(seconds(61)); });
  longest("removal", [&] { many.remove(roots / 100); });
  longest("reporter_again", [&] { many.reconnectReporter(); });
  longest("collector_again", [&] { many.reconnectCollector(); });
  return result;
}

}  // namespace bench
