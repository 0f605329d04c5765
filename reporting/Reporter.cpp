#include "reporting/Reporter.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Agenda.h"
#include "reporting/Backoff.h"
#include "reporting/Flights.h"
#include "reporting/Resends.h"
#include "reporting/Roster.h"
#include "reporting/Seed.h"
#include "reporting/Sender.h"
#include "reporting/Topics.h"

namespace orv::reporting {

namespace monitoring = orv::proto::monitoring;

namespace {

// Were a state and its lists sent for each root that comes, those of many roots that come one by
// one would cost the square of their number.
constexpr std::chrono::seconds betweenStates(1);
// Trees that the broker has lost are sent again at this pace: what changes goes out beside them,
// and the broker has to keep for each collector what that has not taken yet.
constexpr std::chrono::microseconds betweenTrees(500);
// A process that comes back looks at its own last state before it goes on: it may have been set
// back. Where it may not read that, it goes on after so long.
constexpr std::chrono::seconds lookBack(1);
// Who asks so often for a tree that was sent each time does not get it, or cannot use it.
constexpr unsigned int inVain = 4;
constexpr std::chrono::minutes inOneGo(10);  // who asks later is somebody else, or has a new reason
// A step of a reporter with many roots is so long at most: then the program's loop has its turn.
constexpr std::size_t mostAtOnce = 100;  // events, and lists
constexpr std::size_t mostBytesAtOnce = 250'000;
constexpr std::chrono::seconds silence(100);  // as collectors have it
constexpr const char* endsConnection = "It ends the connection";

}  // namespace

// Brings together what decides each for itself: a Sender for each root makes its next event, the
// Agenda says which root is looked at next, Flights says which may go out. What is left here is the
// reporter's own state, and what its users and other processes tell it. What that says of its roots
// is the Roster's.
class Reporter::Core {
 public:
  Core(std::string name, ReporterCallbacks callbacks, const ReporterOptions& options)
      : name_(std::move(name)),
        callbacks_(std::move(callbacks)),
        options_(options),
        topics_(options.prefix),
        random_(options.seed ? *options.seed : drawSeed()),
        start_(random_()) {
    if (name_.empty()) throw std::invalid_argument("A reporter needs a name");
  }

  void report(const Tree& live);
  void remove(const std::string& id);
  bool isSettled() const noexcept;
  const Counters& counters() const noexcept { return counters_; }
  std::optional<View> view(const std::string& id) const;

  Message connecting();
  void connected(Link& link, Time now);
  bool ending(Time now);
  void disconnected(Time now);
  void settled(std::uint64_t number, const std::string& refusal, Time now);
  void received(const Message& message, Time now);
  Time serve(Time now);

 private:
  struct Root {
    explicit Root(Sender newSender) : sender(std::move(newSender)) {}

    Sender sender;
    Tree live;               // empty: the root is to be removed
    bool isChanged = false;  // since its last event was made, or that was refused
    std::string problem;     // why its latest tree is held back, as it was told; empty if it is not
    unsigned int timesAsked = 0;  // for the whole tree, which was sent each time
    Time lastAsked;
    std::optional<Sequence> resendAfter;  // what follows this is to go out once more
    std::size_t kept = 0;                 // counted in `kept_`
  };

  // What the broker has kept of another process of this name.
  struct Left {
    Time since;
    std::set<std::string> roots;
    std::set<unsigned int> parts;
  };

  Root& takeUp(const std::string& id);
  void queue(const std::string& id);
  void awaitTreeDue(const std::string& id, const Root& root);
  void taken(const std::string& id);
  void refuse(const std::string& id, const std::string& reason);
  void hold(const std::string& id, Root& root, Problem::Kind kind, const std::string& reason);
  void release(const std::string& id, Root& root);
  void clear(const std::string& id);
  void erase(const std::string& id);
  void countKept(Root& root);
  void beginAnew();
  void renewTrees(Time now);
  void tellRefusal(const std::string& what, const std::string& reason);
  void relist(const std::string& id, const Root& root);
  void publishState(bool isOnline);
  void publishLists(std::size_t most);
  void noteGone(std::uint64_t start);
  void clearSilent(Time now);
  void clearLeft(std::uint64_t start);
  std::size_t publishNext(const std::string& id, Time now);
  void publishAgain(const std::string& id, Root& root);
  Message eventOf(const std::string& id, const Sequence& sequence) const;
  Message state(bool isOnline) const;
  void receiveRequest(const Message& message, Time now);
  void countRequest(const std::string& id, Root& root, Time now);
  void receiveState(const Message& message, Time now);
  void receiveGone(const Message& message);
  void receiveList(unsigned int partition, const Message& message, Time now);
  void saySoon() { stateDue_ = std::min(stateDue_, lastState_ + betweenStates); }
  void complain(const Problem& problem) const {
    if (callbacks_.problem) callbacks_.problem(problem);
  }

  static bool isSettled(const Root& root) noexcept;

  std::string name_;
  ReporterCallbacks callbacks_;
  ReporterOptions options_;
  Counters counters_;
  Topics topics_;
  std::mt19937_64 random_;
  std::uint64_t start_;
  std::uint64_t connection_ = 0;
  std::uint64_t version_ = 0;  // of the last state or list
  Link* link_ = nullptr;
  std::map<std::string, Root> roots_;
  Agenda agenda_;  // roots to look at, but for the doubted ones, which Flights knows
  Flights flights_;
  Resends resends_;
  std::size_t kept_ = 0;  // bytes of the events that Senders keep
  Roster roster_;
  std::optional<std::uint64_t> stateOnItsWay_;
  std::map<std::uint64_t, unsigned int> listsOnTheirWay_;
  std::optional<Time> doubtEnds_;       // until then the broker sends the lists that it has kept
  std::map<std::uint64_t, Left> left_;  // by start, until that process is gone for sure
  std::optional<std::uint64_t> gone_;   // start of an earlier process that is gone for sure
  bool isAskedInVain_ = false;          // which was told
  bool isOwnStateAwaited_ = false;      // none has arrived on this connection
  Time opensAt_;                        // for events
  Time lastState_;
  Time stateDue_;
  std::map<std::string, std::string> refusals_;  // that were told last, of states and of lists
  unsigned int endsOnLists_ = 0;                 // the same of lists
  Backoff listPauses_{std::chrono::seconds(5), std::chrono::minutes(10)};
  Time listsOpenAt_;
  unsigned int endsOnState_ = 0;        // of connections, in a row, on which nothing was answered
  std::optional<std::uint64_t> rival_;  // start of a second process of this name
};

Reporter::Core::Root& Reporter::Core::takeUp(const std::string& id) {
  const auto known = roots_.find(id);
  if (known != roots_.end()) return known->second;
  return roots_.emplace(id, Sender(random_(), options_.treePause, options_.leastKept))
      .first->second;
}

void Reporter::Core::queue(const std::string& id) {
  if (!flights_.isDoubted(id)) agenda_.queue(id);
}

void Reporter::Core::awaitTreeDue(const std::string& id, const Root& root) {
  const std::optional<Time> due = root.sender.treeDue();
  if (due && !flights_.isDoubted(id)) agenda_.at(id, *due);
}

void Reporter::Core::report(const Tree& live) {
  if (!live) throw std::invalid_argument("A reporter needs a tree; remove() takes one away");
  Root& root = takeUp(live->getDeviceId());
  const bool isThere = std::exchange(root.live, live) != nullptr;
  root.isChanged = true;
  if (!isThere) relist(live->getDeviceId(), root);
  queue(live->getDeviceId());
}

void Reporter::Core::remove(const std::string& id) {
  const auto root = roots_.find(id);
  if (root == roots_.end()) return;
  root->second.live.reset();
  queue(id);
}

bool Reporter::Core::isSettled(const Root& root) noexcept {
  return root.live && !root.isChanged && root.sender.onItsWay() == nullptr;
}

bool Reporter::Core::isSettled() const noexcept {
  return std::all_of(roots_.begin(), roots_.end(),
                     [](const auto& entry) { return isSettled(entry.second); });
}

std::optional<Reporter::View> Reporter::Core::view(const std::string& id) const {
  const auto entry = roots_.find(id);
  if (entry == roots_.end()) return std::nullopt;
  const Root& root = entry->second;
  return View{root.sender.last(), isSettled(root), root.problem};
}

Message Reporter::Core::connecting() {
  ++connection_;
  Message will = state(false);
  will.topic = topics_.gone(name_);
  return will;
}

void Reporter::Core::connected(Link& link, Time now) {
  if (link_ != nullptr) disconnected(now);
  link_ = &link;
  stateDue_ = Time::min();
  isOwnStateAwaited_ = true;
  roster_.doubtKept();
  doubtEnds_ = now + lookBack;
  opensAt_ = connection_ > 1 ? now + lookBack : now;
  flights_.connected(now);
  link_->subscribe(
      {topics_.request(name_), topics_.state(name_), topics_.gone(name_), topics_.rootsOf(name_)},
      Kept::ALWAYS);
}

// Collectors hear at once that this was in order.
bool Reporter::Core::ending(Time /*now*/) {
  if (link_ == nullptr) return false;
  publishState(false);
  publishLists(Topics::PARTITIONS);
  return true;
}

void Reporter::Core::disconnected(Time now) {
  link_ = nullptr;
  const bool hadLists = !listsOnTheirWay_.empty();
  for (const auto& [number, partition] : listsOnTheirWay_) roster_.owe(partition);
  listsOnTheirWay_.clear();
  const Flights::Rest rest = flights_.disconnected(now);
  // What may have arrived goes out again as it is, before anything else: collectors drop it if they
  // have it, and miss it if they have not.
  for (auto id = rest.roots.rbegin(); id != rest.roots.rend(); ++id) {
    roots_.at(*id).sender.interrupted();
    agenda_.drop(*id);
    if (!flights_.isDoubted(*id)) agenda_.queueAhead(*id);
  }
  if (rest.refused) {
    const std::string& known = roots_.at(*rest.refused).problem;
    refuse(*rest.refused, known.empty() ? endsConnection : known);
  }
  // Where lists end connections, events have to get out between two attempts.
  endsOnLists_ = rest.roots.empty() && !stateOnItsWay_ && hadLists ? endsOnLists_ + 1 : 0;
  if (endsOnLists_ > 1) {
    tellRefusal("a list of the roots", endsConnection);
    listsOpenAt_ = now + listPauses_.next();
  }
  endsOnState_ = rest.roots.empty() && stateOnItsWay_ ? endsOnState_ + 1 : 0;
  if (endsOnState_ > 1) tellRefusal("the state", endsConnection);
  stateOnItsWay_.reset();
}

void Reporter::Core::settled(std::uint64_t number, const std::string& refusal, Time now) {
  if (number == stateOnItsWay_) {
    stateOnItsWay_.reset();
    endsOnState_ = 0;
    return tellRefusal("the state", refusal);
  }
  if (const auto list = listsOnTheirWay_.extract(number)) {
    flights_.taken(number, now);
    endsOnLists_ = 0;
    listPauses_.reset();
    if (refusal.empty()) return;
    roster_.owe(list.mapped());  // with the next state
    return tellRefusal("a list of the roots", refusal);
  }
  if (!refusal.empty()) {
    if (const auto id = flights_.refused(number, now)) refuse(*id, refusal);
  } else if (const auto id = flights_.taken(number, now)) {
    taken(*id);
  }
}

void Reporter::Core::taken(const std::string& id) {
  Root& root = roots_.at(id);
  release(id, root);
  if (root.sender.onItsWay() != nullptr) {
    ++counters_.events;
    if (isWholeTree(root.sender.onItsWay()->event)) ++counters_.trees;
    std::optional<Step> step;  // its trees are made for those who listen only
    if (callbacks_.published) {
      step = root.sender.taken();
    } else {
      root.sender.settle();
    }
    countKept(root);
    if (step) callbacks_.published(id, *step);
  } else if (!root.live) {  // the broker has forgotten the tree
    return erase(id);
  }
  // What has changed since that event was made goes out as one.
  if (root.isChanged || !root.live || root.resendAfter) queue(id);
  awaitTreeDue(id, root);
}

// The event is made anew when Flights gives the root its turn.
void Reporter::Core::refuse(const std::string& id, const std::string& reason) {
  Root& root = roots_.at(id);
  agenda_.drop(id);
  root.sender.refused();
  root.isChanged = true;
  relist(id, root);
  ++counters_.refusals;
  hold(id, root, Problem::Kind::REFUSED, reason);
  // What an earlier process left, and this one may not clear, is left alone.
  if (!root.live && root.sender.last().n == 0) {
    flights_.trust(id);
    erase(id);
  }
}

void Reporter::Core::erase(const std::string& id) {
  kept_ -= roots_.at(id).kept;
  agenda_.drop(id);
  resends_.drop(id);
  roots_.erase(id);
  if (roster_.drop(id)) saySoon();
}

// Of the root whose event is one too many for all of them, as any other choice would need a look at
// all roots.
void Reporter::Core::countKept(Root& root) {
  if (kept_ - root.kept + root.sender.keptBytes() > options_.mostKept) root.sender.letGo();
  kept_ = kept_ - root.kept + root.sender.keptBytes();
  root.kept = root.sender.keptBytes();
}

// The list says what is held back: else collectors would take the old tree for the current one.
void Reporter::Core::hold(const std::string& id, Root& root, Problem::Kind kind,
                          const std::string& reason) {
  if (reason == root.problem) return;
  root.problem = reason;
  relist(id, root);
  const bool isRefused = kind == Problem::Kind::REFUSED;
  const std::string what = isRefused ? "The broker refuses " : "Cannot report ";
  complain({kind, id, reason, what + id + ": " + reason});
}

void Reporter::Core::release(const std::string& id, Root& root) {
  if (root.problem.empty()) return;
  root.problem.clear();
  relist(id, root);
}

// A root that is there only to be cleared is not listed.
void Reporter::Core::relist(const std::string& id, const Root& root) {
  const Publication* const onItsWay = root.sender.onItsWay();
  const Sequence& last = root.sender.last();
  const bool isListed = root.live || last.n > 0 || onItsWay != nullptr;
  const bool isOwed =
      isListed ? roster_.put(id, onItsWay != nullptr ? onItsWay->sequence : last, root.problem)
               : roster_.drop(id);
  if (isOwed) saySoon();
}

// The broker shall forget the tree of a root that is not there.
void Reporter::Core::clear(const std::string& id) {
  if (roots_.count(id) > 0) return;
  takeUp(id);
  queue(id);
}

void Reporter::Core::tellRefusal(const std::string& what, const std::string& reason) {
  std::string& told = refusals_[what];
  if (!reason.empty() && reason != told) {
    const std::string text = "The broker refuses " + what + " of " + name_ + ": " + reason;
    complain({Problem::Kind::REFUSED, "", reason, text});
  }
  told = reason;
}

void Reporter::Core::received(const Message& message, Time now) {
  if (message.topic == topics_.request(name_)) receiveRequest(message, now);
  if (message.topic == topics_.state(name_)) receiveState(message, now);
  if (message.topic == topics_.gone(name_)) receiveGone(message);
  const auto list = topics_.listOf(message.topic);
  if (list && list->second == name_) receiveList(list->first, message, now);
}

Time Reporter::Core::serve(Time now) {
  if (link_ == nullptr) return Time::max();
  if (doubtEnds_ && *doubtEnds_ <= now) {
    doubtEnds_.reset();
    if (roster_.oweDoubted()) saySoon();
  }
  // What a state has announced comes before the next one: else lists would never go out where
  // answers take longer than the time between two states.
  const auto areListsDue = [&] {
    return !stateOnItsWay_ && listsOpenAt_ <= now && roster_.next() && flights_.hasRoom();
  };
  if (areListsDue()) publishLists(stateDue_ <= now ? Topics::PARTITIONS : mostAtOnce);
  if (stateDue_ <= now && !stateOnItsWay_) {
    clearSilent(now);
    publishState(true);
    lastState_ = now;
    stateDue_ = now + options_.heartbeat;
  }
  const bool areListsHeldUp = roster_.next() && now < listsOpenAt_;
  const Time next =
      areListsDue()
          ? now
          : std::min({stateOnItsWay_ ? Time::max() : stateDue_, doubtEnds_.value_or(Time::max()),
                      areListsHeldUp ? listsOpenAt_ : Time::max()});
  if (now < opensAt_) return std::min(opensAt_, next);
  agenda_.advance(now);
  if (const auto id = flights_.retry(now)) agenda_.queue(*id);
  while (const auto again = resends_.next(now)) {
    Root& root = roots_.at(again->first);
    const Sequence after{root.sender.last().epoch, again->second};
    const bool isWiderAsked =
        root.resendAfter && root.resendAfter->epoch == after.epoch && root.resendAfter->n < after.n;
    if (!isWiderAsked) root.resendAfter = after;
    queue(again->first);
  }
  const std::string* first = agenda_.first();
  std::size_t events = 0;
  std::size_t bytes = 0;
  const auto isEnough = [&] { return events >= mostAtOnce || bytes >= mostBytesAtOnce; };
  for (; first != nullptr && !isEnough() && flights_.mayGo(*first); first = agenda_.first()) {
    const std::string id = *first;
    agenda_.drop(id);
    bytes += publishNext(id, now);
    ++events;
  }
  if (first == nullptr) flights_.rest();
  const bool waits = first != nullptr && !flights_.mayGo(*first);
  const Time turn = waits ? Time::max() : agenda_.due();
  return std::max(now, std::min({next, flights_.retryDue(), turn, resends_.due()}));
}

// Returns how many bytes the event has.
std::size_t Reporter::Core::publishNext(const std::string& id, Time now) {
  Root& root = roots_.at(id);
  if (flights_.isOnItsWay(id)) return 0;
  if (root.resendAfter) publishAgain(id, root);
  if (root.resendAfter) {  // the rest waits for room, and what comes next for the rest
    queue(id);
    return 0;
  }
  const Publication* publication = root.sender.onItsWay();
  std::string refusal;
  if (publication == nullptr) {
    publication = root.sender.next(root.live, now, refusal);
    root.isChanged = !refusal.empty() || (root.isChanged && root.sender.repeats());
  }
  Message message = eventOf(id, publication != nullptr ? publication->sequence : Sequence());
  if (publication != nullptr) {
    message.isRetained = isWholeTree(publication->event);
    if (!publication->event.SerializeToString(&message.payload)) {
      refusal = "The event has more than 2 GiB";
      root.sender.refused();
    }
  } else {
    message.isRetained = true;  // the broker shall forget the tree, if there is none any more
  }
  if (!refusal.empty()) {
    hold(id, root, Problem::Kind::UNREPORTABLE, refusal);
    flights_.trust(id);
  } else if (publication != nullptr || !root.live) {
    flights_.goes(link_->publish(message), id, message.payload.size());
    relist(id, root);
  } else {
    release(id, root);
    flights_.trust(id);
    awaitTreeDue(id, root);
  }
  return message.payload.size();
}

// Only what the broker took goes out once more, in its order and before what comes next. An event
// that is on its way could still be refused, and its number be that of another one.
void Reporter::Core::publishAgain(const std::string& id, Root& root) {
  const auto lacked = root.sender.lackedAfter(*std::exchange(root.resendAfter, std::nullopt));
  if (!lacked) return root.sender.requestTree();
  const std::vector<std::string>& kept = root.sender.kept();
  for (std::size_t left = *lacked; left > 0; --left) {
    if (!flights_.hasRoom()) {
      root.resendAfter = Sequence{root.sender.last().epoch, root.sender.last().n - left};
      return;
    }
    Message message = eventOf(id, {root.sender.last().epoch, root.sender.last().n - left + 1});
    message.payload = kept[kept.size() - left];
    flights_.goesBeside(link_->publish(message), message.payload.size());
    ++counters_.resent;
  }
}

Message Reporter::Core::eventOf(const std::string& id, const Sequence& sequence) const {
  Message message;
  message.topic = topics_.event(id);
  message.reporter = Topics::encode(name_);
  if (sequence.n > 0) message.sequence = sequence.text();
  return message;
}

Message Reporter::Core::state(bool isOnline) const {
  monitoring::ReporterState state;
  state.set_start(start_);
  state.set_connection(connection_);
  state.set_version(version_);
  state.set_online(isOnline);
  roster_.describe(state);
  Message message;
  message.topic = topics_.state(name_);
  state.SerializeToString(&message.payload);
  message.isRetained = true;
  return message;
}

// The lists that a state announces go out once the broker has taken it: it says which process they
// are of, and if the broker refuses it, that is not to be lost among the answers to the lists.
void Reporter::Core::publishState(bool isOnline) {
  version_ = roster_.announce(version_) + 1;
  stateOnItsWay_ = link_->publish(state(isOnline));
}

void Reporter::Core::publishLists(std::size_t most) {
  for (auto partition = roster_.next(); partition && flights_.hasRoom() && most > 0;
       partition = roster_.next(), --most) {
    Message message;
    message.topic = topics_.roots(*partition, name_);
    message.payload = roster_.list(*partition, start_);
    message.isRetained = true;
    const std::uint64_t number = link_->publish(message);
    listsOnTheirWay_.emplace(number, *partition);
    flights_.goesBeside(number, message.payload.size());
  }
}

// The sequence of an event gets lost on a bridge that does not speak MQTT 5. Nobody behind it can
// use the events, and here that does not show but in this.
void Reporter::Core::countRequest(const std::string& id, Root& root, Time now) {
  if (root.sender.treeDue()) return;  // it has not been sent yet
  root.timesAsked = now - root.lastAsked < inOneGo ? root.timesAsked + 1 : 1;
  root.lastAsked = now;
  if (root.timesAsked < inVain || std::exchange(isAskedInVain_, true)) return;
  const std::string text = "The tree of " + id + " was sent " + std::to_string(inVain - 1) +
                           " times, and somebody still asks for it: is there a bridge without "
                           "MQTT 5?";
  complain({Problem::Kind::NOTHING_HEARD, id, "", text});
}

void Reporter::Core::receiveRequest(const Message& message, Time now) {
  monitoring::TreeRequest request;
  if (!request.ParseFromString(message.payload)) {
    const std::string text = "A request to " + name_ + " cannot be read";
    return complain({Problem::Kind::UNUSABLE, "", "", text});
  }
  ++counters_.requests;
  const auto ask = [this, now](const std::string& id, const std::optional<Sequence>& have) {
    const auto entry = roots_.find(id);
    if (entry == roots_.end()) {
      return clear(id);  // somebody has found a tree there that says it is this reporter's
    }
    Root& root = entry->second;
    if (have && root.sender.lackedAfter(*have)) return resends_.ask(id, have->n);
    countRequest(id, root, now);
    root.sender.requestTree();
    awaitTreeDue(id, root);
  };
  for (const std::string& id : request.roots()) ask(id, std::nullopt);
  for (const auto& have : request.have()) ask(have.root(), Sequence{have.epoch(), have.n()});
  for (const unsigned int partition : request.parts()) {
    if (!roster_.repeat(partition)) roster_.owe(partition);
  }
  const bool isForRoots = !request.roots().empty() || !request.have().empty();
  if (!isForRoots || !request.parts().empty()) saySoon();
}

void Reporter::Core::receiveState(const Message& message, Time now) {
  monitoring::ReporterState state;
  if (!state.ParseFromString(message.payload)) {
    complain({Problem::Kind::UNUSABLE, "", "", "A state of " + name_ + " cannot be read"});
    return saySoon();
  }
  opensAt_ = now;
  const bool isOwn = state.start() == start_;
  const bool wasSetBack = isOwn && (state.version() > version_ || state.connection() > connection_);
  // The topic was subscribed to before the first state went out. So if that arrives as news, the
  // broker had none: it has lost the trees as well, and who asks for them may come too late.
  const bool isFirst = std::exchange(isOwnStateAwaited_, false);
  if (wasSetBack) {
    beginAnew();
  } else if (isFirst && isOwn && state.online() && !message.isRetained && connection_ > 1) {
    renewTrees(now);
  }
  if (!state.online()) {  // the last word of an earlier process, in place of the present state
    saySoon();
  } else if (!isOwn && !message.isRetained && rival_ != state.start()) {
    rival_ = state.start();
    complain({Problem::Kind::RIVAL, "", "", "Another process reports under the name " + name_});
  }
  if (!isOwn && !state.online()) noteGone(state.start());
}

// A will of this process is that of a connection that is over, as everybody can tell.
void Reporter::Core::receiveGone(const Message& message) {
  monitoring::ReporterState will;
  if (will.ParseFromString(message.payload) && will.start() != start_) noteGone(will.start());
}

void Reporter::Core::noteGone(std::uint64_t start) {
  gone_ = start;
  clearLeft(start);
}

// What the broker has kept of this process tells what it has; of an earlier one, which roots must
// not stay. That one may still be there, as another process of this name, until it or its will says
// that it is gone.
void Reporter::Core::receiveList(unsigned int partition, const Message& message, Time now) {
  monitoring::RootList list;
  if (!list.ParseFromString(message.payload)) return;
  if (list.start() == start_ && list.version() > version_) return beginAnew();
  if (!message.isRetained) return;
  if (list.start() == start_ && roster_.foundKept(partition, list.version())) return;
  Left& left = left_.try_emplace(list.start(), Left{now, {}, {}}).first->second;
  left.parts.insert(partition);
  for (const auto& root : list.roots()) left.roots.insert(root.root());
  if (list.start() == start_ || list.start() == gone_) clearLeft(list.start());
}

// A process of this name that was not heard for so long is gone, whether or not its will came.
void Reporter::Core::clearSilent(Time now) {
  std::vector<std::uint64_t> silent;
  for (const auto& [start, left] : left_) {
    if (start != rival_ && now - left.since > silence) silent.push_back(start);
  }
  for (const std::uint64_t start : silent) clearLeft(start);
}

void Reporter::Core::clearLeft(std::uint64_t start) {
  const auto left = left_.extract(start);
  if (left.empty()) return;
  for (const std::string& id : left.mapped().roots) clear(id);
  for (const unsigned int partition : left.mapped().parts) roster_.oweEvenIfEmpty(partition);
  saySoon();
}

// The process was set back in time, or is the copy of another one. It would use numbers again under
// which collectors have had other events. So it becomes another process, with new epochs.
void Reporter::Core::beginAnew() {
  complain({Problem::Kind::SET_BACK, "", "",
            "This process was set back in time, or copied: all trees are sent anew"});
  random_.seed(drawSeed());
  gone_ = std::exchange(start_, random_());
  flights_.forget();
  stateOnItsWay_.reset();
  stateDue_ = Time::min();
  roster_.oweAll();
  for (auto& [id, root] : roots_) {
    root.sender.restart(random_());
    root.isChanged = true;
    agenda_.drop(id);
    relist(id, root);
    queue(id);
  }
}

void Reporter::Core::renewTrees(Time now) {
  for (auto& [id, root] : roots_) {
    if (root.sender.last().n == 0) continue;
    root.sender.renewTree();
    if (flights_.isDoubted(id)) continue;
    agenda_.at(id, now);
    now += betweenTrees;
  }
}

Reporter::Reporter(std::string name, ReporterCallbacks callbacks, const ReporterOptions& options)
    : core_(std::make_unique<Core>(std::move(name), std::move(callbacks), options)) {}

Reporter::~Reporter() = default;

void Reporter::report(const Tree& live) { core_->report(live); }

void Reporter::remove(const std::string& root) { core_->remove(root); }

bool Reporter::isSettled() const noexcept { return core_->isSettled(); }

const Reporter::Counters& Reporter::counters() const noexcept { return core_->counters(); }

std::optional<Reporter::View> Reporter::view(const std::string& root) const {
  return core_->view(root);
}

std::optional<Message> Reporter::connecting() { return core_->connecting(); }

void Reporter::connected(Link& link, Time now) { core_->connected(link, now); }

bool Reporter::ending(Time now) { return core_->ending(now); }

void Reporter::disconnected(Time now) { core_->disconnected(now); }

void Reporter::settled(std::uint64_t number, const std::string& refusal, Time now) {
  core_->settled(number, refusal, now);
}

void Reporter::received(const Message& message, Time now) { core_->received(message, now); }

Time Reporter::serve(Time now) { return core_->serve(now); }

}  // namespace orv::reporting
