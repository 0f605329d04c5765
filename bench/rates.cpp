#include <malloc.h>
#include <mosquitto.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <set>
#include <stdexcept>
#include <vector>

#include "Bare.h"
#include "Fleet.h"
#include "Plant.h"
#include "device_tree/Utils.h"
#include "reporting/Collector.h"
#include "reporting/Connection.h"

namespace bench {

namespace {

using namespace orv::reporting;
using namespace std::chrono;
using Json = nlohmann::json;
using orv::device_tree::utils::EventHelper;
using orv::proto::monitoring::StatusChangeEvent;

void fail(const std::string& problem) { throw std::runtime_error(problem); }
void tell(const Problem& problem) { fail(problem.text); }
void log(const std::string& text) { std::cerr << text << '\n'; }

double sinceMilliseconds(Time due) {
  return duration<double, std::milli>(steady_clock::now() - due).count();
}

// Who receives what a sender sends at the rate that it is told.
class Receiver {
 public:
  virtual ~Receiver() = default;

  virtual void serve(milliseconds duration) = 0;
  virtual std::uint64_t gaps() const { return 0; }
  virtual std::uint64_t requests() const { return 0; }

  // Has the sender send at that rate and says what arrived.
  Json run(const Child& sender, pid_t broker, double rate, milliseconds length) {
    delays_.clear();
    statuses_ = 0;
    const std::uint64_t gapsBefore = gaps();
    const std::uint64_t requestsBefore = requests();
    const std::vector<pid_t> processes = {sender.process(), broker, getpid()};
    std::vector<double> times;
    for (const pid_t process : processes) times.push_back(processorTime(process));
    sender.write(1e9 / rate);
    const Time begin = steady_clock::now();
    serve(length);
    const double time = duration<double>(steady_clock::now() - begin).count();
    const auto events = static_cast<double>(delays_.size());
    if (delays_.empty()) fail("No events arrive");
    Json cost;
    for (std::size_t i = 0; i < processes.size(); ++i) {
      cost.push_back(1e6 * (processorTime(processes[i]) - times[i]) / events);
    }
    Json result{{"rate", rate}, {"events", events / time}, {"statuses", statuses_ / time}};
    result["cost"] = cost;  // microseconds of sender, broker and receiver for each event
    sender.write(0);
    std::size_t arrived = 0;
    do {  // what is still on its way
      arrived = delays_.size();
      serve(milliseconds(300));
    } while (arrived != delays_.size());
    std::sort(delays_.begin(), delays_.end());
    result["median"] = delays_[delays_.size() / 2];
    result["percentile"] = delays_[delays_.size() * 99 / 100];
    result["gaps"] = gaps() - gapsBefore;
    result["requests"] = requests() - requestsBefore;
    result["holds"] =
        result["gaps"] == 0 && result["percentile"] <= 1000 && result["events"] >= 0.95 * rate;
    return result;
  }

 protected:
  std::vector<double> delays_;  // of the events of a run, in milliseconds
  double statuses_ = 0;         // that changed
};

class CollectorReceiver final : public Receiver {
 public:
  explicit CollectorReceiver(const std::string& broker)
      : collector_(callbacks()), connection_(Broker::parse(broker), collector_, log) {
    await([this] { return connection_.isConnected(); });
  }

  void serve(milliseconds duration) override { connection_.serve(duration); }
  std::uint64_t gaps() const override {
    return collector_.counters().outcomes.at(static_cast<std::size_t>(Follower::Outcome::GAP));
  }
  std::uint64_t requests() const override { return collector_.counters().requests; }

  void awaitCurrent(std::size_t roots) {
    await([this, roots] { return current_.size() == roots; });
  }

 private:
  CollectorCallbacks callbacks() {
    const auto applied = [this](const auto& /*root*/, const orv::reporting::Step& step) {
      if (isWholeTree(step.event)) return;
      const auto& uptime = step.after->getStatus("uptime")->getValue();
      delays_.push_back(sinceMilliseconds(Time(nanoseconds(boost::get<unsigned long>(uptime)))));
      statuses_ += step.event.GetExtension(StatusChangeEvent::base).named_status_changes_size();
    };
    const auto changed = [this](const std::string& root, Condition condition) {
      if (condition == Condition::CURRENT) current_.insert(root);
      if (condition != Condition::CURRENT) current_.erase(root);
    };
    return {applied, changed, tell};
  }

  void await(const std::function<bool()>& isDone) {
    const Time end = steady_clock::now() + minutes(2);
    while (!isDone()) {
      if (steady_clock::now() > end) fail("The fleet does not become current");
      connection_.serve(milliseconds(1));
    }
  }

  std::set<std::string> current_;
  Collector collector_;
  Connection connection_;
};

class BareReceiver final : public Receiver {
 public:
  explicit BareReceiver(std::uint16_t port)
      : client_(port, [this](const mosquitto_message& message) {
          Time due;
          std::memcpy(&due, message.payload, sizeof due);
          delays_.push_back(sinceMilliseconds(due));
        }) {
    client_.subscribe("orv/1/event/+/+");
  }

  void serve(milliseconds duration) override {
    const Time end = steady_clock::now() + duration;
    while (steady_clock::now() < end) client_.serve(1);
  }

 private:
  BareClient client_;
};

// What the bare sender does: messages of so many bytes, whose first ones say when each was due.
void sendBare(std::uint16_t port, std::size_t roots, std::size_t bytes, int control) {
  BareClient client(port);
  std::vector<std::string> topics;
  for (std::size_t i = 0; i < roots; ++i) {
    topics.push_back("orv/1/event/" + std::to_string(i % 1024) + "/" + numbered("root-", i));
  }
  std::string payload(bytes, 'x');
  nanoseconds pause(0);
  Time due;
  double told = 0;
  std::size_t sent = 0;
  while (const auto length = recv(control, &told, sizeof told, MSG_DONTWAIT)) {
    const Time now = steady_clock::now();
    if (length > 0) {
      due = now;
      pause = nanoseconds(std::llround(told));
    }
    for (; pause.count() > 0 && due <= now && client.onTheirWay() < 1000; due += pause) {
      std::memcpy(payload.data(), &due, sizeof due);
      client.publish(topics[sent++ % roots], payload);
    }
    client.serve(1);
  }
}

std::size_t bytesOfEvent(std::size_t devices, std::size_t statuses) {
  Plant plant(1, devices, statuses);
  Tree snapshot;
  Event event;
  std::string error;
  EventHelper::ComputeEvent(snapshot, plant.tree(0), event);
  require(EventHelper::ApplyEvent(event, snapshot, error), error);
  plant.change(steady_clock::now());
  event.Clear();
  EventHelper::ComputeEvent(snapshot, plant.tree(0), event);
  return event.ByteSizeLong();
}

// What trees and snapshots take that a reporter has, in a process that has nothing else.
double bytesOfTrees(std::size_t roots, std::size_t devices, std::size_t statuses) {
  const Child child([&](int control) {
    malloc_trim(0);  // else the trees take memory that this process has freed
    const double before = residentBytes(getpid());
    const Plant plant(roots, devices, statuses);
    std::vector<Tree> snapshots(roots);
    for (std::size_t i = 0; i < roots; ++i) {
      Event event;
      std::string error;
      EventHelper::ComputeEvent(nullptr, plant.tree(i), event);
      require(EventHelper::ApplyEvent(event, snapshots[i], error), error);
    }
    const double bytes = residentBytes(getpid()) - before;
    send(control, &bytes, sizeof bytes, 0);
  });
  return child.read();
}

// The highest rate that holds, by halving the way between one that does and one that does not. What
// else runs on the machine can spoil a run, so that each rate is tried twice.
Json highest(const std::function<Json(double rate)>& once, double step) {
  const auto run = [&once](double rate) {
    Json result = once(rate);
    return result["holds"] ? result : once(rate);
  };
  double rate = 4000;
  Json best;
  Json tooHigh;
  while (tooHigh.is_null()) {
    Json result = run(rate);
    if (result["holds"]) {
      best = result;
      rate *= 2;
    } else if (best.is_null()) {
      rate /= 2;
    } else {
      tooHigh = result;
    }
    if (rate < 100) fail("No rate holds");
  }
  while (tooHigh["rate"] > step * best["rate"].get<double>()) {
    Json result = run(std::sqrt(best["rate"].get<double>() * tooHigh["rate"].get<double>()));
    (result["holds"] ? best : tooHigh) = result;
  }
  return {{"highest", best}, {"too_high", tooHigh}};
}

Json measurePair(const std::string& settings, std::size_t devices, std::size_t statuses,
                 bool quick) {
  const std::size_t roots = 1000;
  const milliseconds length(quick ? 1000 : 2000);
  const double step = quick ? 1.3 : 1.05;
  Json result{{"devices", devices}, {"bytes", bytesOfEvent(devices, statuses)}};
  {
    BrokerProcess broker(settings);
    const Child sender([&](int control) {
      sendBare(broker.port(), roots, result["bytes"].get<std::size_t>(), control);
    });
    BareReceiver receiver(broker.port());
    const auto run = [&](double rate) {
      return receiver.run(sender, broker.process(), rate, length);
    };
    result["bare"] = highest(run, step);
  }
  BrokerProcess broker(settings);
  const Fleet fleet{roots, devices, 1, statuses};
  const Child sender([&](int control) { report(broker.url(), fleet, control); });
  sender.read();
  CollectorReceiver receiver(broker.url());
  const double empty = residentBytes(getpid());
  sender.write(0);
  const Time begin = steady_clock::now();
  receiver.awaitCurrent(roots);
  result["start"] = duration<double>(steady_clock::now() - begin).count();
  const auto run = [&](double rate) {
    return receiver.run(sender, broker.process(), rate, length);
  };
  result["base"] = receiver.run(sender, broker.process(), 1000, quick ? seconds(3) : seconds(10));
  result["collector"] = residentBytes(getpid());
  result["root"] = (residentBytes(getpid()) - empty) / static_cast<double>(roots);
  result["reporter"] = residentBytes(sender.process());
  result["trees"] = bytesOfTrees(roots, devices, statuses);
  result.update(highest(run, step));
  result["half"] = run(result["highest"]["rate"].get<double>() / 2);
  return result;
}

}  // namespace

Json measureRates(const std::string& settings, bool quick) {
  return {measurePair(settings, 100, 8, quick), measurePair(settings, 10, 1, quick)};
}

}  // namespace bench
