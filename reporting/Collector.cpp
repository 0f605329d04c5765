#include "reporting/Collector.h"

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Agenda.h"
#include "reporting/Mark.h"
#include "reporting/Peer.h"
#include "reporting/Requests.h"
#include "reporting/Seed.h"

namespace orv::reporting {

namespace monitoring = orv::proto::monitoring;

namespace {

// A root that was forgotten stays known so long, so that old events do not bring it back.
constexpr std::chrono::hours memory(1);
// Who may read everything has heard every reporter by then: their heartbeat is shorter.
constexpr std::chrono::seconds hearing(40);
// What is behind when a connection begins. Others who lack the same are not many, and of what they
// ask for one answer serves all.
constexpr std::chrono::milliseconds noPause(0);
// To get memory for a whole tree's message costs twice what reading it does. So it is kept for the
// next message. It grows with every shape that has come, so after so many bytes it begins anew.
constexpr std::size_t mostBytesRead = 1'000'000;

}  // namespace

// Brings together what decides each for itself: a Follower for each root keeps its tree, a Peer for
// each reporter says which of its states counts, Requests says when something is asked for. What is
// left here is who reports a root, and what follows from all that for its condition.
//
// A state or the end of a connection can concern all roots at once. Then their parts line up for a
// review, and a limited number of roots is reviewed in a call:
//
// - Until its review a root keeps the condition that was told last. Whoever asks gets the true one,
//   or OUT_OF_DATE for one that is going to be forgotten.
// - What arrives of a root, or of its part, comes after the review of that part. So a state that
//   agreed with the part speaks of where its roots still are.
// - A root that was CURRENT before something cast doubt on its part, and is behind, is not CURRENT
//   after the review.
class Collector::Core {
 public:
  Core(CollectorCallbacks callbacks, const CollectorOptions& options);

  void resume(const std::string& id, Tree tree, const Sequence& sequence);
  std::vector<std::string> roots() const;
  std::optional<View> view(const std::string& id) const;
  const Counters& counters() const noexcept { return counters_; }
  Census census() const noexcept;

  void connected(Link& link, Time now);
  void disconnected(Time now);
  void settled(const std::string& refusal);
  void received(const Message& message, Time now);
  Time serve(Time now);

 private:
  struct Root {
    explicit Root(const std::string& id) : follower(id), hash(hashOf(id)), mark(markOf(hash, {})) {}

    Follower follower;
    std::uint64_t hash;
    std::uint64_t mark;                // of where the follower is
    std::string reporter;              // the one that counts; empty for none
    std::string heldBack;              // why that holds something later back; empty if it does not
    std::vector<std::string> listers;  // every reporter that lists it
    std::string rival;                 // another reporter of the root, told of
    std::string claimer;        // the reporter of its last event, as that says; empty: unknown
    bool isClaimKept = false;   // the broker had kept that event
    bool isTooLarge = false;    // an event that arrived
    bool isUnnumbered = false;  // the last one
    std::size_t treeBytes = 0;  // of the last whole tree that was applied
    Condition condition = Condition::FORGOTTEN;
    Time since;  // nobody lists it, or it is forgotten
  };

  void receiveEvent(const std::string& id, const Message& message, Time now);
  void take(const std::string& id, Root* known, const Sequence& sequence, const Message& message,
            Time now);
  void receiveState(const std::string& name, const Message& message, Time now);
  void receiveList(unsigned int partition, const std::string& name, const Message& message,
                   Time now);
  void forgetPeer(const std::string& name, Time now);
  Root& takeUp(const std::string& id, Time now);
  void noteListed(const std::string& id, const std::string& name, bool isOfNow, Time now);
  void choose(const std::string& id, Root& root, const std::string& name, bool isOfNow);
  void chooseAnother(const std::string& id, Root& root);
  void unlist(const std::string& id, const std::string& name, Time now);
  void unclaim(const std::string& id, const Root& root);
  void checkClaims(const std::string& name, Time now);
  void lineUp(const std::string& name, const Peer& peer);
  void review(Time now);
  std::size_t review(const std::string& topic, Time now);
  std::string partOf(const Root& root) const;
  bool isLinedUp(const Root& root) const;
  void updateClaimed(Time now);
  bool reportsAny(const std::string& name, const Peer& peer) const;
  void dropRequests(const std::string& name, const Peer& peer);
  void remark(Root& root);
  void update(const std::string& id, Time now) { update(id, roots_.at(id), now); }
  void update(const std::string& id, Root& root, Time now) {
    update(id, root, now, options_.gapPause);
  }
  void update(const std::string& id, Root& root, Time now, std::chrono::milliseconds gapPause);
  static unsigned int partitionOf(const Root& root);
  const Peer* peerOf(const Root& root) const;
  bool isConfirmed(const Root& root, const Peer& peer) const;
  bool canAsk(const Root& root) const;
  Condition conditionOf(const Root& root) const;
  std::string reasonOf(const std::string& id, const Root& root, Condition condition) const;
  void check(Time now);
  void checkHearing(Time now);
  void ask(Time now);
  void needState(const std::string& name, Time now);
  void send(const std::string& name, const monitoring::TreeRequest& request);
  bool follows(unsigned int partition) const;
  void refuse(const std::string& text, const std::string& id = "");
  void complain(const Problem& problem) const {
    if (callbacks_.problem) callbacks_.problem(problem);
  }

  CollectorCallbacks callbacks_;
  CollectorOptions options_;
  Topics topics_;
  std::mt19937_64 random_;
  Counters counters_;
  std::array<std::size_t, 5> conditions_{};  // how many roots are in each
  Link* link_ = nullptr;
  bool isRequestRefused_ = false;  // the last one
  bool isSequenceMissed_ = false;  // which was told
  bool areStatesHeard_ = false;    // on this connection
  bool areListsHeard_ = false;
  bool areEventsHeard_ = false;
  Time hearingDue_;             // when that is looked at
  std::string hearingProblem_;  // that was told last
  Event event_;                 // whose memory the next one takes
  std::size_t bytesRead_ = 0;   // into that memory
  std::map<std::string, Root> roots_;
  std::map<std::string, Peer> peers_;
  std::map<std::string, std::set<std::string>>
      claims_;                      // roots by claimer, while nobody lists them
  std::set<std::string> unlisted_;  // roots without a reporter that counts
  std::string nextUnlisted_;        // to be looked at
  Time connectedAt_;
  Agenda reviews_;   // topics of the lists of parts
  Agenda behind_;    // roots whose reporter is ahead, until patience ends
  Requests trees_;   // by root
  Requests states_;  // by reporter
  Requests lists_;   // by topic
  Time nextCheck_;
};

Collector::Core::Core(CollectorCallbacks callbacks, const CollectorOptions& options)
    : callbacks_(std::move(callbacks)),
      options_(options),
      topics_(options.prefix),
      random_(options.seed ? *options.seed : drawSeed()),
      trees_(options.firstPause, options.longestPause,
             {options.mostAwaited, options.mostAwaitedBytes}),
      states_(options.firstPause, options.longestPause,
              {options.mostAwaited, options.mostAwaitedBytes}),
      lists_(options.firstPause, options.longestPause,
             {options.mostAwaited, options.mostAwaitedBytes}) {
  if (options.firstPartition > options.lastPartition ||
      options.lastPartition >= Topics::PARTITIONS) {
    throw std::invalid_argument("There are the partitions 0 to " +
                                std::to_string(Topics::PARTITIONS - 1));
  }
}

void Collector::Core::resume(const std::string& id, Tree tree, const Sequence& sequence) {
  const bool isFollowed = follows(Topics::partitionOf(id));
  if (!tree || tree->getDeviceId() != id || sequence.n == 0 || !isFollowed) {
    throw std::invalid_argument("The root " + id + " cannot go on with what was kept of it");
  }
  takeUp(id, {}).follower.resume(std::move(tree), sequence);
  update(id, {});
}

std::vector<std::string> Collector::Core::roots() const {
  std::vector<std::string> ids;
  for (const auto& [id, root] : roots_) {
    if (root.condition != Condition::FORGOTTEN) ids.push_back(id);
  }
  return ids;
}

std::optional<Collector::View> Collector::Core::view(const std::string& id) const {
  const auto entry = roots_.find(id);
  if (entry == roots_.end()) return std::nullopt;
  const Root& root = entry->second;
  if (root.condition == Condition::FORGOTTEN) return std::nullopt;
  const Condition condition = isLinedUp(root) ? conditionOf(root) : root.condition;
  return View{condition, root.follower.tree(), root.follower.sequence(),
              root.reporter.empty() ? root.claimer : root.reporter, reasonOf(id, root, condition)};
}

Collector::Census Collector::Core::census() const noexcept {
  const auto isUnheard = [](const auto& entry) { return !entry.second.isConfirmed(); };
  Census census{conditions_,
                static_cast<std::size_t>(std::count_if(peers_.begin(), peers_.end(), isUnheard))};
  census.roots.at(static_cast<std::size_t>(Condition::FORGOTTEN)) = 0;
  return census;
}

void Collector::Core::connected(Link& link, Time now) {
  if (link_ != nullptr) disconnected(now);
  link_ = &link;
  areStatesHeard_ = areListsHeard_ = areEventsHeard_ = false;
  hearingDue_ = now + hearing;
  connectedAt_ = now;
  for (auto& [name, peer] : peers_) {
    peer.listen(now);
    needState(name, now);
  }
  // The states first, then the lists: they tell which of the trees that follow are the right ones.
  link_->subscribe({topics_.allStates(), topics_.allGone()}, Kept::ALWAYS);
  std::vector<std::string> lists;
  std::vector<std::string> topics;
  if (options_.firstPartition == 0 && options_.lastPartition + 1 == Topics::PARTITIONS) {
    lists.push_back(topics_.allRoots());
    topics.push_back(topics_.allEvents());
  } else {
    for (unsigned int partition = options_.firstPartition; partition <= options_.lastPartition;
         ++partition) {
      lists.push_back(topics_.rootsOf(partition));
      topics.push_back(topics_.eventsOf(partition));
    }
  }
  link_->subscribe(lists, Kept::ONCE);
  link_->subscribe(topics, Kept::ONCE);
}

void Collector::Core::disconnected(Time now) {
  link_ = nullptr;
  for (auto& [name, peer] : peers_) {
    peer.doubt();
    dropRequests(name, peer);
    lineUp(name, peer);
  }
  updateClaimed(now);
}

void Collector::Core::settled(const std::string& refusal) {
  const bool isNews = !std::exchange(isRequestRefused_, !refusal.empty());
  if (isNews && !refusal.empty()) {
    const std::string text = "The broker refuses a request for trees: " + refusal;
    complain({Problem::Kind::REFUSED, "", refusal, text});
  }
}

void Collector::Core::received(const Message& message, Time now) {
  if (const auto name = topics_.reporterOf(message.topic); name && !name->empty()) {
    areStatesHeard_ = true;
    receiveState(*name, message, now);
  } else if (const auto list = topics_.listOf(message.topic); list && follows(list->first)) {
    areListsHeard_ = true;
    receiveList(list->first, list->second, message, now);
  } else if (const auto id = topics_.rootOf(message.topic);
             id && follows(Topics::partitionOf(*id))) {
    areEventsHeard_ = true;
    receiveEvent(*id, message, now);
  } else {
    refuse("A message has the topic " + message.topic);
  }
}

Time Collector::Core::serve(Time now) {
  review(now);
  if (reviews_.first() != nullptr) return now;  // what is asked for follows from the conditions
  if (link_ == nullptr) return Time::max();
  if (nextCheck_ <= now) check(now);
  ask(now);
  return std::max(now, std::min({nextCheck_, reviews_.due(), behind_.due(), trees_.due(),
                                 states_.due(), lists_.due()}));
}

void Collector::Core::receiveEvent(const std::string& id, const Message& message, Time now) {
  const auto entry = roots_.find(id);
  Root* const known = entry == roots_.end() ? nullptr : &entry->second;
  if (known != nullptr && isLinedUp(*known)) review(partOf(*known), now);
  // The broker forgot the tree. Where a reporter lists the root, that is the late end of an earlier
  // life of it, and the tree that is kept is newer.
  if (message.payload.empty()) {
    if (known == nullptr || !known->reporter.empty()) return;
    known->follower.forget();
    update(id, *known, now);
    return;
  }
  const std::optional<Sequence> sequence = Sequence::parse(message.sequence);
  if (!sequence && message.sequence.empty()) {
    ++counters_.strangers;  // all that come over such a bridge lack it
    if (known != nullptr) known->isUnnumbered = true;
    if (!std::exchange(isSequenceMissed_, true)) {
      complain({Problem::Kind::UNUSABLE, id, "it has no sequence",
                "An event of " + id + " has no sequence: is there a bridge without MQTT 5?"});
    }
  } else if (!sequence) {
    refuse("An event of " + id + " has the sequence '" + message.sequence + "'", id);
  } else if (message.payload.size() > options_.mostBytes) {
    Root& root = takeUp(id, now);
    const std::string reason = "it has " + std::to_string(message.payload.size()) + " bytes";
    ++counters_.strangers;
    if (!std::exchange(root.isTooLarge, true)) {
      complain(
          {Problem::Kind::UNUSABLE, id, reason, "An event of " + id + " is refused: " + reason});
    }
  } else if (known != nullptr && known->follower.isOld(*sequence)) {
    ++counters_.outcomes.at(static_cast<std::size_t>(Follower::Outcome::OLD));
  } else {
    take(id, known, *sequence, message, now);
  }
}

void Collector::Core::take(const std::string& id, Root* known, const Sequence& sequence,
                           const Message& message, Time now) {
  Step step{sequence, std::move(event_), {}, {}};
  if (step.event.ParseFromString(message.payload)) {
    Root& root = known != nullptr ? *known : takeUp(id, now);
    root.isUnnumbered = false;
    step.before = root.follower.tree();
    std::string refusal;
    const Follower::Outcome outcome = root.follower.take(sequence, step.event, refusal);
    ++counters_.outcomes.at(static_cast<std::size_t>(outcome));
    if (outcome == Follower::Outcome::REFUSED) {
      const std::string text = "An event of " + id + " is refused: " + refusal;
      complain({Problem::Kind::UNUSABLE, id, refusal, text});
    }
    if (outcome == Follower::Outcome::APPLIED) {
      unclaim(id, root);
      root.claimer = Topics::decode(message.reporter).value_or("");
      root.isClaimKept = message.isRetained;
      if (root.reporter.empty() && !root.claimer.empty()) claims_[root.claimer].insert(id);
      if (isWholeTree(step.event)) {
        root.isTooLarge = false;
        root.treeBytes = message.payload.size();
      }
      step.after = root.follower.tree();
      if (callbacks_.applied) callbacks_.applied(id, step);
    }
    update(id, root, now);
  } else {
    refuse("An event of " + id + " cannot be read", id);
  }
  bytesRead_ += message.payload.size();
  if (bytesRead_ < mostBytesRead) {
    event_ = std::move(step.event);
  } else {
    bytesRead_ = 0;
  }
}

void Collector::Core::receiveState(const std::string& name, const Message& message, Time now) {
  monitoring::ReporterState state;
  if (message.payload.size() > options_.mostBytes || !state.ParseFromString(message.payload)) {
    return refuse("A state of " + name + " cannot be read");
  }
  if (message.payload.empty()) {  // the name does not come back
    if (message.topic == topics_.state(name)) forgetPeer(name, now);
    return;
  }
  const bool isFirst = peers_.empty();
  Peer& peer =
      peers_.try_emplace(name, now, options_.firstPartition, options_.lastPartition).first->second;
  Peer::News news;
  const Peer::Verdict verdict = peer.take(state, message.isRetained, now, news);
  if (verdict == Peer::Verdict::RIVAL) {
    complain({Problem::Kind::RIVAL, "", "", "Two processes report under the name " + name});
  }
  if (verdict != Peer::Verdict::TAKEN) return;
  if (peer.isThere()) states_.drop(name);
  for (const unsigned int partition : news.gone) {
    const std::string topic = topics_.roots(partition, name);
    lists_.drop(topic);
    reviews_.queue(topic);
  }
  const auto need = [&](unsigned int partition, std::chrono::milliseconds patience) {
    lists_.need(topics_.roots(partition, name), now, patience, 0, random_);
  };
  for (const unsigned int partition : news.announced) need(partition, options_.firstPause);
  for (const unsigned int partition : news.differing) {
    need(partition, peer.part(partition)->isConfirmed ? options_.gapPause : noPause);
  }
  for (const unsigned int partition : news.agreed) {
    const std::string topic = topics_.roots(partition, name);
    lists_.drop(topic);
    reviews_.queue(topic);
  }
  if (!peer.isThere()) dropRequests(name, peer);
  if (peer.isOnline() && !peer.isConfirmed()) needState(name, now);
  if (news.isOther) lineUp(name, peer);
  review(now);
  if (peer.isThere()) checkClaims(name, now);
  if (isFirst) updateClaimed(now);
}

void Collector::Core::receiveList(unsigned int partition, const std::string& name,
                                  const Message& message, Time now) {
  if (message.payload.empty()) return;  // the next state says so too
  monitoring::RootList list;
  if (message.payload.size() > options_.mostBytes || !list.ParseFromString(message.payload)) {
    return refuse("A list of the roots of " + name + " cannot be read");
  }
  if (reviews_.contains(message.topic)) review(message.topic, now);
  const auto entry = peers_.find(name);
  if (entry == peers_.end()) return;
  Peer& peer = entry->second;
  const Peer::Part* const before = peer.part(partition);
  const bool wasConfirmed = before != nullptr && before->isConfirmed;
  Peer::Roots unlisted;
  if (!peer.take(partition, list, message.isRetained, now, unlisted)) return;
  if (!message.isRetained) lists_.rest(message.topic);
  std::uint64_t sum = 0;
  for (const auto& [id, listed] : peer.part(partition)->roots) {
    noteListed(id, name, !message.isRetained && peer.isThere(), now);
    sum += roots_.at(id).mark;
  }
  peer.move(partition, sum);
  for (const auto& [id, listed] : unlisted) unlist(id, name, now);
  for (const auto& [id, listed] : peer.part(partition)->roots) {
    update(id, roots_.at(id), now, wasConfirmed ? options_.gapPause : noPause);
  }
}

void Collector::Core::forgetPeer(const std::string& name, Time now) {
  const auto entry = peers_.find(name);
  if (entry == peers_.end()) return;
  dropRequests(name, entry->second);
  entry->second.forget(now);
  lineUp(name, entry->second);
  if (entry->second.isForgotten()) peers_.erase(entry);
  review(now);
}

// So claims do not outnumber the roots, whatever names events may hold.
void Collector::Core::unclaim(const std::string& id, const Root& root) {
  const auto claims = claims_.find(root.claimer);
  if (claims == claims_.end()) return;
  claims->second.erase(id);
  if (claims->second.empty()) claims_.erase(claims);
}

unsigned int Collector::Core::partitionOf(const Root& root) {
  return static_cast<unsigned int>(root.hash % Topics::PARTITIONS);
}

// A reporter that ended without clearing a tree, and came back without the root, leaves the tree
// with the broker, which would keep it for ever. An event says whose it is, and every list that
// goes out after it has the root. So if the list does not, the tree is nobody's. An event that the
// broker had kept went out before. One that has just arrived may have been overtaken by one state:
// the next decides. A part that does not agree with it decides nothing, as its list is an old one.
void Collector::Core::checkClaims(const std::string& name, Time now) {
  const auto claims = claims_.extract(name);
  if (claims.empty()) return;
  monitoring::TreeRequest request;
  for (const std::string& id : claims.mapped()) {
    Root& root = roots_.at(id);
    if (!root.reporter.empty() || !root.follower.tree()) continue;
    const Peer::Part* const part = peers_.at(name).part(partitionOf(root));
    const bool isOpen = part != nullptr && !part->agrees;
    if (isOpen || !std::exchange(root.isClaimKept, true)) {
      claims_[name].insert(id);
      continue;
    }
    root.follower.forget();
    update(id, now);
    request.add_roots(id);  // the reporter has it not, and clears it
  }
  if (request.roots_size() > 0) send(name, request);
}

Collector::Core::Root& Collector::Core::takeUp(const std::string& id, Time now) {
  const auto [entry, isNew] = roots_.try_emplace(id, id);
  if (isNew) {
    entry->second.since = now;
    unlisted_.insert(id);
    ++conditions_.at(static_cast<std::size_t>(entry->second.condition));
  }
  return entry->second;
}

// Of two reporters of one root the first counts, as long as it is online and lists the root. If the
// last word counted, the two would take the root from each other with every state.
void Collector::Core::noteListed(const std::string& id, const std::string& name, bool isOfNow,
                                 Time now) {
  Root& root = takeUp(id, now);
  if (std::find(root.listers.begin(), root.listers.end(), name) == root.listers.end()) {
    root.listers.push_back(name);
  }
  choose(id, root, name, isOfNow);
}

void Collector::Core::choose(const std::string& id, Root& root, const std::string& name,
                             bool isOfNow) {
  const Peer& peer = peers_.at(name);
  if (root.reporter != name) {
    const auto other = peers_.find(root.reporter);
    if (other != peers_.end() && (other->second.isOnline() || !peer.isOnline())) {
      if (peer.isOnline() && root.rival != name) {
        root.rival = name;
        const std::string reason = "by " + root.reporter + " and by " + name;
        complain({Problem::Kind::RIVAL, id, reason, "The root " + id + " is reported " + reason});
      }
      return;
    }
    if (root.reporter.empty()) unlisted_.erase(id);
    root.reporter = name;
    trees_.drop(id);  // it was another one that was asked in vain
  }
  const Peer::Listed* const listed = peer.find(partitionOf(root), id);
  root.heldBack = listed->heldBack;
  root.follower.reported(listed->latest, isOfNow);
}

// The one that counted is there no longer.
void Collector::Core::chooseAnother(const std::string& id, Root& root) {
  for (const std::string& other : root.listers) {
    if (peers_.at(other).isOnline()) choose(id, root, other, false);
  }
}

void Collector::Core::unlist(const std::string& id, const std::string& name, Time now) {
  const auto entry = roots_.find(id);
  if (entry == roots_.end()) return;
  Root& root = entry->second;
  root.listers.erase(std::remove(root.listers.begin(), root.listers.end(), name),
                     root.listers.end());
  if (root.reporter != name) return;
  root.reporter.clear();
  root.heldBack.clear();
  root.rival.clear();
  root.since = now;
  chooseAnother(id, root);
  if (root.reporter.empty()) {
    unlisted_.insert(id);
    root.follower.forget();
  }
  update(id, now);
}

void Collector::Core::lineUp(const std::string& name, const Peer& peer) {
  for (const auto& [partition, part] : peer.parts()) {
    reviews_.queue(topics_.roots(partition, name));
  }
}

void Collector::Core::review(Time now) {
  std::size_t roots = 0;
  while (roots <= options_.mostReviewed && reviews_.first() != nullptr) {
    roots += 1 + review(std::string(*reviews_.first()), now);
  }
}

// Returns how many roots the part has. It leaves the line last: until then its roots count as
// doubted.
std::size_t Collector::Core::review(const std::string& topic, Time now) {
  const auto [partition, name] = topics_.listOf(topic).value();
  const auto entry = peers_.find(name);
  const Peer::Part* const part = entry == peers_.end() ? nullptr : entry->second.part(partition);
  std::size_t count = 0;
  if (part != nullptr) {
    Peer& peer = entry->second;
    count = part->roots.size();
    for (const auto& [id, listed] : part->roots) {
      if (part->isGone) {
        unlist(id, name, now);
        continue;
      }
      Root& root = roots_.at(id);
      // The reporter gives numbers to other events than before. So nothing that it says of them
      // tells whether a tree is right, and each has to come whole.
      if (part->wasSetBack) root.follower.distrust();
      const Sequence& where = root.follower.sequence();
      if (part->isInStep && root.reporter == name && where.n > 0) {
        root.follower.reported(where, true);
      }
      if (root.reporter != name) noteListed(id, name, false, now);
      if (!peer.isOnline() && root.reporter == name) chooseAnother(id, root);
      update(id, root, now);
    }
    peer.reviewed(partition);
    if (peer.isForgotten()) {
      dropRequests(name, peer);
      peers_.erase(entry);
    }
  }
  reviews_.drop(topic);
  return count;
}

std::string Collector::Core::partOf(const Root& root) const {
  return topics_.roots(partitionOf(root), root.reporter);
}

bool Collector::Core::isLinedUp(const Root& root) const {
  return reviews_.first() != nullptr && !root.reporter.empty() && reviews_.contains(partOf(root));
}

// Roots that nobody lists are in no part.
void Collector::Core::updateClaimed(Time now) {
  for (const auto& [name, ids] : claims_) {
    for (const std::string& id : ids) update(id, now);
  }
}

// So that the sums of those who list the root are those of where it is.
void Collector::Core::remark(Root& root) {
  const std::uint64_t before =
      std::exchange(root.mark, markOf(root.hash, root.follower.sequence()));
  if (root.mark == before) return;
  for (const std::string& name : root.listers) {
    peers_.at(name).move(partitionOf(root), root.mark - before);
  }
}

// Follows up whatever has changed about the root: what its condition is, and what is asked for.
void Collector::Core::update(const std::string& id, Root& root, Time now,
                             std::chrono::milliseconds gapPause) {
  remark(root);
  const Condition condition = conditionOf(root);
  if (condition != root.condition) {
    root.since = now;
    --conditions_.at(static_cast<std::size_t>(root.condition));
    ++conditions_.at(static_cast<std::size_t>(condition));
    root.condition = condition;
    if (callbacks_.changed) callbacks_.changed(id, condition);
  }
  if (!root.reporter.empty() && !root.follower.isCurrent()) {
    peers_.at(root.reporter).await(partitionOf(root));
  }
  const bool canBeAsked = canAsk(root);
  // States and events have no common order. So while the tree counts as current, the events that
  // the reporter speaks of may be on their way.
  const bool isAwaited = root.follower.isBehind() && condition == Condition::CURRENT;
  const bool isMissing = !isAwaited && (!root.follower.isCurrent() || root.follower.isBehind());
  if (canBeAsked && isAwaited) {
    behind_.at(id, now + options_.patience);
  } else {
    behind_.drop(id);
  }
  if (canBeAsked && isMissing) {
    // A whole tree costs everybody, and one that the broker has kept may still be on its way.
    const auto patience = root.follower.canCatchUp() ? gapPause : options_.firstPause;
    trees_.need(id, now, patience, root.treeBytes, random_);
  } else {
    trees_.drop(id);
  }
}

void Collector::Core::needState(const std::string& name, Time now) {
  states_.need(name, now, noPause, 0, random_);
}

// The reporter has been heard of the root, since the connection began.
bool Collector::Core::isConfirmed(const Root& root, const Peer& peer) const {
  if (!peer.isConfirmed()) return false;
  const Peer::Part* const part = peer.part(partitionOf(root));
  return !peer.isOnline() || root.reporter.empty() || (part != nullptr && part->isConfirmed);
}

// Until a list has the root, its reporter is the one that its last event names.
const Peer* Collector::Core::peerOf(const Root& root) const {
  const auto peer = peers_.find(root.reporter.empty() ? root.claimer : root.reporter);
  return peer == peers_.end() ? nullptr : &peer->second;
}

bool Collector::Core::canAsk(const Root& root) const {
  if (link_ == nullptr || root.reporter.empty() || !root.heldBack.empty()) return false;
  const Peer* const peer = peerOf(root);
  return peer->isThere() && isConfirmed(root, *peer) && !root.follower.isAwaited();
}

// CURRENT promises that this is what the reporter has. So every doubt speaks against it: a
// collector that is cut off, a reporter that was not heard, a word of it that is ahead, or one that
// holds something back.
Condition Collector::Core::conditionOf(const Root& root) const {
  if (!root.follower.tree()) {
    const bool isListed = !root.reporter.empty() && !root.follower.isCurrent();
    return isListed ? Condition::AWAITED : Condition::FORGOTTEN;
  }
  if (link_ == nullptr) return Condition::OUT_OF_DATE;
  const Peer* const peer = peerOf(root);
  if (peer != nullptr && !isConfirmed(root, *peer)) return Condition::OUT_OF_DATE;
  // Nobody has listed it yet: one that was resumed, or the event of a sender that has no name.
  if (peers_.empty() || (peer == nullptr && root.claimer.empty())) return Condition::OUT_OF_DATE;
  if (peer == nullptr || !peer->isOnline()) return Condition::REPORTER_GONE;
  const bool isClaimed = !root.reporter.empty() || !root.isClaimKept;
  const bool isInStep =
      !root.follower.isBehind() || (root.condition == Condition::CURRENT && !isLinedUp(root));
  const bool isCurrent = root.follower.isCurrent() && isInStep && isClaimed;
  return isCurrent && root.heldBack.empty() ? Condition::CURRENT : Condition::OUT_OF_DATE;
}

std::string Collector::Core::reasonOf(const std::string& id, const Root& root,
                                      Condition condition) const {
  if (condition == Condition::CURRENT || condition == Condition::REPORTER_GONE) return "";
  if (link_ == nullptr) return "the collector is not connected";
  if (!root.heldBack.empty()) return "its reporter holds it back: " + root.heldBack;
  const Peer* const peer = peerOf(root);
  if (peers_.empty()) return "no state of any reporter has arrived";
  if (peer == nullptr || !peer->isOnline()) return "its reporter is gone";
  if (!isConfirmed(root, *peer)) return "its reporter has not been heard yet";
  if (root.isTooLarge) return "its events are larger than this collector takes";
  if (root.isUnnumbered) return "its events have no sequence: is there a bridge without MQTT 5?";
  const unsigned int times = trees_.timesAsked(id);
  return times > 2 ? "asked for " + std::to_string(times) + " times in vain" : "";
}

// Once a second: who was silent for too long, and which roots nobody lists. Of many of these a
// portion each time, in turn.
void Collector::Core::check(Time now) {
  nextCheck_ = now + std::chrono::seconds(1);
  if (hearingDue_ <= now) checkHearing(now);
  bool areAllThere = !peers_.empty();
  std::vector<std::string> unneeded;
  for (auto& [name, peer] : peers_) {
    areAllThere = areAllThere && peer.isThere();
    if (peer.isLongGone(now, memory) && !reportsAny(name, peer)) unneeded.push_back(name);
    if (!peer.giveUp(now, options_.silence)) continue;
    dropRequests(name, peer);
    lineUp(name, peer);
  }
  for (const std::string& name : unneeded) forgetPeer(name, now);
  auto id = unlisted_.lower_bound(nextUnlisted_);
  for (std::size_t count = 0; count <= options_.mostReviewed && id != unlisted_.end(); ++count) {
    const auto entry = roots_.find(*id);
    Root& root = entry->second;
    // While there was no connection nobody could list it.
    const Time::duration age = now - std::max(root.since, connectedAt_);
    const bool isForgotten = root.condition == Condition::FORGOTTEN;
    if (root.listers.empty() && isForgotten && age > memory) {
      unclaim(*id, root);
      --conditions_.at(static_cast<std::size_t>(root.condition));
      roots_.erase(entry);
      id = unlisted_.erase(id);
      continue;
    }
    if (!isForgotten && areAllThere && age > options_.silence) {
      // While a reporter is gone it may have the root: its will can be older than that.
      root.follower.forget();
      update(*id, root, now);
    }
    ++id;
  }
  nextUnlisted_ = id == unlisted_.end() ? "" : *id;
}

// A broker grants subscriptions also to those who may not read, and then sends nothing.
void Collector::Core::checkHearing(Time now) {
  hearingDue_ = now + hearing;
  const auto isMissed = [](const auto& entry) {
    return entry.second.condition == Condition::AWAITED && entry.second.heldBack.empty();
  };
  const bool areEventsMissed = !areEventsHeard_ &&
                               conditions_.at(static_cast<std::size_t>(Condition::AWAITED)) > 0 &&
                               std::any_of(roots_.begin(), roots_.end(), isMissed);
  const std::string states = topics_.allStates();
  const std::string events = topics_.allEvents();
  const bool areListsMissed = std::any_of(peers_.begin(), peers_.end(), [](const auto& entry) {
    const auto lacksList = [](const auto& part) { return part.second.version == 0; };
    const auto& parts = entry.second.parts();
    return entry.second.isThere() && std::any_of(parts.begin(), parts.end(), lacksList);
  });
  std::string problem;
  if (!areStatesHeard_ && !areEventsHeard_) {
    problem = "Nothing arrives: either nobody reports, or the broker does not let this user read " +
              states + " and " + events;
  } else if (!areStatesHeard_) {
    problem = "Events arrive and no states: it seems that this user may not read " + states;
  } else if (!areListsHeard_ && areListsMissed) {
    problem =
        "States arrive and no lists: it seems that this user may not read " + topics_.allRoots();
  } else if (!areEventsHeard_ && areEventsMissed) {
    problem = "States arrive and no events: it seems that this user may not read " + events;
  }
  if (!problem.empty() && problem != hearingProblem_) {
    complain({Problem::Kind::NOTHING_HEARD, "", "", problem});
  }
  hearingProblem_ = problem;
}

// Whether a root would be without its reporter, should that be forgotten.
bool Collector::Core::reportsAny(const std::string& name, const Peer& peer) const {
  const auto isItsOwn = [&](const auto& entry) { return roots_.at(entry.first).reporter == name; };
  return std::any_of(peer.parts().begin(), peer.parts().end(), [&](const auto& entry) {
    const Peer::Roots& roots = entry.second.roots;
    return std::any_of(roots.begin(), roots.end(), isItsOwn);
  });
}

void Collector::Core::dropRequests(const std::string& name, const Peer& peer) {
  states_.drop(name);
  for (const auto& [partition, part] : peer.parts()) lists_.drop(topics_.roots(partition, name));
}

// All roots of one reporter go into one request: each request is a message to it.
void Collector::Core::ask(Time now) {
  behind_.advance(now);
  while (const std::string* const first = behind_.first()) {
    const std::string id = *first;
    Root& root = roots_.at(id);
    root.follower.miss();
    update(id, root, now);
  }
  std::map<std::string, monitoring::TreeRequest> requests;
  while (const auto id = trees_.next(now, random_)) {
    Root& root = roots_.at(*id);
    ++counters_.requests;
    // Where that was in vain more than once, something else is wrong than an answer that was lost.
    if (root.follower.canCatchUp() && trees_.timesAsked(*id) <= 2) {
      monitoring::RootState& have = *requests[root.reporter].add_have();
      have.set_root(*id);
      have.set_epoch(root.follower.sequence().epoch);
      have.set_n(root.follower.sequence().n);
    } else {
      ++counters_.treeRequests;
      requests[root.reporter].add_roots(*id);
    }
    update(*id, root, now);
  }
  while (const auto name = states_.next(now, random_)) requests[*name];
  while (const auto topic = lists_.next(now, random_)) {
    ++counters_.listRequests;
    const auto [partition, name] = topics_.listOf(*topic).value();
    requests[name].add_parts(partition);
  }
  for (const auto& [name, request] : requests) send(name, request);
}

void Collector::Core::send(const std::string& name, const monitoring::TreeRequest& request) {
  Message message;
  message.topic = topics_.request(name);
  message.expiry = std::chrono::seconds(60);
  request.SerializeToString(&message.payload);
  link_->publish(message);
}

bool Collector::Core::follows(unsigned int partition) const {
  return options_.firstPartition <= partition && partition <= options_.lastPartition;
}

void Collector::Core::refuse(const std::string& text, const std::string& id) {
  ++counters_.strangers;
  complain({Problem::Kind::UNUSABLE, id, "", text});
}

Collector::Collector(CollectorCallbacks callbacks, const CollectorOptions& options)
    : core_(std::make_unique<Core>(std::move(callbacks), options)) {}

Collector::~Collector() = default;

void Collector::resume(const std::string& root, Tree tree, const Sequence& sequence) {
  core_->resume(root, std::move(tree), sequence);
}

std::vector<std::string> Collector::roots() const { return core_->roots(); }

std::optional<Collector::View> Collector::view(const std::string& root) const {
  return core_->view(root);
}

const Collector::Counters& Collector::counters() const noexcept { return core_->counters(); }

Collector::Census Collector::census() const noexcept { return core_->census(); }

std::optional<Message> Collector::connecting() { return std::nullopt; }

void Collector::connected(Link& link, Time now) { core_->connected(link, now); }

void Collector::disconnected(Time now) { core_->disconnected(now); }

void Collector::settled(std::uint64_t /*number*/, const std::string& refusal, Time /*now*/) {
  core_->settled(refusal);
}

void Collector::received(const Message& message, Time now) { core_->received(message, now); }

Time Collector::serve(Time now) { return core_->serve(now); }

}  // namespace orv::reporting
