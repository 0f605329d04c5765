#include <mosquitto.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "Bare.h"
#include "Fleet.h"
#include "device_tree/Utils.h"
#include "reporting/Collector.h"
#include "reporting/Connection.h"

namespace bench {

namespace {

using namespace orv::reporting;
using namespace std::chrono;
using Json = nlohmann::json;

void log(const std::string& text) { std::cerr << text << '\n'; }

double secondsSince(Time begin) { return duration<double>(steady_clock::now() - begin).count(); }

// A collector that one event does not reach when it is told so, and what that costs.
class Observer final : public Endpoint, private Link {
 public:
  Observer(const std::string& broker, std::size_t roots)
      : roots_(roots), collector_(callbacks()), connection_(Broker::parse(broker), *this, log) {}

  void serve(milliseconds duration) { connection_.serve(duration); }
  bool areAllCurrent() const { return current_.size() == roots_; }

  void awaitCurrent() {
    await([this] { return areAllCurrent(); });
  }

  void await(const std::function<bool()>& isDone) {
    const Time end = steady_clock::now() + minutes(1);
    while (!isDone()) {
      if (steady_clock::now() > end) throw std::runtime_error("The fleet does not become current");
      serve(milliseconds(1));
    }
  }

  // Loses the next event and says what came of it.
  Json lose() {
    loss_ = {};
    loss_.isWanted = true;
    await([this] { return loss_.lost != Time() && loss_.repaired != Time(); });
    const auto between = [](Time from, Time to) { return duration<double>(to - from).count(); };
    return {{"since_lost", between(loss_.lost, loss_.repaired)},
            {"since_noticed", between(loss_.noticed, loss_.repaired)},
            {"bytes", loss_.bytes},
            {"repair_bytes", loss_.repairBytes}};
  }

  std::optional<Message> connecting() override { return collector_.connecting(); }
  void connected(Link& link, Time now) override {
    link_ = &link;
    collector_.connected(*this, now);
  }
  void disconnected(Time now) override { collector_.disconnected(now); }
  void settled(std::uint64_t number, const std::string& refusal, Time now) override {
    collector_.settled(number, refusal, now);
  }
  void received(const Message& message, Time now) override {
    const auto sequence = Sequence::parse(message.sequence);
    const std::size_t bytes = message.topic.size() + message.payload.size();
    if (loss_.isWanted && sequence && isNext(message, *sequence)) {
      loss_.isWanted = false;
      loss_.lost = now;
      loss_.topic = message.topic;
      loss_.latest = sequence->n;
      loss_.bytes = bytes;
      return;
    }
    const bool isOfLoss = sequence && message.topic == loss_.topic;
    const bool isLater = isOfLoss && sequence->n >= loss_.latest;
    if (isOfLoss) {
      if (sequence->n <= loss_.latest) loss_.repairBytes += bytes;
      loss_.latest = std::max(loss_.latest, sequence->n);
    }
    collector_.received(message, now);
    // A whole tree came next, or what was lost came once more for somebody else.
    if (isLater && loss_.noticed == Time()) loss_.noticed = loss_.repaired = now;
  }
  Time serve(Time now) override { return collector_.serve(now); }

 private:
  struct Loss {
    bool isWanted = false;
    std::string topic;
    std::uint64_t latest = 0;
    std::size_t bytes = 0;
    std::size_t repairBytes = 0;  // of requests and of what comes again
    Time lost;
    Time noticed;
    Time repaired;
  };

  // What came before is not missed, and a whole tree misses nothing.
  bool isNext(const Message& message, const Sequence& sequence) const {
    const auto root = topics_.rootOf(message.topic);
    const auto view = root ? collector_.view(*root) : std::nullopt;
    Event event;
    return view && view->sequence.epoch == sequence.epoch && view->sequence.n + 1 == sequence.n &&
           event.ParseFromString(message.payload) && !isWholeTree(event);
  }

  CollectorCallbacks callbacks() {
    const auto changed = [this](const std::string& root, Condition condition) {
      const bool isCurrent = condition == Condition::CURRENT;
      if (isCurrent) current_.insert(root);
      if (!isCurrent) current_.erase(root);
      if (loss_.topic.empty() || topics_.event(root) != loss_.topic) return;
      (isCurrent ? loss_.repaired : loss_.noticed) = steady_clock::now();
    };
    const auto problem = [](const Problem& told) { throw std::runtime_error(told.text); };
    return {{}, changed, problem};
  }

  void subscribe(const std::vector<std::string>& topics, Kept kept) override {
    link_->subscribe(topics, kept);
  }
  std::uint64_t publish(const Message& message) override {
    loss_.repairBytes += message.topic.size() + message.payload.size();
    return link_->publish(message);
  }

  Topics topics_{"orv/1"};
  std::size_t roots_;
  std::set<std::string> current_;
  Loss loss_;
  Link* link_ = nullptr;
  Collector collector_;
  Connection connection_;
};

// What a process of its own measures. The heap of one that has held trees would be slow.
Json inChild(const std::function<Json()>& measure) {
  const Child child([&measure](int control) {
    const std::string text = measure().dump();
    send(control, text.data(), text.size(), 0);
  });
  std::string text;
  std::array<char, 4096> part{};
  while (const auto length = recv(child.control(), part.data(), part.size(), 0)) {
    if (length < 0) throw std::runtime_error("A process has ended");
    text.append(part.data(), static_cast<std::size_t>(length));
  }
  return Json::parse(text);
}

// Seconds in which the broker hands over the trees that it has kept to a client that counts them,
// or that builds them too.
double timeOfTrees(std::uint16_t port, std::size_t roots, bool builds) {
  const Time begin = steady_clock::now();
  std::vector<Tree> trees;
  std::string refusal;
  BareClient client(port, [&](const mosquitto_message& message) {
    if (!message.retain) return;
    Tree& tree = trees.emplace_back();
    if (!builds) return;
    Event event;
    event.ParseFromArray(message.payload, message.payloadlen);
    orv::device_tree::utils::EventHelper::ApplyEvent(event, tree, refusal);
  });
  client.subscribe("orv/1/event/+/+");
  while (trees.size() < roots) client.serve(10);
  return secondsSince(begin);
}

double timeOfCollector(const std::string& broker, std::size_t roots) {
  const Time begin = steady_clock::now();
  Observer observer(broker, roots);
  observer.awaitCurrent();
  return secondsSince(begin);
}

Json measureLosses(const std::string& broker, std::size_t roots, int times) {
  Observer observer(broker, roots);
  observer.awaitCurrent();
  Json losses;
  for (int i = 0; i < times; ++i) losses.push_back(observer.lose());
  return losses;
}

// The time from the new start of the broker, for a collector that was there before and for one
// that was not.
Json measureForgetfulBroker(BrokerProcess& broker, std::size_t roots) {
  const Child old([&](int control) {
    Observer observer(broker.url(), roots);
    double now = 0;
    const auto tell = [&] {
      observer.awaitCurrent();
      now = secondsSince({});
      send(control, &now, sizeof now, 0);
    };
    tell();
    while (observer.areAllCurrent()) observer.serve(milliseconds(1));
    tell();
  });
  old.read();
  broker.restart();
  const double begin = secondsSince({});
  const Json newcomer = inChild([&] { return timeOfCollector(broker.url(), roots); });
  return {{"old", old.read() - begin}, {"newcomer", newcomer}};
}

// 1 % of all statuses changes each second, by 1,000 events a second.
Json measureFleet(const std::string& settings, std::size_t roots, std::size_t reporters,
                  bool quick) {
  BrokerProcess broker(settings);
  const double rate = std::min<double>(1000, static_cast<double>(roots));
  // The trees that the broker has kept must fit into what it queues for a client.
  const std::size_t devices = roots > 1000 ? 30 : 100;
  const auto statuses = static_cast<double>(8 * devices * roots) / 100 / rate;
  const Fleet fleet{roots, devices, reporters, static_cast<std::size_t>(statuses)};
  const Child sender([&](int control) { report(broker.url(), fleet, control); });
  sender.read();
  sender.write(0);
  const auto timeOfStart = [&] {
    return inChild([&] { return timeOfCollector(broker.url(), roots); });
  };
  const auto timeOfBare = [&](bool builds) {
    return inChild([&, builds] { return timeOfTrees(broker.port(), roots, builds); });
  };
  timeOfStart();
  sender.write(1e9 / rate);
  // Each root goes on, beyond the tree that the broker has kept.
  std::this_thread::sleep_for(seconds(2) + milliseconds(1000 * roots / 1000));
  Json result{{"roots", roots}, {"devices", devices}, {"reporters", reporters}};
  for (int round = 0; round < (quick ? 1 : 3); ++round) {
    result["rounds"].push_back({timeOfBare(false), timeOfBare(true), timeOfStart()});
    // So that the next one is not answered together with it.
    std::this_thread::sleep_for(milliseconds(1500));
  }
  if (roots > 1000) return result;
  result["losses"] = inChild([&] { return measureLosses(broker.url(), roots, quick ? 3 : 10); });
  result["forgotten"] = measureForgetfulBroker(broker, roots);
  return result;
}

}  // namespace

Json measureStarts(const std::string& settings, bool quick) {
  Json result;
  for (const std::size_t roots : {1000, 10000}) {
    for (const std::size_t reporters : {1, 200}) {
      result.push_back(measureFleet(settings, quick ? roots / 10 : roots,
                                    quick ? reporters / 10 + 1 : reporters, quick));
    }
  }
  return result;
}

}  // namespace bench
