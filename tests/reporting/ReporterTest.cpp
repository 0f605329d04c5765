#include <gtest/gtest.h>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Mark.h"
#include "reporting/Reporter.h"
#include "reporting/Topics.h"
#include "tests/Nodes.h"
#include "tests/reporting/Conversation.h"

namespace {

using namespace std::chrono_literals;
using namespace wire;

class ReporterTest : public ::testing::Test {
 protected:
  void change(std::size_t root, const std::string& status) {
    if (root >= live.size()) live.push_back(nodes::node(std::to_string(root)));
    live.at(root)->setGlobalStatus({{}, status});
    reporter.report(live.at(root));
  }
  void changeAll(std::size_t first, std::size_t last) {
    ++changes;
    for (std::size_t root = first; root <= last; ++root) change(root, std::to_string(changes));
  }
  static ReporterOptions options() {
    ReporterOptions options;
    options.heartbeat = 24h;
    return options;
  }

  static Message request(const std::string& root) {
    orv::proto::monitoring::TreeRequest request;
    request.add_roots(root);
    return {"orv/1/request/a", request.SerializeAsString(), false, {}, {}};
  }
  static Message request(const std::string& root, const Sequence& have) {
    orv::proto::monitoring::TreeRequest request;
    auto& state = *request.add_have();
    state.set_root(root);
    state.set_epoch(have.epoch);
    state.set_n(have.n);
    return {"orv/1/request/a", request.SerializeAsString(), false, {}, {}};
  }

  const Message ask{"orv/1/request/a", "", false, {}, {}};  // for the state

  Reporter reporter{"a", {{}, [this](const auto& problem) { talk.tell(problem.text); }}, options()};
  Conversation talk{reporter};
  std::vector<Tree> live;
  int changes = 0;
};

// The broker ends the connection when it has the tree 50, and gives no answer to what it got
// since its last one.
TEST_F(ReporterTest, FindsTheRootForWhichTheBrokerEndsTheConnection) {
  changeAll(0, 1199);
  talk.connect().expect("state, tree 0-999").cut();
  talk.connect().expect("state, tree 0").take();
  talk.takeEach({"tree 1-2", "tree 3-6", "tree 7-14", "tree 15-30"}).expect("tree 31-62").cut();
  talk.connect().expect("state, tree 31").take();
  talk.takeEach({"tree 32-33", "tree 34-37", "tree 38-45"}).expect("tree 46-61").cut();
  talk.connect().expect("state, tree 46").take().takeEach({"tree 47-48"}).expect("tree 49-52");
  talk.cut().connect().expect("state, tree 49").take().expect("tree 50-51");
  talk.cut().connect().expect("state, tree 50");
  // It stands alone, but nothing went through before it. So the others go first.
  talk.cut().connect().expect("state, tree 51").take();
  talk.takeEach({"tree 52-53", "tree 54-57", "tree 58-65", "tree 66-81", "tree 82-113",
                 "tree 114-177", "tree 178-305", "tree 306-561", "tree 562-1073",
                 "tree 1074-1199"});
  changeAll(0, 0);
  talk.expect("tree 50").cut().connect().expect("state, change 0");  // once is no proof
  talk.take().expect("tree 50");
  talk.hear(ask).after(1s).expect("state");  // beside it, and not the culprit
  talk.cut().expect("The broker refuses 50: It ends the connection");

  // It is tried again, and nobody goes out beside it.
  talk.withoutStates().connect().after(5s).expect("tree 50");
  changeAll(0, 2);
  talk.expect("").cut().connect().takeEach({"change 0", "change 1-2"}).after(9s);
  // Also while the others never come to rest. They go on when it is taken.
  changeAll(0, 1199);
  talk.expect("change 0-49, change 51-1000").after(1s);
  changeAll(0, 1199);
  talk.takeEach({"", "change 1001-1199", "tree 50", "change 0-49, change 51-1000"});
  EXPECT_TRUE(reporter.isSettled());
}

TEST_F(ReporterTest, BlamesNoRootWhenTheConnectionEndsForOtherReasons) {
  changeAll(0, 1);
  talk.connect().takeEach({"state, tree 0-1"});
  for (int i = 0; i < 3; ++i) {
    talk.hear(ask).after(1s).expect("state");
    talk.cut().connect().takeEach({"state"}).after(1s);
  }
  changeAll(0, 1);
  talk.hear(ask).expect("state, change 0-1");
  changeAll(0, 0);
  talk.cut().connect().expect("state, change 0").cut();
  talk.connect().takeEach({"state, change 1"}).after(1s).takeEach({"change 0", "change 0"});
  talk.hear(ask).expect("state").refuse("no").expect("The broker refuses the state of a: no");
  talk.cut().connect().expect("state").cut().connect().expect("state");
  talk.cut().expect("The broker refuses the state of a: It ends the connection");
  talk.connect().expect("state").cut().expect("");
}

TEST_F(ReporterTest, GoesOnWithTheRootsThatTheBrokerTakes) {
  changeAll(0, 29);
  talk.withoutStates().connect().expect("tree 0-29").take("tree 20").refuse("no");
  talk.expect("The broker refuses 0-19: no, The broker refuses 21-29: no");
  talk.after(5s).expect("tree 0");
  changeAll(20, 20);
  talk.expect("").refuse("no").takeEach({"change 20", "tree 1", "tree 10", "tree 11", "tree 12"});
  for (int i = 0; !reporter.isSettled(); ++i, talk.take().after(1s)) ASSERT_LT(i, 100);
  talk.expect("tree 13-19, tree 2, tree 21-29, tree 3-9, tree 0");
  changeAll(0, 29);
  talk.takeEach({"change 0-29"});  // no longer alone

  // One that has nothing to say any more gives its turn on.
  change(0, "new");
  talk.expect("change 0").refuse("no").expect("The broker refuses 0: no");
  change(0, std::to_string(changes));
  talk.after(5s).expect("");
  EXPECT_EQ(reporter.view("0")->reason, "");
  changeAll(1, 29);
  talk.expect("change 1-29");
}

TEST_F(ReporterTest, SaysWhatItHoldsBack) {
  EXPECT_THROW(reporter.report(nullptr), std::invalid_argument);
  changeAll(0, 1);
  talk.connect().expect("state, tree 0-1").take("state").take("tree 0").refuse("no");
  EXPECT_TRUE(reporter.view("0")->isSettled && reporter.view("0")->sequence.n == 1);
  EXPECT_TRUE(!reporter.view("1")->isSettled && reporter.view("1")->reason == "no");
  EXPECT_TRUE(reporter.counters().events == 1 && reporter.counters().refusals == 1);
  talk.expect("The broker refuses 1: no").after(999ms).expect("");
  talk.after(1ms)
      .expect("state")
      .take()
      .after(4s)
      .expect("list 1 held back: no, tree 1")
      .take()
      .after(1s)
      .expect("state");
  reporter.remove("0");
  talk.take().expect("removal 0").refuse("no").takeEach({"The broker refuses 0: no, state"});
  talk.expect("list 0 held back: no");
}

TEST_F(ReporterTest, LeavesTheProgramsLoopItsTurn) {
  talk.connect();
  changeAll(0, 149);
  for (const int most : {100, 150}) {
    talk.pause();
    EXPECT_EQ(talk.count("tree"), most);
  }
  talk.forget().take();
  for (const std::size_t root : {0U, 1U, 2U, 3U}) change(root, std::string(100'000, 'x'));
  EXPECT_EQ(talk.pause(), 0s);
  EXPECT_EQ(talk.count("change"), 3);
  // Lists too, also before the process knows whether it was set back.
  talk.withLists().after(0s).take().after(24h).take("state").forget().kept.clear();
  talk.cut().connect().after(1s).take("state").forget();
  talk.cut().connect().take("state");
  EXPECT_GT(talk.count("list"), 100);
}

TEST_F(ReporterTest, IsAnotherProcessOnceItWasSetBack) {
  ReporterOptions seeded = options();
  seeded.seed = 1;
  Reporter before("a", {}, seeded);
  Reporter after("a", {{}, [this](const auto& problem) { talk.tell(problem.text); }}, seeded);
  Conversation first(before);
  Conversation second(after);
  for (Reporter* const process : {&before, &after}) process->report(nodes::node("r"));
  first.connect().takeEach({"state, tree r"});
  second.connect().takeEach({"state, tree r"});
  before.report(nodes::node("r", {nodes::node("later")}));
  first.takeEach({"tree r"}).hear(ask).after(1s).expect("state");
  EXPECT_EQ(second.last.sequence, Sequence::parse(second.last.sequence)->text());
  const std::string sequence = second.last.sequence;
  EXPECT_TRUE(after.isSettled());
  Reporter copy("a", {}, seeded);
  Conversation third(copy);
  copy.report(nodes::node("r"));
  third.connect().takeEach({"state, tree r"}).hear(first.kept.at("orv/1/state/a"));
  EXPECT_EQ(third.count("tree r"), 1);
  after.received(first.kept.at("orv/1/state/a"), {});
  EXPECT_FALSE(after.isSettled());
  second.cut().connect().expect("state, tree r");
  EXPECT_EQ(Sequence::parse(second.last.sequence)->n, 1U);
  EXPECT_NE(second.last.sequence, sequence);
  EXPECT_NE(second.last.sequence, third.last.sequence) << "of two copies each has its own";
  talk.expect("This process was set back in time, or copied: all trees are sent anew");
  orv::proto::monitoring::ReporterState state;
  state.ParseFromString(second.kept.at("orv/1/state/a").payload);
  EXPECT_EQ(state.parts(0).sum(), markOf(hashOf("r"), {}));
  EXPECT_EQ(state.connection(), 2U);
  second.take().cut().connect().takeEach({"state"});
  talk.expect("");
  // Its lists say so as well.
  orv::proto::monitoring::RootList list;
  list.ParseFromString(second.kept.at("orv/1/roots/213/a").payload);
  list.set_version(99);
  second.hear({"orv/1/roots/213/a", list.SerializeAsString(), false, {}, {}});
  second.takeEach({"state, tree r"});
  talk.expect("This process was set back in time, or copied: all trees are sent anew");
  // A root that is doubted waits for the others then.
  changeAll(0, 2);
  talk.connect().expect("state, tree 0-2").take("state").take("tree 1").take("tree 2").refuse("no");
  talk.expect("The broker refuses 0: no").after(4s).forget();
  changeAll(1, 1);
  talk.expect("change 1").after(1s);
  state.ParseFromString(talk.kept.at("orv/1/state/a").payload);
  state.set_version(99);
  talk.hear({"orv/1/state/a", state.SerializeAsString(), false, {}, {}}).forget();
  talk.after(1s).takeEach({"", "list 0 held back: no, tree 0"});
}

TEST_F(ReporterTest, ClearsATreeThatItDoesNotHave) {
  changeAll(0, 1);
  talk.withoutStates().connect().takeEach({"tree 0-1"});
  talk.hear(request("gone")).takeEach({"no tree gone"});
  talk.hear(request("gone")).expect("no tree gone").refuse("not allowed");
  talk.expect("The broker refuses gone: not allowed").after(3600s).expect("");
  EXPECT_TRUE(reporter.isSettled()) << "and leaves it alone";
}

TEST_F(ReporterTest, SendsAgainWhatACollectorLacks) {
  const auto askAfter = [this](std::uint64_t epoch, std::uint64_t n) {
    talk.hear(request("0", {epoch, n}));
  };
  changeAll(0, 0);
  talk.withoutStates().connect().takeEach({"tree 0"});
  for (int i = 0; i < 3; ++i) changeAll(0, 0), talk.takeEach({"change 0"});
  const Message last = talk.last;
  const std::uint64_t epoch = Sequence::parse(last.sequence)->epoch;
  askAfter(epoch, 2), askAfter(epoch, 3), askAfter(epoch, 2);  // of three who ask at once
  talk.expect("change 0, change 0");
  EXPECT_TRUE(talk.last.sequence == last.sequence && talk.last.payload == last.payload);
  EXPECT_FALSE(talk.last.isRetained);
  askAfter(epoch, 1),
      talk.expect("").after(999ms).expect("").after(1ms).takeEach({"change 0, change 0, change 0"});
  // The fate of what is on its way is open, and what comes next follows what was lacked.
  changeAll(0, 0);
  talk.expect("change 0").after(1s);
  askAfter(epoch, 4);
  changeAll(0, 0);
  talk.expect("").takeEach({"", "change 0, change 0"});
  for (const std::uint64_t n : {0U, 9U}) {
    askAfter(epoch + n / 9, n);
    talk.after(10s).takeEach({"tree 0"}).after(10s);
  }
  // What goes out again is limited in bytes, and comes before what is new.
  ReporterOptions keeping = options();
  keeping.leastKept = 100'000'000;
  Reporter large("a", {}, keeping);
  Conversation other(large);
  const Tree tree = nodes::node("0");
  large.report(tree);
  other.withoutStates().connect().takeEach({"tree 0"});
  for (const char letter : {'a', 'b', 'c', 'd', 'e'}) {
    tree->setGlobalStatus({{}, std::string(1'500'000, letter)});
    large.report(tree);
    other.takeEach({"change 0"});
  }
  tree->setGlobalStatus({{}, "new"});
  large.report(tree);
  other.hear(request("0", {Sequence::parse(other.last.sequence)->epoch, 1}));
  other.expect("change 0, change 0, change 0").after(1s);
  other.hear(request("0", {Sequence::parse(other.last.sequence)->epoch, 5})).take();
  other.takeEach({"change 0, change 0, change 0"});
}

TEST_F(ReporterTest, KeepsAsManyEventsAsItMay) {
  ReporterOptions keeping = options();
  keeping.mostKept = 4 * sizeof(std::string);
  Reporter two("a", {}, keeping);
  Conversation other(two);
  other.withoutStates().connect();
  const auto send = [&](const std::string& id, const std::string& what) {
    const Tree tree = nodes::node(id);
    tree->setGlobalStatus({{}, std::to_string(++changes)});
    two.report(tree);
    other.takeEach({what + id});
    return *Sequence::parse(other.last.sequence);
  };
  const Sequence r = send("r", "tree ");
  const Sequence s = send("s", "tree ");
  for (const char* const id : {"r", "s", "r"}) send(id, "change ");
  other.hear(request("r", r)).hear(request("s", s)).expect("change s").take();
  other.after(10s).takeEach({"tree r"});
  // What was kept of a root that is gone takes no room.
  const Tree tree = nodes::node("s");
  tree->setGlobalStatus({{}, "refused"});
  two.report(tree);
  other.expect("change s").cut().connect().after(1s).expect("change s").refuse("no");
  two.remove("s");
  other.after(5s).takeEach({"no tree s"});
  const Sequence later = send("r", "change ");
  send("r", "change ");
  other.hear(request("r", later)).expect("change r").take();
  // One that goes while somebody waits for its events.
  other.hear(request("r", {later.epoch, later.n - 1}));
  two.remove("r");
  other.takeEach({"removal r", "no tree r"}).after(1s).expect("");
}

TEST_F(ReporterTest, SendsTheTreesAgainThatTheBrokerHasLost) {
  const auto echo = [this] {
    Message state = talk.kept.at("orv/1/state/a");
    state.isRetained = false;
    return state;
  };
  changeAll(0, 2);
  talk.connect().takeEach({"state, tree 0-2"}).after(60s);
  talk.hear(echo()).expect("").cut().connect().takeEach({"state"});
  talk.hear(echo()).after(60s).expect("");
  change(0, "refused");
  talk.expect("change 0").refuse("no").takeEach({"The broker refuses 0: no, state"});
  talk.expect("list 0 held back: no").kept.clear();
  talk.cut();
  reporter.report(nodes::node("-"));
  talk.connect().takeEach({"state"}).hear(echo()).expect("tree -, tree 1");
  EXPECT_EQ(talk.pause(), 500us) << "what changes goes out beside them";
  talk.after(1s).takeEach({"tree 2, state"}).after(4s).takeEach({"list 0 held back: no, tree 0"});
}

// A broker may not keep lists, or not take one. Events get out meanwhile.
TEST_F(ReporterTest, WaitsWithListsThatEndConnections) {
  changeAll(0, 1);
  talk.withLists().connect().expect("state, tree 0-1").take().expect("list 0-1").cut();
  talk.connect().takeEach({"state"}).expect("list 0-1").take("list 0").cut();
  changeAll(0, 1);
  talk.connect().expect("state, change 0-1").take("state").expect("list 1").cut();
  talk.connect().expect("state, change 0").take().expect("list 1, change 1").take("change 1").cut();
  talk.connect().takeEach({"state"}).expect("list 1").cut();
  talk.expect("The broker refuses a list of the roots of a: It ends the connection");
  for (const auto pause : {5s, 10s}) {
    changeAll(0, 0);
    talk.connect().takeEach({"state, change 0"}).after(pause - 1ms).expect("");
    talk.after(1ms).expect("list 1").cut();
  }
  talk.connect().after(20s).takeEach({"state"}).expect("list 1").refuse("no");
  talk.expect("The broker refuses a list of the roots of a: no");
  talk.hear(ask).takeEach({"state"}).expect("list 1").cut();
  talk.connect().takeEach({"state"}).expect("list 1").cut().forget();
  talk.connect().takeEach({"state"}).after(1s);
  EXPECT_EQ(talk.pause(), 4s) << "it was answered meanwhile";
}

TEST_F(ReporterTest, ComesAndGoesInOrder) {
  EXPECT_FALSE(reporter.ending({}));
  talk.withLists().connect().takeEach({"state"}).after(1s);
  EXPECT_EQ(talk.pause(), 24h - 1s);
  changeAll(0, 1);
  EXPECT_EQ(talk.expect("state, tree 0-1").pause(), Time::max() - Time(1001s)) << "for an answer";
  talk.take().expect("list 0-1").take();
  EXPECT_EQ(talk.hear(ask).pause(), 1s);
  talk.after(1s).takeEach({"state"});
  reporter.remove("0");
  reporter.remove("unknown");
  EXPECT_FALSE(reporter.isSettled());
  talk.takeEach({"removal 0", "no tree 0"}).after(1s).takeEach({"state", "no list"});
  EXPECT_TRUE(reporter.isSettled() && !reporter.view("0"));
  changeAll(0, 0);
  talk.expect("tree 0")
      .connect()
      .after(1s)
      .expect("state, tree 0")
      .take("tree 0")
      .leave()
      .expect("farewell, list 0")
      .cut();
  EXPECT_EQ(talk.pause(), Time::max() - Time(1004s));
}

TEST_F(ReporterTest, HandsOverTheTreesOfAnEvent) {
  ReporterCallbacks told;
  told.published = [this](const std::string& id, const Step& step) {
    talk.tell(id + " " + std::to_string(step.sequence.n) + (step.before ? " before" : "") +
              (step.after ? " after" : ""));
  };
  Reporter telling("a", told, options());
  Conversation other(telling);
  const Tree tree = nodes::node("r");
  telling.report(tree);
  other.withoutStates().connect().takeEach({"tree r"});
  EXPECT_TRUE(other.last.isRetained);
  tree->setGlobalStatus({{}, "changed"});
  telling.report(tree);
  other.takeEach({"change r"});
  EXPECT_FALSE(other.last.isRetained);
  telling.remove("r");
  other.takeEach({"removal r", "no tree r"});
  EXPECT_TRUE(other.last.isRetained && other.last.sequence.empty());
  talk.expect("r 1 after, r 2 before after, r 3 before");
  EXPECT_TRUE(telling.counters().events == 3 && telling.counters().trees == 1);
}

TEST_F(ReporterTest, TellsOfWhatCannotBe) {
  EXPECT_THROW(Reporter("", {}), std::invalid_argument);
  Tree tree = nodes::node("99");
  for (int level = 98; level > 0; --level) tree = nodes::node(std::to_string(level), {tree});
  reporter.report(tree);
  const std::string reason = "The tree has more than 98 levels";
  talk.connect().expect("state, Cannot report 1: " + reason).take().after(24h);
  EXPECT_TRUE(!reporter.isSettled() && reporter.view("1")->reason == reason);
  talk.expect("list 1 held back: " + reason + ", state").take();
  reporter.report(nodes::node("1"));
  talk.takeEach({"list 1 held back: " + reason + ", tree 1"}).after(1s).takeEach({"state"});
  // What the broker refuses is tried no more where it cannot be sent.
  const Tree changed = nodes::node("1");
  changed->setGlobalStatus({{}, "refused"});
  reporter.report(changed);
  talk.expect("change 1").refuse("no");
  reporter.report(tree);
  talk.after(5s).forget();
  reporter.report(changed);
  talk.expect("change 1").take().after(1s).forget().take();
  talk.hear({"orv/1/state/a", "?", false, {}, {}}).takeEach({"A state of a cannot be read, state"});
  orv::proto::monitoring::ReporterState other;
  other.set_start(1);
  other.set_online(true);
  Message state{"orv/1/state/a", other.SerializeAsString(), true, {}, {}};
  talk.hear(state).expect("");
  state.isRetained = false;
  talk.hear(state).expect("Another process reports under the name a").hear(state).expect("");
  orv::proto::monitoring::RootList list;
  list.set_start(1);
  list.add_roots()->set_root("x");
  talk.hear({"orv/1/roots/7/a", list.SerializeAsString(), true, {}, {}}).after(24h).take();
  EXPECT_EQ(talk.count("no tree"), 0) << "that is not its own";
}

TEST_F(ReporterTest, SaysWhereItsRootsAre) {
  const auto sum = [this] {
    orv::proto::monitoring::ReporterState state;
    state.ParseFromString(talk.hear(ask).after(1s).forget().kept.at("orv/1/state/a").payload);
    talk.take("state");
    return state.parts(0).sum();
  };
  changeAll(0, 0);
  talk.connect().takeEach({"state, tree 0"});
  const std::uint64_t before = sum();
  changeAll(0, 0);
  const std::uint64_t onItsWay = talk.expect("change 0").sent() > 0 ? sum() : 0;
  EXPECT_NE(onItsWay, before) << "collectors have what is on its way before they have the state";
  talk.take();
  EXPECT_EQ(sum(), onItsWay);
  // What the broker refuses never was.
  changeAll(0, 0);
  talk.expect("change 0").refuse("no").after(5s).refuse("no");
  EXPECT_EQ(sum(), onItsWay);
  orv::proto::monitoring::TreeRequest request;
  request.add_parts(Topics::partitionOf("0"));
  talk.withLists().hear({"orv/1/request/a", request.SerializeAsString(), false, {}, {}});
  talk.expect("list 0 held back: no, state").take().after(1s).expect("");
}

TEST_F(ReporterTest, ClearsWhatAnEarlierProcessLeft) {
  const auto list = [](std::uint64_t start, const std::string& root) {
    orv::proto::monitoring::RootList roots;
    roots.set_start(start);
    roots.add_roots()->set_root(root);
    return Message{"orv/1/roots/7/a", roots.SerializeAsString(), true, {}, {}};
  };
  const auto will = [](std::uint64_t start, const std::string& topic = "orv/1/gone/a") {
    orv::proto::monitoring::ReporterState state;
    state.set_start(start);
    return Message{topic, state.SerializeAsString(), false, {}, {}};
  };
  talk.withLists().connect().takeEach({"state"});
  Message strange = list(2, "x");
  strange.topic = "orv/1/roots/7/b";
  talk.hear(list(1, "r")).hear(strange).expect("").hear(will(2)).expect("");
  talk.hear(will(1)).takeEach({"no tree r"}).after(1s).takeEach({"state", "no list"});
  talk.hear(*talk.will)
      .hear(list(1, "s"))
      .takeEach({"no tree s"})
      .after(1s)
      .takeEach({"state", "no list"});
  talk.hear(will(4, "orv/1/state/a")).hear(list(4, "u")).takeEach({"no tree u"});
  talk.after(1s).takeEach({"state", "no list"});
  talk.hear(will(5, "orv/1/state/a")).after(1s).takeEach({"state"});
  // It may end without a word.
  Message other = list(3, "v");
  other.topic = "orv/1/roots/8/a";
  talk.hear(other).hear(list(3, "t")).after(90s).hear(ask).after(1s).takeEach({"state"});
  talk.after(10s).hear(ask).takeEach({"state, no tree t, no tree v", "no list, no list"});
}

TEST_F(ReporterTest, AnswersRequestsForTreesButNotWithoutEnd) {
  changeAll(0, 0);
  talk.connect().takeEach({"state, tree 0"}).hear(request("0")).after(9s).hear(request("0"));
  reporter.report(live[0]);  // nothing has changed
  talk.expect("").after(1s).takeEach({"tree 0"}).hear(request("0")).after(10s).takeEach({"tree 0"});
  EXPECT_EQ(reporter.counters().requests, 3U);
  talk.after(590s).hear(request("0")).takeEach({"tree 0"}).hear(request("0")).after(10s);
  talk.takeEach({"tree 0"}).hear(request("0", {1, 1})).after(10s).takeEach({"tree 0"});
  talk.hear(request("0"))
      .expect(
          "The tree of 0 was sent 3 times, and somebody still asks for it: is there a bridge "
          "without "
          "MQTT 5?")
      .after(10s)
      .takeEach({"tree 0"})
      .hear(request("0"))
      .after(10s)
      .takeEach({"tree 0"});
  talk.hear({"orv/1/request/a", "?", false, {}, {}}).expect("A request to a cannot be read");
  changeAll(0, 0);
  talk.expect("change 0").hear(request("0")).after(10s).expect("").take().takeEach({"tree 0"});
  // What is refused waits for its time, whoever asks.
  talk.withoutStates();
  change(0, "refused");
  talk.expect("change 0").refuse("no").expect("The broker refuses 0: no");
  for (const auto pause : {5s, 10s}) talk.after(pause).expect("change 0").refuse("no");
  talk.hear(request("0")).after(20s - 1ms).expect("").after(1ms).takeEach({"tree 0"});
  talk.after(6s);
  change(0, "refused again");
  talk.expect("change 0").hear(request("0")).refuse("no").after(5s - 1ms);
  talk.expect("The broker refuses 0: no").after(1ms).takeEach({"tree 0"});
}

}  // namespace
