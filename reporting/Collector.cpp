#include "reporting/Collector.h"

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>

#include "proto/monitoring/reporting.pb.h"

namespace orv::reporting {

namespace monitoring = orv::proto::monitoring;
using std::chrono::milliseconds;

namespace {

// So long a root that was forgotten is known, so that old events do not bring it back.
constexpr std::chrono::hours memory(1);
constexpr std::size_t mostEarlier = 16;

milliseconds draw(std::mt19937_64& random, milliseconds least, milliseconds most) {
  return milliseconds(
      std::uniform_int_distribution<milliseconds::rep>(least.count(), most.count())(random));
}

}  // namespace

class Collector::State {
 public:
  State(CollectorCallbacks callbacks, const CollectorOptions& options);

  std::vector<std::string> roots() const;
  std::optional<View> view(const std::string& id) const;
  const Counters& counters() const noexcept { return counters_; }

  void connected(Link& link, Time now);
  void disconnected(Time now);
  void settled(const std::string& refusal);
  void received(const Message& message, Time now);
  Time serve(Time now);

 private:
  struct Root {
    explicit Root(const std::string& id) : follower(id) {}

    Follower follower;
    std::string reporter;  // empty for none
    std::string rival;     // another reporter of the root, told of
    Condition condition = Condition::FORGOTTEN;
    std::optional<Time> due;             // in due_
    std::chrono::milliseconds pause{0};  // after the last request; zero before the first
    Time since;                          // nobody lists it, or it is forgotten
  };
  struct Peer {
    std::uint64_t start = 0;
    std::uint64_t connection = 0;
    bool isOnline = false;
    bool isConfirmed = false;  // by a sign of life on this connection of the collector
    Time heard;
    Time due;  // of the next request for one
    std::map<std::string, Sequence> roots;
    std::deque<std::uint64_t> earlier;  // starts of processes that had the name before
    std::uint64_t rival = 0;            // one of them that goes on, told of
  };

  void receiveEvent(const std::string& id, const Message& message, Time now);
  void receiveState(const std::string& name, const Message& message, Time now);
  bool accept(const std::string& name, Peer& peer, std::uint64_t start, std::uint64_t connection,
              bool isOnline);
  Root& takeUp(const std::string& id, Time now);
  void list(const std::string& id, const std::string& name, const Peer& peer, Time now);
  void unlist(const std::string& id, const std::string& name, Time now);
  void updateRootsOf(const Peer& peer, Time now);
  void update(const std::string& id, Time now);
  bool canAsk(const Root& root) const;
  Condition conditionOf(const Root& root) const;
  void schedule(const std::string& id, std::optional<Time> due);
  void check(Time now);
  void ask(Time now);
  void send(const std::string& name, const monitoring::TreeRequest& request);
  bool follows(const std::string& id) const;
  void refuse(const std::string& problem);

  CollectorCallbacks callbacks_;
  CollectorOptions options_;
  Topics topics_;
  std::mt19937_64 random_;
  Counters counters_;
  Link* link_ = nullptr;
  std::map<std::string, Root> roots_;
  std::map<std::string, Peer> peers_;
  std::set<std::pair<Time, std::string>> due_;  // roots to look at
  Time nextCheck_;
  unsigned int budget_ = 0;  // requests until then
};

Collector::State::State(CollectorCallbacks callbacks, const CollectorOptions& options)
    : callbacks_(std::move(callbacks)),
      options_(options),
      topics_(options.prefix),
      random_(options.seed) {
  if (options.firstPartition > options.lastPartition ||
      options.lastPartition >= Topics::PARTITIONS) {
    throw std::invalid_argument("There are the partitions 0 to " +
                                std::to_string(Topics::PARTITIONS - 1));
  }
}

std::vector<std::string> Collector::State::roots() const {
  std::vector<std::string> ids;
  for (const auto& [id, root] : roots_) {
    if (root.condition != Condition::FORGOTTEN) ids.push_back(id);
  }
  return ids;
}

std::optional<Collector::View> Collector::State::view(const std::string& id) const {
  const auto entry = roots_.find(id);
  if (entry == roots_.end()) return std::nullopt;
  const Root& root = entry->second;
  if (root.condition == Condition::FORGOTTEN) return std::nullopt;
  return View{root.condition, root.follower.tree(), root.follower.sequence(), root.reporter};
}

void Collector::State::connected(Link& link, Time now) {
  link_ = &link;
  for (auto& [name, peer] : peers_) peer.heard = peer.due = now;
  // The states first: they tell which of the trees that follow are the right ones.
  std::vector<std::string> topics = {topics_.allReporters()};
  if (options_.firstPartition == 0 && options_.lastPartition + 1 == Topics::PARTITIONS) {
    topics.push_back(topics_.allEvents());
  } else {
    for (unsigned int partition = options_.firstPartition; partition <= options_.lastPartition;
         ++partition) {
      topics.push_back(topics_.eventsOf(partition));
    }
  }
  link_->subscribe(topics);
}

void Collector::State::disconnected(Time now) {
  link_ = nullptr;
  for (auto& [name, peer] : peers_) peer.isConfirmed = false;
  for (const auto& [id, root] : roots_) update(id, now);
}

void Collector::State::settled(const std::string& refusal) {
  if (!refusal.empty()) callbacks_.problem("The broker refuses a request for trees: " + refusal);
}

void Collector::State::received(const Message& message, Time now) {
  if (const auto name = topics_.reporterOf(message.topic); name && !name->empty()) {
    receiveState(*name, message, now);
  } else if (const auto id = topics_.rootOf(message.topic); id && follows(*id)) {
    receiveEvent(*id, message, now);
  } else {
    refuse("A message has the topic " + message.topic);
  }
}

Time Collector::State::serve(Time now) {
  if (link_ == nullptr) return Time::max();
  if (nextCheck_ <= now) check(now);
  ask(now);
  if (due_.empty() || budget_ == 0) return nextCheck_;
  return std::min(nextCheck_, due_.begin()->first);
}

void Collector::State::receiveEvent(const std::string& id, const Message& message, Time now) {
  if (message.payload.empty()) {  // the broker forgot the tree
    const auto known = roots_.find(id);
    if (known == roots_.end() || !known->second.reporter.empty()) return;
    known->second.follower.forget();
    update(id, now);
    return;
  }
  const std::optional<Sequence> sequence = Sequence::parse(message.sequence);
  Event event;
  if (!sequence) {
    refuse("An event of " + id + " has the sequence '" + message.sequence + "'");
  } else if (message.payload.size() > options_.mostBytes) {
    refuse("An event of " + id + " has " + std::to_string(message.payload.size()) + " bytes");
  } else if (!event.ParseFromString(message.payload)) {
    refuse("An event of " + id + " cannot be read");
  } else {
    Root& root = takeUp(id, now);
    std::string refusal;
    const Follower::Outcome outcome = root.follower.take(*sequence, event, refusal);
    ++counters_.outcomes.at(static_cast<std::size_t>(outcome));
    if (outcome == Follower::Outcome::REFUSED) {
      callbacks_.problem("An event of " + id + " is refused: " + refusal);
    }
    if (outcome == Follower::Outcome::APPLIED) {
      callbacks_.applied(id, event, root.follower.tree());
    }
    update(id, now);
  }
}

void Collector::State::receiveState(const std::string& name, const Message& message, Time now) {
  monitoring::ReporterState state;
  if (!state.ParseFromString(message.payload)) {
    refuse("A state of " + name + " cannot be read");
    return;
  }
  if (message.payload.empty()) {  // somebody cleared it: the name does not come back
    const auto known = peers_.find(name);
    if (known == peers_.end()) return;
    const std::map<std::string, Sequence> roots = std::move(known->second.roots);
    peers_.erase(known);
    for (const auto& [id, sequence] : roots) unlist(id, name, now);
    return;
  }
  const auto [entry, isFirst] = peers_.try_emplace(name);
  Peer& peer = entry->second;
  if (!isFirst && !accept(name, peer, state.start(), state.connection(), state.online())) return;
  peer.start = state.start();
  peer.connection = state.connection();
  peer.isOnline = state.online();
  peer.isConfirmed = !state.online() || !message.isRetained;
  peer.heard = now;
  if (!peer.isConfirmed) peer.due = now + draw(random_, milliseconds(0), options_.firstPause);
  if (isFirst || state.online()) {
    std::map<std::string, Sequence> earlier;
    earlier.swap(peer.roots);
    for (const auto& root : state.roots()) {
      peer.roots[root.root()] = {root.epoch(), root.n()};
      earlier.erase(root.root());
      list(root.root(), name, peer, now);
    }
    for (const auto& [id, sequence] : earlier) unlist(id, name, now);
  }
  updateRootsOf(peer, now);
}

// Whether the state is a later word of the reporter than the one that is known.
bool Collector::State::accept(const std::string& name, Peer& peer, std::uint64_t start,
                              std::uint64_t connection, bool isOnline) {
  if (start == peer.start) return connection >= peer.connection;
  if (!isOnline) return false;  // the will of an earlier process
  const bool isEarlier =
      std::find(peer.earlier.begin(), peer.earlier.end(), start) != peer.earlier.end();
  if (isEarlier && peer.isOnline) {
    if (peer.rival != start) callbacks_.problem("Two processes report under the name " + name);
    peer.rival = start;
    return false;
  }
  peer.earlier.push_back(peer.start);
  if (peer.earlier.size() > mostEarlier) peer.earlier.pop_front();
  return true;
}

Collector::State::Root& Collector::State::takeUp(const std::string& id, Time now) {
  const auto [entry, isNew] = roots_.try_emplace(id, id);
  if (isNew) entry->second.since = now;
  return entry->second;
}

void Collector::State::list(const std::string& id, const std::string& name, const Peer& peer,
                            Time now) {
  if (!follows(id)) return;
  Root& root = takeUp(id, now);
  if (root.reporter != name) {
    const auto other = peers_.find(root.reporter);
    if (other != peers_.end() && (other->second.isOnline || !peer.isOnline)) {
      if (peer.isOnline && root.rival != name) {
        root.rival = name;
        callbacks_.problem("The root " + id + " is reported by " + root.reporter + " and by " +
                           name);
      }
      return;
    }
    root.reporter = name;
  }
  root.follower.reported(peer.roots.at(id));
}

void Collector::State::unlist(const std::string& id, const std::string& name, Time now) {
  const auto entry = roots_.find(id);
  if (entry == roots_.end() || entry->second.reporter != name) return;
  Root& root = entry->second;
  root.reporter.clear();
  root.rival.clear();
  root.since = now;
  for (const auto& [other, peer] : peers_) {
    if (peer.isOnline && peer.roots.count(id) > 0) list(id, other, peer, now);
  }
  if (root.reporter.empty()) root.follower.forget();
  update(id, now);
}

void Collector::State::updateRootsOf(const Peer& peer, Time now) {
  for (const auto& [id, sequence] : peer.roots) {
    if (roots_.count(id) > 0) update(id, now);
  }
}

void Collector::State::update(const std::string& id, Time now) {
  Root& root = roots_.at(id);
  const Condition condition = conditionOf(root);
  if (condition != root.condition) {
    root.since = now;
    root.condition = condition;
    callbacks_.changed(id, condition);
  }
  const bool isCurrent = root.follower.isCurrent();
  if (!canAsk(root) || (isCurrent && !root.follower.isBehind())) {
    schedule(id, std::nullopt);
    root.pause = milliseconds(0);
  } else if (!root.due) {
    schedule(id, now + (condition == Condition::CURRENT
                            ? options_.patience
                            : draw(random_, milliseconds(0), options_.firstPause)));
  }
}

bool Collector::State::canAsk(const Root& root) const {
  const auto peer = peers_.find(root.reporter);
  return link_ != nullptr && peer != peers_.end() && peer->second.isOnline &&
         peer->second.isConfirmed && !root.follower.isAwaited();
}

Condition Collector::State::conditionOf(const Root& root) const {
  const auto peer = peers_.find(root.reporter);
  const bool isReported = peer != peers_.end();
  const bool isAwaited = root.condition == Condition::FORGOTTEN && root.pause == milliseconds(0);
  if (!root.follower.tree() && (!isReported || root.follower.isCurrent() || isAwaited)) {
    return Condition::FORGOTTEN;
  }
  if (link_ == nullptr || (isReported && !peer->second.isConfirmed)) return Condition::OUT_OF_DATE;
  if (!isReported || !peer->second.isOnline) return Condition::REPORTER_GONE;
  const bool isInStep = !root.follower.isBehind() || root.condition == Condition::CURRENT;
  return root.follower.isCurrent() && isInStep ? Condition::CURRENT : Condition::OUT_OF_DATE;
}

void Collector::State::schedule(const std::string& id, std::optional<Time> due) {
  Root& root = roots_.at(id);
  if (root.due) due_.erase({*root.due, id});
  root.due = due;
  if (due) due_.emplace(*due, id);
}

// Once a second: who is or may be silent, and which roots nobody lists.
void Collector::State::check(Time now) {
  nextCheck_ = now + std::chrono::seconds(1);
  budget_ = options_.mostRequests;
  bool areAllThere = true;
  for (auto& [name, peer] : peers_) {
    areAllThere = areAllThere && peer.isConfirmed && peer.isOnline;
    if (peer.isConfirmed && !peer.isOnline) continue;
    if (now - peer.heard > options_.silence) {
      peer.isOnline = false;
      peer.isConfirmed = true;
      updateRootsOf(peer, now);
    } else if (!peer.isConfirmed && peer.due <= now && budget_ > 0) {
      --budget_;
      peer.due = now + options_.patience;
      send(name, {});
    }
  }
  for (auto entry = roots_.begin(); entry != roots_.end();) {
    const auto next = std::next(entry);
    Root& root = entry->second;
    const Time::duration age = now - root.since;
    const bool isForgotten = root.condition == Condition::FORGOTTEN;
    if (root.reporter.empty() && isForgotten && age > memory) {
      roots_.erase(entry);
    } else if (root.reporter.empty() && !isForgotten && areAllThere && age > options_.silence) {
      // While a reporter is gone it may have the root: its will can be older than that.
      root.follower.forget();
      update(entry->first, now);
    }
    entry = next;
  }
}

void Collector::State::ask(Time now) {
  std::map<std::string, monitoring::TreeRequest> requests;
  for (; budget_ > 0 && !due_.empty() && due_.begin()->first <= now; --budget_) {
    const std::string id = due_.begin()->second;
    Root& root = roots_.at(id);
    root.follower.miss();
    requests[root.reporter].add_roots(id);
    root.pause = std::min(root.pause == milliseconds(0) ? 2 * options_.firstPause : 2 * root.pause,
                          options_.longestPause);
    schedule(id, now + draw(random_, root.pause / 2, root.pause));
    update(id, now);
  }
  for (const auto& [name, request] : requests) {
    counters_.requests += static_cast<std::uint64_t>(request.roots_size());
    send(name, request);
  }
}

void Collector::State::send(const std::string& name, const monitoring::TreeRequest& request) {
  Message message;
  message.topic = topics_.request(name);
  message.expiry = std::chrono::seconds(60);
  request.SerializeToString(&message.payload);
  link_->publish(message);
}

bool Collector::State::follows(const std::string& id) const {
  const unsigned int partition = Topics::partitionOf(id);
  return options_.firstPartition <= partition && partition <= options_.lastPartition;
}

void Collector::State::refuse(const std::string& problem) {
  ++counters_.strangers;
  callbacks_.problem(problem);
}

Collector::Collector(CollectorCallbacks callbacks, const CollectorOptions& options)
    : state_(std::make_unique<State>(std::move(callbacks), options)) {}

Collector::~Collector() = default;

std::vector<std::string> Collector::roots() const { return state_->roots(); }

std::optional<Collector::View> Collector::view(const std::string& root) const {
  return state_->view(root);
}

const Collector::Counters& Collector::counters() const noexcept { return state_->counters(); }

std::optional<Message> Collector::connecting() { return std::nullopt; }

void Collector::connected(Link& link, Time now) { state_->connected(link, now); }

void Collector::disconnected(Time now) { state_->disconnected(now); }

void Collector::settled(int /*number*/, const std::string& refusal, Time /*now*/) {
  state_->settled(refusal);
}

void Collector::received(const Message& message, Time now) { state_->received(message, now); }

Time Collector::serve(Time now) { return state_->serve(now); }

}  // namespace orv::reporting
