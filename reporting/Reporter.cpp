#include "reporting/Reporter.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Topics.h"

namespace orv::reporting {

namespace monitoring = orv::proto::monitoring;

namespace {

constexpr std::size_t mostOnTheirWay = 1000;
constexpr std::chrono::seconds firstPause(5);  // after a refusal
constexpr std::chrono::minutes longestPause(10);
constexpr Time again = Time::min();  // before what is due otherwise
constexpr const char* endsConnection = "It ends the connection";
constexpr std::size_t largestWill = 65'000;  // bytes; MQTT gives it two bytes for its length

}  // namespace

class Reporter::State {
 public:
  State(std::string name, std::function<void(const std::string&)> problem,
        const ReporterOptions& options)
      : name_(std::move(name)),
        problem_(std::move(problem)),
        options_(options),
        topics_(options.prefix),
        random_(options.seed),
        start_(random_()) {
    if (name_.empty()) throw std::invalid_argument("A reporter needs a name");
  }

  void report(const Tree& live);
  void remove(const std::string& id);
  bool isSettled() const noexcept;

  Message connecting();
  void connected(Link& link);
  void disconnected(Time now);
  void settled(int number, const std::string& refusal, Time now);
  void received(const Message& message);
  Time serve(Time now);

 private:
  struct Root {
    explicit Root(Sender newSender) : sender(std::move(newSender)) {}

    Sender sender;
    Tree live;               // empty: the root is to be removed
    bool isChanged = false;  // since its last event was made, or that was refused
    bool isOnItsWay = false;
    std::string problem;            // that was told last
    std::chrono::seconds pause{0};  // after the last refusal
    Time tryAgain = Time::min();
    std::optional<Time> due;  // in due_
  };

  Root& takeUp(const std::string& id);
  void lookAt(const std::string& id, Root& root, Time due);
  Time soon() { return again + Time::duration(++turns_); }  // each after the ones before it
  void refuseState(const std::string& reason);
  void refuse(const std::string& id, Root& root, const std::string& reason, Time now);
  void takeTurns(Time now);
  void publishNext(const std::string& id, Time now);
  Message state(bool isOnline) const;
  void receiveRequest(const Message& message);
  void receiveState(const Message& message);
  void saySoon() { stateDue_ = std::min(stateDue_, lastState_ + std::chrono::seconds(1)); }
  std::size_t inFlight() const { return onTheirWay_.size() + (stateOnItsWay_ ? 1 : 0); }
  void endRetry() {
    retried_.reset();
    isAlone_ = false;
  }
  bool isFull() const { return inFlight() >= (isAlone_ ? 1 : window_); }

  std::string name_;
  std::function<void(const std::string&)> problem_;
  ReporterOptions options_;
  Topics topics_;
  std::mt19937_64 random_;
  std::uint64_t start_;
  std::uint64_t connection_ = 0;
  Link* link_ = nullptr;
  std::map<std::string, Root> roots_;
  std::set<std::pair<Time, std::string>> due_;  // roots to look at
  Time::rep turns_ = mostOnTheirWay;            // those before are of what goes out again
  std::map<int, std::string> onTheirWay_;       // roots by the number of what was published
  std::optional<int> stateOnItsWay_;
  // A broker that refuses an event may end the connection too, with the answer to it and to others.
  // So what was on its way then goes out again in its order, one message at first, then two, four;
  // and an event that was refused is tried again with no other on its way.
  std::size_t window_ = mostOnTheirWay;
  bool isSuspicious_ = false;
  std::optional<std::string> retried_;  // the refused root whose turn it is to be tried again
  bool isAlone_ = false;                // it is on its way, or waits for the others to be taken
  Time lastState_;
  Time stateDue_;
  std::string stateProblem_;            // that was told last
  std::optional<std::uint64_t> rival_;  // start of a second process of this name
};

Reporter::State::Root& Reporter::State::takeUp(const std::string& id) {
  const auto known = roots_.find(id);
  if (known != roots_.end()) return known->second;
  stateDue_ = Time::min();
  return roots_.emplace(id, Sender(random_(), options_.treePause)).first->second;
}

void Reporter::State::lookAt(const std::string& id, Root& root, Time due) {
  due = std::max(due, root.tryAgain);
  if (root.due && *root.due <= due) return;
  if (root.due) due_.erase({*root.due, id});
  root.due = due;
  due_.emplace(due, id);
}

void Reporter::State::report(const Tree& live) {
  Root& root = takeUp(live->getDeviceId());
  root.live = live;
  root.isChanged = true;
  lookAt(live->getDeviceId(), root, soon());
}

void Reporter::State::remove(const std::string& id) {
  const auto root = roots_.find(id);
  if (root == roots_.end()) return;
  root->second.live.reset();
  root->second.isChanged = true;
  lookAt(id, root->second, soon());
}

bool Reporter::State::isSettled() const noexcept {
  return std::all_of(roots_.begin(), roots_.end(), [](const auto& entry) {
    const Root& root = entry.second;
    return root.live && !root.isChanged && root.sender.onItsWay() == nullptr;
  });
}

Message Reporter::State::connecting() {
  ++connection_;
  return state(false);
}

void Reporter::State::connected(Link& link) {
  link_ = &link;
  stateDue_ = Time::min();
  window_ = isSuspicious_ ? 1 : mostOnTheirWay;
  link_->subscribe({topics_.request(name_), topics_.reporter(name_)});
}

void Reporter::State::disconnected(Time now) {
  link_ = nullptr;
  // A state may be on its way, too. The one that began this connection was answered.
  const bool isCulprit =
      onTheirWay_.size() == 1 && (window_ == 1 || onTheirWay_.begin()->second == retried_);
  if (onTheirWay_.empty() && stateOnItsWay_ && window_ == 1) refuseState(endsConnection);
  isSuspicious_ = inFlight() > 0;
  Time turn = again;
  for (const auto& [number, id] : onTheirWay_) {
    Root& root = roots_.at(id);
    root.isOnItsWay = false;
    root.sender.interrupted();
    if (isCulprit) {
      refuse(id, root, root.pause.count() > 0 ? root.problem : endsConnection, now);
    } else {
      lookAt(id, root, turn += Time::duration(1));
    }
  }
  onTheirWay_.clear();
  endRetry();
  stateOnItsWay_.reset();
}

void Reporter::State::settled(int number, const std::string& refusal, Time now) {
  if (number == stateOnItsWay_) {
    stateOnItsWay_.reset();
    return refuseState(refusal);
  }
  const std::string id = onTheirWay_.at(number);
  onTheirWay_.erase(number);
  Root& root = roots_.at(id);
  root.isOnItsWay = false;
  if (id == retried_) endRetry();
  if (!refusal.empty()) {
    refuse(id, root, refusal, now);
  } else {
    window_ = std::min(window_ + 1, mostOnTheirWay);
    root.problem.clear();
    root.pause = {};
    root.tryAgain = Time::min();
    if (root.sender.onItsWay() != nullptr) {
      root.sender.taken();
    } else if (!root.live) {  // the broker has forgotten the tree
      if (root.due) due_.erase({*root.due, id});
      roots_.erase(id);
      stateDue_ = Time::min();
      return;
    }
    if (root.isChanged || !root.live) lookAt(id, root, soon());
  }
  if (const auto treeDue = root.sender.treeDue()) lookAt(id, root, *treeDue);
}

void Reporter::State::refuseState(const std::string& reason) {
  if (!reason.empty() && reason != stateProblem_) {
    problem_("The broker refuses the state of " + name_ + ": " + reason);
  }
  stateProblem_ = reason;
}

void Reporter::State::refuse(const std::string& id, Root& root, const std::string& reason,
                             Time now) {
  root.sender.refused();
  root.isChanged = true;
  root.pause = std::clamp<std::chrono::seconds>(2 * root.pause, firstPause, longestPause);
  root.tryAgain = now + root.pause;
  if (root.due) due_.erase({*root.due, id});
  root.due.reset();
  lookAt(id, root, root.tryAgain);
  if (reason != root.problem) problem_("The broker refuses " + id + ": " + reason);
  root.problem = reason;
}

void Reporter::State::received(const Message& message) {
  if (message.topic == topics_.request(name_)) receiveRequest(message);
  if (message.topic == topics_.reporter(name_)) receiveState(message);
}

Time Reporter::State::serve(Time now) {
  if (link_ == nullptr) return Time::max();
  if (stateDue_ <= now && !stateOnItsWay_) {
    stateOnItsWay_ = link_->publish(state(true));
    lastState_ = now;
    stateDue_ = now + options_.heartbeat;
  }
  takeTurns(now);
  while (!isFull() && !due_.empty() && due_.begin()->first <= now) {
    const std::string id = due_.begin()->second;
    due_.erase(due_.begin());
    Root& root = roots_.at(id);
    root.due.reset();
    if (root.pause.count() > 0) {
      retried_ = id;
      isAlone_ = true;
      if (inFlight() > 0) {
        root.tryAgain = again;
        lookAt(id, root, again);
        break;
      }
    }
    publishNext(id, now);
    if (id == retried_ && !root.isOnItsWay) endRetry();
  }
  if (inFlight() == 0) window_ = mostOnTheirWay;  // what an earlier connection lost is settled
  const Time next = stateOnItsWay_ ? Time::max() : stateDue_;
  return isFull() || due_.empty() ? next : std::min(next, due_.begin()->first);
}

// What waited for a time that has come goes out after what waits for its turn already, but not
// after what changes from now on. Of the refused roots one at a time: the others wait for it
// meanwhile.
void Reporter::State::takeTurns(Time now) {
  std::vector<std::string> ids;
  for (auto next = due_.lower_bound({Time(), ""}); next != due_.end() && next->first <= now;
       ++next) {
    const std::string& id = next->second;
    const bool wasRefused = roots_.at(id).pause.count() > 0;
    if (wasRefused && retried_) continue;
    if (wasRefused) retried_ = id;
    ids.push_back(id);
  }
  for (const std::string& id : ids) {
    Root& root = roots_.at(id);
    root.tryAgain = again;
    lookAt(id, root, soon());
  }
}

void Reporter::State::publishNext(const std::string& id, Time now) {
  Root& root = roots_.at(id);
  if (root.isOnItsWay) return;
  Message message;
  message.topic = topics_.event(id);
  const Publication* publication = root.sender.onItsWay();
  std::string refusal;
  if (publication == nullptr) {
    publication = root.sender.next(root.live, now, refusal);
    root.isChanged = !refusal.empty();
  }
  if (publication != nullptr) {
    message.isRetained = isWholeTree(publication->event);
    message.sequence = publication->sequence.text();
    if (!publication->event.SerializeToString(&message.payload)) {
      refusal = "The event has more than 2 GiB";
      root.sender.refused();
    }
  } else {
    message.isRetained = true;  // the broker shall forget the tree, if there is none any more
  }
  if (!refusal.empty()) {
    if (refusal != root.problem) problem_("Cannot report " + id + ": " + refusal);
    root.problem = refusal;
    root.pause = {};
  } else if (publication != nullptr || !root.live) {
    onTheirWay_.emplace(link_->publish(message), id);
    root.isOnItsWay = true;
  } else {
    root.problem.clear();
    root.pause = {};
    if (const auto treeDue = root.sender.treeDue()) lookAt(id, root, *treeDue);
  }
}

Message Reporter::State::state(bool isOnline) const {
  monitoring::ReporterState state;
  state.set_start(start_);
  state.set_connection(connection_);
  state.set_online(isOnline);
  for (const auto& [id, root] : roots_) {
    const Sequence& last = root.sender.last();
    if (!root.live && last.n == 0 && root.sender.onItsWay() == nullptr) continue;
    monitoring::RootState& entry = *state.add_roots();
    entry.set_root(id);
    entry.set_epoch(last.epoch);
    entry.set_n(last.n);
  }
  if (!isOnline && state.ByteSizeLong() > largestWill) state.clear_roots();
  Message message;
  message.topic = topics_.reporter(name_);
  state.SerializeToString(&message.payload);
  message.isRetained = true;
  return message;
}

void Reporter::State::receiveRequest(const Message& message) {
  monitoring::TreeRequest request;
  if (!request.ParseFromString(message.payload)) {
    problem_("A request to " + name_ + " cannot be read");
    return;
  }
  for (const std::string& id : request.roots()) {
    const auto root = roots_.find(id);
    if (root == roots_.end()) continue;
    root->second.sender.requestTree();
    lookAt(id, root->second, *root->second.sender.treeDue());
  }
  if (request.roots().empty()) saySoon();
}

void Reporter::State::receiveState(const Message& message) {
  monitoring::ReporterState state;
  if (!state.ParseFromString(message.payload)) {
    problem_("A state of " + name_ + " cannot be read");
    saySoon();
    return;
  }
  const bool isOwn = state.start() == start_;
  if (!state.online()) {  // the will of a connection that ended earlier
    saySoon();
  } else if (!isOwn && !message.isRetained && rival_ != state.start()) {
    rival_ = state.start();
    problem_("Another process reports under the name " + name_);
  }
  // Of an earlier process of this name that is gone, or of this one before the broker lost what
  // came after it: roots that are not there now shall not stay.
  if (isOwn ? !message.isRetained : state.online()) return;
  for (const auto& earlier : state.roots()) {
    if (roots_.count(earlier.root()) == 0) lookAt(earlier.root(), takeUp(earlier.root()), soon());
  }
}

Reporter::Reporter(std::string name, std::function<void(const std::string&)> problem,
                   const ReporterOptions& options)
    : state_(std::make_unique<State>(std::move(name), std::move(problem), options)) {}

Reporter::~Reporter() = default;

void Reporter::report(const Tree& live) { state_->report(live); }

void Reporter::remove(const std::string& root) { state_->remove(root); }

bool Reporter::isSettled() const noexcept { return state_->isSettled(); }

std::optional<Message> Reporter::connecting() { return state_->connecting(); }

void Reporter::connected(Link& link, Time /*now*/) { state_->connected(link); }

void Reporter::disconnected(Time now) { state_->disconnected(now); }

void Reporter::settled(int number, const std::string& refusal, Time now) {
  state_->settled(number, refusal, now);
}

void Reporter::received(const Message& message, Time /*now*/) { state_->received(message); }

Time Reporter::serve(Time now) { return state_->serve(now); }

}  // namespace orv::reporting
