#include <gtest/gtest.h>

#include <algorithm>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Collector.h"
#include "reporting/Mark.h"
#include "reporting/Sender.h"
#include "tests/Nodes.h"
#include "tests/reporting/Conversation.h"

namespace {

using namespace std::chrono_literals;
using namespace wire;

const Topics topics("orv/1");

using Roots = std::vector<std::pair<std::string, Sequence>>;

// What a reporter says of its roots: its state, and the lists of all of them.
std::vector<Message> state(const std::string& name, std::uint64_t start, const Roots& roots,
                           bool isOnline = true, const std::string& heldBack = "") {
  static std::uint64_t version = 0;
  std::map<unsigned int, orv::proto::monitoring::RootList> lists;
  for (const auto& [id, latest] : roots) {
    auto& list = lists[Topics::partitionOf(id)];
    list.set_start(start);
    list.set_version(++version);
    auto& root = *list.add_roots();
    root.set_root(id);
    root.set_epoch(latest.epoch);
    root.set_n(latest.n);
    if (!heldBack.empty()) root.set_held_back(heldBack);
  }
  orv::proto::monitoring::ReporterState state;
  state.set_start(start);
  state.set_online(isOnline);
  state.set_version(++version);
  std::vector<Message> messages(1);
  for (const auto& [partition, list] : lists) {
    auto& part = *state.add_parts();
    part.set_partition(partition);
    part.set_version(list.version());
    messages.push_back({topics.roots(partition, name), list.SerializeAsString(), false, {}, {}});
  }
  messages.front() = {topics.state(name), state.SerializeAsString(), false, {}, {}};
  return messages;
}

// The same state once more, where it agrees with a collector that has these roots there.
Message agreeing(const Message& said, const Roots& roots) {
  orv::proto::monitoring::ReporterState state;
  state.ParseFromString(said.payload);
  state.set_version(state.version() + 1);
  for (auto& part : *state.mutable_parts()) {
    part.set_roots(0);
    part.set_sum(0);
    for (const auto& [id, latest] : roots) {
      if (Topics::partitionOf(id) != part.partition()) continue;
      part.set_roots(part.roots() + 1);
      part.set_sum(part.sum() + markOf(hashOf(id), latest));
    }
  }
  return {said.topic, state.SerializeAsString(), false, {}, {}};
}

Message goodbye(const std::string& name, std::uint64_t start) {
  return state(name, start, {}, false).front();
}

Message tree(const std::string& id, const Sequence& sequence, const std::string& idInside) {
  Sender sender(sequence.epoch, 0s);
  std::string refusal;
  const Event& event = sender.next(nodes::node(idInside), {}, refusal)->event;
  return {topics.event(id), event.SerializeAsString(), false, sequence.text(), {}};
}
Message tree(const std::string& id, const Sequence& sequence) { return tree(id, sequence, id); }

// A status change without changes.
Message change(const std::string& id, const Sequence& sequence) {
  return {topics.event(id), std::string("\x08\x01\xba\x06\x00", 5), false, sequence.text(), {}};
}

class CollectorTest : public ::testing::Test {
 protected:
  CollectorTest() { talk.connect(); }

  CollectorCallbacks callbacks() {
    const auto changed = [this](const std::string& id, Condition condition) {
      const auto words = {" is current", " is out of date", " has no reporter", " is forgotten",
                          " is awaited"};
      talk.tell(id + words.begin()[static_cast<int>(condition)]);
    };
    const auto problem = [this](const auto& p) {
      const bool isInText = p.text.find(p.reason) != std::string::npos;
      talk.tell(p.text + (isInText ? "" : " (" + p.reason + ")"));
    };
    return {{}, changed, problem};
  }

  static CollectorOptions seeded() {
    CollectorOptions options;
    options.seed = 1;
    return options;
  }

  Collector collector{callbacks(), seeded()};
  Conversation talk{collector};
};

TEST_F(CollectorTest, OfTwoReportersOfOneRootFollowsTheFirst) {
  talk.hear(state("a", 1, {{"r", {10, 1}}})).hear(tree("r", {10, 1}));
  talk.expect("r is awaited, r is current");
  talk.hear(state("b", 2, {{"r", {20, 1}}})).expect("The root r is reported by a and by b");
  for (std::uint64_t n = 2; n < 5; ++n) {
    talk.hear(tree("r", {20, 1})).hear(tree("r", {10, n}));
    talk.hear(state("a", 1, {{"r", {10, n}}})).hear(state("b", 2, {{"r", {20, 1}}}));
  }
  talk.expect("r is out of date, r is current");
  talk.hear(goodbye("a", 1)).expect("r is out of date");
  talk.hear(state("b", 2, {{"r", {20, 1}}})).hear(tree("r", {20, 2})).expect("r is current");
  talk.after(100s).expect("").after(2s).expect("r has no reporter");
  talk.hear({topics.state("b"), "", true, {}, {}}).expect("r is forgotten");
  for (const std::uint64_t epoch : {1U, 2U}) {
    talk.hear(state("a", 1, {{"r", {epoch, 0}}})).hear(state("b", 2, {{"r", {9, 0}}}));
    talk.expect("r is awaited, The root r is reported by a and by b");
    talk.hear(state("a", 1, {})).expect("").hear(state("b", 2, {})).expect("r is forgotten");
  }
}

TEST_F(CollectorTest, OfTwoProcessesOfOneNameFollowsTheLater) {
  talk.hear(state("a", 1, {{"r", {10, 1}}})).hear(tree("r", {10, 1}));
  talk.expect("r is awaited, r is current");
  talk.hear(state("a", 3, {{"r", {30, 1}}})).expect("r is out of date");
  talk.hear(state("a", 1, {{"r", {10, 2}}})).expect("Two processes report under the name a");
  talk.hear(state("a", 1, {{"r", {10, 2}}})).hear(goodbye("a", 1)).expect("");
  talk.hear(goodbye("a", 3)).expect("r has no reporter");
}

TEST_F(CollectorTest, OfAPartHearsOfThatPart) {
  CollectorOptions options;
  options.lastPartition = Topics::PARTITIONS;
  EXPECT_THROW(Collector({}, options), std::invalid_argument);
  options.lastPartition = 7;
  options.firstPartition = 8;
  EXPECT_THROW(Collector({}, options), std::invalid_argument);
  options.firstPartition = options.lastPartition = Topics::partitionOf("r");
  Collector some(callbacks(), options);
  Conversation other(some);
  other.connect().hear(state("a", 1, {{"r", {1, 1}}, {"elsewhere", {2, 1}}}));
  other.hear(tree("r", {1, 1})).hear(tree("elsewhere", {2, 1}));
  const std::string events = topics.event("r");
  const std::string lists = topics.roots(options.firstPartition, "a");
  EXPECT_EQ(other.topics, (std::vector<std::string>{"orv/1/state/+", "orv/1/gone/+",
                                                    lists.substr(0, lists.size() - 1) + "+",
                                                    events.substr(0, events.size() - 1) + "+"}));
  EXPECT_EQ(some.roots(), std::vector<std::string>{"r"});
  options.firstPartition = 0;
  options.lastPartition = 1;
  Collector first(callbacks(), options);
  EXPECT_THROW(first.resume("r", nodes::node("r"), {1, 1}), std::invalid_argument);
  EXPECT_EQ(Conversation(first).connect().topics.back(), "orv/1/event/1/+");
  EXPECT_EQ(talk.topics, (std::vector<std::string>{"orv/1/state/+", "orv/1/gone/+",
                                                   "orv/1/roots/+/+", "orv/1/event/+/+"}));
}

TEST_F(CollectorTest, TellsOfWhatItCannotUse) {
  const auto unreadable = [](const std::string& topic, const std::string& sequence) {
    return Message{topic, "?", false, sequence, {}};
  };
  talk.hear(state("a", 1, {{"r", {1, 1}}})).hear(tree("r", {1, 1})).forget();
  talk.hear(unreadable("x", "")).expect("A message has the topic x");
  talk.hear(unreadable("orv/1/state/%", "")).expect("A message has the topic orv/1/state/%");
  talk.hear(unreadable("orv/1/state/a", "")).expect("A state of a cannot be read");
  talk.hear(unreadable("orv/1/roots/7/a", "")).expect("A list of the roots of a cannot be read");
  talk.hear(unreadable(topics.event("r"), "1")).expect("An event of r has the sequence '1'");
  talk.hear(unreadable(topics.event("r"), "1.2")).expect("An event of r cannot be read");
  EXPECT_EQ(collector.counters().strangers, 6U);
  talk.hear(unreadable(topics.event("r"), ""));
  talk.expect(
      "An event of r has no sequence: is there a bridge without MQTT 5? (it has no sequence)");
  talk.hear(unreadable(topics.event("r"), "")).expect("");
  EXPECT_EQ(collector.counters().strangers, 8U);
  talk.hear(change("r", {1, 3})).expect("r is out of date");
  talk.hear(unreadable(topics.event("r"), ""));
  EXPECT_EQ(collector.view("r")->reason,
            "its events have no sequence: is there a bridge without MQTT 5?");
  talk.after(1s).refuse("no").expect("ask a r after 1, The broker refuses a request for trees: no");
  talk.after(2s).refuse("no").expect("ask a r after 1");
  talk.after(10s).take().forget().after(20s).refuse("no");
  talk.expect("ask a r, The broker refuses a request for trees: no");
}

TEST_F(CollectorTest, HandsOverTheTreesOfAnEvent) {
  CollectorCallbacks told;
  told.applied = [this](const std::string& id, const orv::reporting::Step& step) {
    talk.tell(id + " " + step.sequence.text() + (step.before ? " before" : "") +
              (step.after ? " after" : ""));
  };
  Collector other(told, seeded());
  Conversation with(other);
  with.connect().hear(tree("r", {1, 1})).hear(tree("r", {1, 1})).hear(change("r", {1, 2}));
  talk.expect("r 1.1 after, r 1.2 before after");
  EXPECT_EQ(with.cut().pause(), Time::max() - Time(1000s));
}

TEST_F(CollectorTest, TakesNoLateEventForALifeOfItsOwn) {
  talk.hear(state("a", 1, {{"r", {1, 1}}})).hear(tree("r", {1, 1})).forget();
  talk.hear(state("a", 1, {})).expect("r is forgotten").after(59min).hear(tree("r", {1, 1}));
  talk.expect("").after(2min).hear(tree("r", {1, 1})).expect("r is out of date");
}

TEST_F(CollectorTest, ForgetsARootThatNobodyLists) {
  talk.hear(state("a", 1, {})).hear(tree("r", {1, 1})).expect("r is out of date");
  talk.after(90s).hear(state("a", 1, {})).expect("").after(12s).expect("r is forgotten");
  // While there is no connection nobody can list it, and a reporter that is gone may have it.
  talk.hear(tree("s", {2, 1})).cut().after(3min).connect().hear(state("a", 1, {})).forget();
  talk.after(85s).expect("").hear(state("a", 1, {})).after(17s).expect("s is forgotten");
  talk.hear(state("b", 2, {})).hear(goodbye("b", 2)).hear(tree("t", {3, 1})).forget();
  for (int i = 0; i < 40; ++i) talk.hear(state("a", 1, {})).after(85s);
  talk.expect("");
  for (int i = 0; i < 4; ++i) talk.hear(state("a", 1, {})).after(85s);
  talk.expect("t is forgotten");
}

TEST_F(CollectorTest, AsksNobodyWhoIsGone) {
  Message kept = state("a", 1, {{"r", {1, 1}}}).front();
  kept.isRetained = true;
  talk.hear(kept).expect("ask a").after(60s).forget().cut().connect().expect("ask a");
  talk.connect().expect("ask a").hear({topics.state("a"), "", true, {}, {}}).after(60s).expect("");
  for (const Message& end : {goodbye("a", 1), Message{topics.state("a"), "", true, {}, {}}}) {
    talk.hear(state("a", 1, {{"r", {1, 1}}}).front()).hear(end).after(60s).expect("");
  }
  talk.hear(state("a", 1, {{"r", {1, 1}}}).front()).after(101s).forget().after(2h).expect("");
  // Also while it is forgotten in portions.
  CollectorOptions options = seeded();
  options.mostReviewed = 0;
  Collector portions({}, options);
  Conversation other(portions);
  other.connect().hear(state("a", 1, {{"a", {1, 1}}, {"r", {1, 1}}}));
  portions.received({topics.state("a"), "", true, {}, {}}, Time(1000s));
  other.connect().forget().after(60s).expect("");
}

TEST_F(CollectorTest, TakesOnlyWholeTreesFromAProcessThatWasSetBack) {
  CollectorOptions options = seeded();
  options.mostReviewed = 0;  // of two parts one is reviewed when the lists arrive
  Collector portions(callbacks(), options);
  Conversation other(portions);
  const Roots roots = {{"a", {1, 5}}, {"r", {1, 5}}};
  other.connect().hear(state("a", 1, roots)).hear(tree("a", {1, 5})).hear(tree("r", {1, 5}));
  talk.forget();
  std::vector<Message> said = state("a", 1, roots);
  orv::proto::monitoring::ReporterState state;
  state.ParseFromString(said.front().payload);
  state.set_connection(1);
  state.set_version(2);
  for (auto& part : *state.mutable_parts()) part.set_version(1);
  said.front().payload = state.SerializeAsString();
  for (auto message = said.begin() + 1; message != said.end(); ++message) {
    orv::proto::monitoring::RootList list;
    list.ParseFromString(message->payload);
    list.set_version(1);
    message->payload = list.SerializeAsString();
  }
  other.hear(said).after(1s);
  talk.expect("a is out of date, r is out of date");
  EXPECT_TRUE(other.count("ask a a") == 1 && other.count("ask a r") == 1);
}

// The event that is missed is none of what the state speaks of.
TEST_F(CollectorTest, TakesAnEventForLaterThanTheStateBeforeIt) {
  CollectorOptions options = seeded();
  options.mostReviewed = 0;
  Collector portions(callbacks(), options);
  Conversation other(portions);
  const Roots roots = {{"a", {1, 5}}, {"r", {1, 5}}};
  const std::vector<Message> said = state("a", 1, roots);
  std::vector<Message> next = {agreeing(said.front(), roots), change("r", {1, 9})};
  for (const auto& root : roots) other.hear(tree(root.first, root.second));
  other.connect().hear(said).cut().connect();
  talk.forget();
  other.hear(next);
  talk.expect("a is current, r is current, r is out of date");
}

TEST_F(CollectorTest, KeepsTheTreesOfAReporterThatIsGone) {
  talk.hear(state("a", 1, {{"r", {1, 1}}})).hear(tree("r", {1, 1})).forget();
  talk.hear(state("b", 2, {}, false)).hear(state("a", 1, {{"r", {1, 1}}}).front());
  talk.hear(goodbye("a", 1)).after(3h).expect("r has no reporter");
  talk.hear(state("a", 1, {{"r", {1, 1}}})).cut().expect("r is current, r is out of date");
  EXPECT_EQ(collector.view("r")->reason, "the collector is not connected");
  talk.after(1h).connect().after(99s);
  EXPECT_EQ(talk.count("r is current"), 0);
  EXPECT_EQ(talk.count("r has no reporter"), 0) << "nobody could hear it before";
  talk.after(3s);
  EXPECT_EQ(talk.count("r has no reporter"), 1);
  EXPECT_EQ(collector.view("r")->reason, "");
}

TEST_F(CollectorTest, TellsOfManyRootsInPortionsAndTheTruthAtOnce) {
  CollectorOptions options = seeded();
  options.mostReviewed = 0;
  Collector portions(callbacks(), options);
  Conversation other(portions);
  const Roots roots = {{"r", {1, 1}}, {"s", {2, 1}}, {"t", {3, 1}}};
  other.connect().hear(state("a", 1, roots));
  for (const auto& root : roots) other.hear(tree(root.first, root.second));
  const Time now(std::chrono::hours(1));
  const auto count = [&](Condition condition) {
    std::size_t views = 0;
    for (const auto& root : roots)
      views += portions.view(root.first)->condition == condition ? 1 : 0;
    return std::pair(views, portions.census().roots.at(static_cast<std::size_t>(condition)));
  };
  EXPECT_EQ(count(Condition::CURRENT), std::pair(std::size_t{3}, std::size_t{3}));
  portions.received(goodbye("a", 1), now);
  EXPECT_EQ(count(Condition::REPORTER_GONE), std::pair(std::size_t{3}, std::size_t{1}));
  portions.disconnected(now);
  EXPECT_EQ(count(Condition::OUT_OF_DATE).first, 3U);
  while (portions.serve(now) <= now) continue;
  EXPECT_EQ(count(Condition::OUT_OF_DATE).second, 3U);
  std::uint64_t start = 1;
  for (const Message& dropped :
       {state("a", 2, {}).front(), Message{topics.state("a"), "", true, {}, {}}}) {
    other.connect().hear(state("a", start, roots));
    start = 3;
    portions.received(dropped, now);
    EXPECT_EQ(portions.roots().size(), 2U);
    while (portions.serve(now) <= now) continue;
    EXPECT_EQ(portions.roots().size(), 0U);
    EXPECT_EQ(count(Condition::CURRENT).second, 0U);
  }
}

TEST_F(CollectorTest, AppliesEachChangeOnceAndAsksForNothingWhileNoneIsMissing) {
  talk.hear(state("a", 1, {{"r", {1, 1}}}))
      .hear(tree("r", {1, 1}))
      .expect("r is awaited, r is current");
  talk.hear(change("r", {1, 2})).hear(change("r", {1, 2})).hear(state("a", 1, {{"r", {1, 2}}}));
  talk.after(60s).expect("");
  EXPECT_EQ(collector.counters().outcomes, (std::array<std::uint64_t, 4>{2, 1, 0, 0}));
  talk.hear(change("r", {2, 2})).expect("r is out of date");  // what comes before it is missing
}

TEST_F(CollectorTest, MakesGoodWhatIsWrongOrLost) {
  talk.hear(state("a", 1, {{"r", {1, 1}}})).hear(tree("r", {1, 1}, "x"));
  talk.expect("r is awaited, An event of r is refused: The event holds the tree of another root");
  talk.hear(tree("r", {1, 1})).expect("r is current");
  // A change that is none of the reporter's, as its next word says.
  talk.hear(change("r", {1, 9}))
      .expect("r is out of date")
      .hear(state("a", 1, {{"r", {1, 1}}}))
      .expect("r is current");
  // One that may be on its way.
  talk.hear(state("a", 1, {{"r", {1, 2}}})).after(4s).expect("").after(2s);
  talk.expect("r is out of date, ask a r after 1");
  orv::proto::monitoring::TreeRequest request;
  request.ParseFromString(talk.last.payload);
  EXPECT_TRUE(request.have(0).epoch() == 1 && talk.last.expiry == 60s);
  talk.hear(goodbye("a", 1)).hear(state("a", 1, {{"r", {1, 2}}}).front());
  talk.expect("r has no reporter, r is out of date");
}

TEST_F(CollectorTest, TakesAKeptStateForNoSignOfLife) {
  std::vector<Message> kept = state("a", 1, {{"r", {1, 5}}});
  for (Message& message : kept) message.isRetained = true;
  talk.hear(kept).hear(tree("r", {1, 1}));
  talk.expect("r is awaited, ask a, r is out of date");  // for no tree: the reporter may be gone
  talk.hear(state("a", 1, {{"r", {1, 6}}})).after(10ms).expect("ask a r after 1");
  // Nor is a list that may be of a process before.
  std::vector<Message> said = state("b", 2, {{"s", {2, 1}}});
  said.front().isRetained = true;
  talk.hear(said).hear(tree("s", {2, 1})).expect("s is awaited, ask b, s is out of date");
}

TEST_F(CollectorTest, AsksForNoListWhileAStateAgrees) {
  std::vector<Message> said = state("a", 1, {{"r", {1, 1}}});
  talk.hear(said).hear(tree("r", {1, 1})).expect("r is awaited, r is current");
  for (const std::uint64_t n : {1U, 2U, 1U}) {
    said.front() = agreeing(said.front(), {{"r", {1, n}}});
    talk.hear(said.front()).after(90s);
    EXPECT_EQ(talk.count("ask a part 213") > 0, n == 2);
    talk.forget();
  }
}

// Two hours later nothing of the root is left that its former reporter could stumble over.
TEST_F(CollectorTest, OutlivesARootThatAReporterWhichIsGoneLists) {
  talk.hear(state("b", 2, {{"r", {1, 1}}, {"s", {2, 1}}})).hear(tree("r", {1, 1}));
  talk.hear(goodbye("b", 2)).hear(state("a", 1, {{"r", {3, 1}}})).hear(state("a", 1, {}));
  for (int i = 0; i < 150; ++i) talk.hear(state("a", 1, {})).after(50s);
  talk.forget().hear(state("b", 2, {{"r", {1, 1}}, {"s", {2, 1}}}));
  talk.expect("r is awaited");
}

TEST_F(CollectorTest, GathersAndLimitsRequestsThatGrowRare) {
  Roots roots;
  for (int i = 0; i < 1000; ++i) roots.push_back({std::to_string(i), {1, 1}});
  talk.hear(state("a", 1, roots)).after(999ms);
  EXPECT_EQ(collector.counters().requests, 500U);
  const std::uint64_t& requests = collector.counters().requests;
  const std::uint64_t sent = talk.sent();
  talk.after(10s);
  EXPECT_LT(talk.sent() - sent, 110) << "some of them together";
  for (int i = 0; i < 30; ++i) talk.hear(state("a", 1, roots)).after(20s);
  EXPECT_LT(requests, 12'000U) << "pauses double";
  for (int i = 0; i < 180; ++i) talk.hear(state("a", 1, roots)).after(20s);
  EXPECT_LT(requests, 16'000U) << "up to an hour, as the answers seem not to help";
  EXPECT_EQ(collector.view("7")->reason, "asked for 12 times in vain");
}

TEST_F(CollectorTest, AsksForTheEventsThatItLacks) {
  CollectorOptions options = seeded();
  options.mostAwaited = 1;
  Collector one(callbacks(), options);
  Conversation other(one);
  const auto now = [](std::uint64_t n) {
    return state("a", 1, {{"r", {1, n}}, {"s", {2, n}}, {"t", {3, 3}}});
  };
  one.resume("r", nodes::node("r"), {1, 3});
  one.resume("s", nodes::node("s"), {7, 3});
  EXPECT_THROW(one.resume("t", nodes::node("r"), {1, 3}), std::invalid_argument);
  talk.expect("r is out of date, s is out of date");
  other.connect().hear(now(3)).after(0s);
  talk.expect("r is current, t is awaited");
  EXPECT_EQ(one.census().roots, (std::array<std::size_t, 5>{1, 1, 0, 0, 1}));
  other.hear(tree("s", {2, 3})).hear(tree("t", {3, 3})).expect("");
  talk.expect("s is current, t is current");
  // An event that shows that the one before it was lost.
  other.hear(change("r", {1, 5})).after(100ms).expect("ask a r after 3");
  other.hear(change("r", {1, 4})).hear(change("r", {1, 5})).after(60s).expect("");
  talk.expect("r is out of date, r is current");
  // What arrives makes room for the next.
  other.hear(now(6)).after(5s + 100ms);
  EXPECT_EQ(one.counters().requests, 2U);
  const bool isFirst = other.count("ask a r after 5") == 1;
  other.hear(tree(isFirst ? "r" : "s", {isFirst ? 1U : 2U, 6}));
  EXPECT_EQ(other.count(isFirst ? "ask a s after 3" : "ask a r after 5"), 1);
  // In vain: something else is wrong than an answer that was lost.
  other.forget().after(60s);
  EXPECT_EQ(other.count("after"), 1);
  EXPECT_EQ(one.counters().treeRequests, one.counters().requests - 4);
}

TEST_F(CollectorTest, DoesNotTakeWhatIsHeldBackForCurrent) {
  const auto withReason = [](const std::string& reason, const Sequence& latest) {
    return state("a", 1, {{"r", latest}, {"new", {2, 0}}}, true, reason);
  };
  talk.hear(withReason("", {1, 1})).hear(tree("r", {1, 1}));
  talk.expect("r is awaited, new is awaited, r is current");
  talk.hear(withReason("full", {1, 1})).expect("r is out of date").after(60s).expect("");
  EXPECT_EQ(collector.view("r")->reason, "its reporter holds it back: full");
  EXPECT_EQ(collector.view("new")->reason, "its reporter holds it back: full");
  talk.hear(withReason("", {1, 1})).expect("r is current");
  // The list of a will is old, and so is the word of a reporter that takes another one's place.
  for (std::uint64_t n = 2; n < 5; ++n) talk.hear(change("r", {1, n}));
  talk.hear(goodbye("a", 1)).expect("r has no reporter");
  talk.hear(withReason("", {1, 4})).expect("r is current");
  // A reporter that was set back knows less than has arrived.
  talk.hear(withReason("", {1, 3})).expect("");
  talk.hear(withReason("", {1, 2})).expect("r is out of date").after(1s).expect("ask a r");
}

TEST_F(CollectorTest, TellsThatAReporterIsGoneOnceAnyIsThere) {
  Message message = tree("r", {1, 1});
  message.reporter = "b";
  talk.hear(message).expect("r is out of date").hear(state("a", 1, {})).expect("r has no reporter");
  // The broker has forgotten the tree.
  const Message nothing{topics.event("r"), "", true, {}, {}};
  talk.hear(nothing).expect("r is forgotten").after(62min).hear(state("b", 2, {})).expect("");
  talk.hear(nothing).hear(state("b", 2, {{"r", {1, 1}}})).hear(tree("r", {1, 1})).hear(nothing);
  talk.expect("r is awaited, r is current");
  // The list says so without a state.
  orv::proto::monitoring::RootList list;
  list.set_start(2);
  list.set_version(1'000'000);
  talk.hear({topics.roots(Topics::partitionOf("r"), "b"), list.SerializeAsString(), false, {}, {}});
  talk.expect("r is forgotten");
}

TEST_F(CollectorTest, ForgetsATreeThatItsReporterDoesNotHave) {
  const auto of = [](Message message, bool isKept) {
    message.reporter = "a";
    message.isRetained = isKept;
    return message;
  };
  talk.hear(state("b", 2, {}, false)).hear(of(state("a", 1, {}).front(), true));
  talk.hear(of(tree("r", {1, 1}), true)).expect("ask a, r is out of date");
  talk.hear(state("a", 1, {})).expect("r is forgotten, ask a r");  // so that it is cleared
  // One that has just arrived is listed soon.
  talk.hear(of(tree("new", {2, 1}), false)).expect("new is current");
  talk.hear(state("a", 1, {})).expect("").hear(state("a", 1, {{"new", {2, 1}}})).expect("");
  talk.hear(of(tree("other", {3, 1}), false)).hear(state("a", 1, {{"new", {2, 1}}}));
  talk.expect("other is current").hear(state("a", 1, {{"new", {2, 1}}}));
  talk.expect("other is forgotten, ask a other");
}

TEST_F(CollectorTest, SaysOnceWhatItSeemsToHaveNoRightToRead) {
  const std::string nothing =
      "Nothing arrives: either nobody reports, or the broker does not let this user read "
      "orv/1/state/+ and orv/1/event/+/+";
  const std::string noStates =
      "Events arrive and no states: it seems that this user may not read orv/1/state/+";
  const std::string noEvents =
      "States arrive and no events: it seems that this user may not read orv/1/event/+/+";
  talk.after(200s).expect(nothing);
  talk.hear(tree("r", {1, 1})).after(200s).expect("r is out of date, " + noStates);
  EXPECT_EQ(collector.view("r")->reason, "no state of any reporter has arrived");
  talk.hear(state("a", 1, {{"r", {1, 1}}})).expect("r is current");
  talk.cut()
      .forget()
      .connect()
      .hear(state("a", 1, {{"r", {1, 1}}}))
      .after(50s)
      .expect("ask a, r is current");
  talk.hear(state("a", 1, {{"r", {1, 1}}, {"other", {2, 1}}})).after(90s);
  EXPECT_EQ(talk.count(noEvents), 1);
  const std::string noLists = "States arrive and no lists: it seems that this user may not read ";
  talk.cut().forget().connect().hear(state("a", 1, {}).front()).after(90s);
  EXPECT_EQ(talk.count(noLists), 0) << "it has no roots";
  std::vector<Message> said = state("a", 1, {{"r", {1, 1}}, {"held", {5, 0}}}, true, "full");
  said.pop_back();
  talk.cut().connect().hear(said).after(90s);
  EXPECT_EQ(talk.count(noLists) + talk.count(noEvents), 0) << "one list is there";
  talk.cut().forget().connect().hear(state("a", 1, {{"new", {3, 1}}}).front()).after(90s);
  EXPECT_EQ(talk.count(noLists + "orv/1/roots/+/+"), 1);
}

TEST_F(CollectorTest, SaysOnceThatEventsAreTooLarge) {
  CollectorOptions options;
  const Message most = tree("r", {1, 10}, std::string(50, 'x'));
  options.mostBytes = most.payload.size();
  Collector small(callbacks(), options);
  Conversation other(small);
  const std::string large(100, 'x');
  other.connect().hear(state("a", 1, {{"r", {1, 1}}})).hear(tree("r", {1, 1}, large));
  talk.expect("r is awaited, An event of r is refused: it has 227 bytes");
  other.hear(tree("r", {1, 2}, large));
  talk.expect("");
  EXPECT_EQ(small.view("r")->reason, "its events are larger than this collector takes");
  other.hear(tree("r", {1, 2})).hear(change("r", {1, 9}));
  EXPECT_EQ(small.view("r")->reason, "");
  talk.forget();
  other.hear(most);
  talk.expect("An event of r is refused: The event holds the tree of another root");
  other.after(61min);
  talk.forget();
  other.hear(tree("s", {1, 1}, large)).after(5s).hear(tree("s", {1, 2}, large));
  talk.expect("An event of s is refused: it has 227 bytes");
}

}  // namespace
