#include "collector/Forget.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <stdexcept>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Connection.h"
#include "reporting/Topics.h"

namespace {

using namespace orv::reporting;
using std::chrono::seconds;

// What the broker has kept arrives in one go. When nothing has come for so long, all of it is here.
constexpr seconds quiet(1);

class Forgetter final : public Endpoint {
 public:
  Forgetter(const std::string& prefix, std::string name, bool isForced,
            std::function<void(const std::string&)> log)
      : topics_(prefix), name_(std::move(name)), isForced_(isForced), log_(std::move(log)) {}

  bool isDone() const { return hasBegun_ && onTheirWay_.empty(); }
  // When something was heard or settled.
  Time lastNews() const { return lastNews_; }

  std::optional<Message> connecting() override { return std::nullopt; }

  void connected(Link& link, Time now) override {
    link_ = &link;
    lastNews_ = now;
    hasBegun_ = false;
    link.subscribe(
        {topics_.state(name_), topics_.gone(name_), topics_.rootsOf(name_), topics_.allEvents()},
        Kept::ALWAYS);
  }

  void disconnected(Time /*now*/) override {
    link_ = nullptr;
    onTheirWay_.clear();
  }

  void settled(std::uint64_t number, const std::string& refusal, Time now) override {
    lastNews_ = now;
    const auto entry = onTheirWay_.find(number);
    if (entry == onTheirWay_.end()) return;
    if (!refusal.empty()) {
      throw std::runtime_error("the broker does not clear " + entry->second + ": " + refusal);
    }
    log_("cleared " + entry->second);
    onTheirWay_.erase(entry);
  }

  void received(const Message& message, Time now) override {
    if (hasBegun_) return;
    if (message.isRetained) lastNews_ = now;  // a fleet at work is never quiet
    const auto list = topics_.listOf(message.topic);
    if (message.topic == topics_.state(name_)) {
      isKnown_ = state_.ParseFromString(message.payload) && !message.payload.empty();
    } else if (message.topic == topics_.gone(name_)) {
      will_.ParseFromString(message.payload);
    } else if (list && list->second == name_ && message.isRetained) {
      lists_.insert(message.topic);
    } else if (message.isRetained && Topics::decode(message.reporter) == name_) {
      trees_.insert(message.topic);
    }
  }

  Time serve(Time now) override {
    if (link_ == nullptr || hasBegun_) return Time::max();
    if (now - lastNews_ < quiet) return lastNews_ + quiet;
    if (!isKnown_ && trees_.empty() && lists_.empty()) {
      throw std::runtime_error("the broker knows no reporter '" + name_ + "'");
    }
    const bool isWillOfState =
        will_.start() == state_.start() && will_.connection() >= state_.connection();
    if (state_.online() && !isWillOfState && !isForced_) {
      throw std::runtime_error("the reporter '" + name_ +
                               "' is online: stop it first, or say --force");
    }
    hasBegun_ = true;
    for (const std::string& topic : trees_) clear(topic);
    for (const std::string& topic : lists_) clear(topic);
    // The state last: should this break off, the next attempt finds the reporter again.
    clear(topics_.gone(name_));
    clear(topics_.state(name_));
    return Time::max();
  }

 private:
  void clear(const std::string& topic) {
    Message message;
    message.topic = topic;
    message.isRetained = true;
    onTheirWay_.emplace(link_->publish(message), topic);
  }

  Topics topics_;
  std::string name_;
  bool isForced_;
  std::function<void(const std::string&)> log_;
  Link* link_ = nullptr;
  Time lastNews_;
  bool hasBegun_ = false;
  bool isKnown_ = false;
  orv::proto::monitoring::ReporterState state_;
  orv::proto::monitoring::ReporterState will_;  // of its last connection that broke
  std::set<std::string> trees_;                 // topics of its trees
  std::set<std::string> lists_;                 // and of its lists
  std::map<std::uint64_t, std::string> onTheirWay_;
};

}  // namespace

void forgetReporter(const Broker& broker, const std::string& prefix, const std::string& name,
                    bool isForced, const std::function<void(const std::string&)>& log) {
  Forgetter forgetter(prefix, name, isForced, log);
  Connection connection(broker, forgetter, log);
  const Time begin = std::chrono::steady_clock::now();
  while (!forgetter.isDone()) {
    if (std::chrono::steady_clock::now() > std::max(begin, forgetter.lastNews()) + seconds(30)) {
      throw std::runtime_error("the broker does not answer");
    }
    connection.serve(std::chrono::milliseconds(100));
  }
}
