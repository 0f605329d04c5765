#include <gtest/gtest.h>

#include <map>

#include "reporting/Sender.h"
#include "tests/Nodes.h"

namespace {

using namespace nodes;
using namespace orv::reporting;
using namespace std::chrono_literals;

Tree chain(unsigned int levels, const std::string& lowest) {
  Tree tree = node(lowest);
  while (--levels > 0) tree = node(std::to_string(levels), {tree});
  return tree;
}

TEST(Sender, SendsWhatReceiversCanTakeAndSaysWhatNot) {
  const Time now{1000s};
  std::string refusal;
  Sender sender(7, 10s);
  EXPECT_EQ(sender.next(chain(99, "x"), now, refusal), nullptr);
  EXPECT_EQ(refusal, "The tree has more than 98 levels");
  Tree live = chain(3, "x");
  attach(*live->getDeviceById("x"), node("1"));
  EXPECT_EQ(sender.next(live, now, refusal), nullptr);
  EXPECT_NE(refusal.find("Sub-device has same ID as parent: 1"), std::string::npos) << refusal;

  live = chain(98, "x");
  const Publication* publication = sender.next(live, now, refusal);
  ASSERT_TRUE(publication && Event().ParseFromString(publication->event.SerializeAsString()));
  EXPECT_EQ(sender.next(live, now, refusal), nullptr) << "while an event is on its way";
  sender.refused();
  ASSERT_NE(sender.next(live, now, refusal), nullptr);
  EXPECT_EQ(sender.onItsWay()->sequence, (Sequence{7, 1})) << "certainly not taken: used again";
  sender.taken();

  // However many ask, one whole tree goes out when the pause is over; changes go out before it.
  sender.requestTree();
  sender.requestTree();
  EXPECT_EQ(sender.next(live, now + 9s, refusal), nullptr);
  live->setGlobalStatus({{}, "changed"});
  ASSERT_NE(sender.next(live, now + 9s, refusal), nullptr);
  EXPECT_EQ(sender.onItsWay()->event.event_type(), Event::STATUS_CHANGE);
  sender.taken();
  live->setGlobalStatus({{}, "changed since"});
  ASSERT_NE(sender.next(live, now + 10s, refusal), nullptr);
  EXPECT_EQ(sender.onItsWay()->event.event_type(), Event::DEVICE_ADD);
  EXPECT_TRUE(sender.repeats());
  const Step repeated = sender.taken();
  EXPECT_EQ(repeated.after->getGlobalStatus(), GlobalStatus({}, "changed"));
  ASSERT_NE(sender.next(live, now + 10s, refusal), nullptr);
  EXPECT_FALSE(sender.repeats());
  EXPECT_EQ(sender.taken().event.event_type(), Event::STATUS_CHANGE);
  EXPECT_EQ(sender.next(live, now + 60s, refusal), nullptr);

  // Two devices of one identifier: receivers take the change for that of the first one, and refuse.
  const Tree second = node("b");
  ASSERT_TRUE(second->addStatus(NamedStatus("s", NamedStatus::TYPE_UINT, 1UL), refusal));
  live = node("r", {node("a", {node("b")}), node("d", {second})});
  Sender other(8, 10s);
  for (const auto type : {Event::DEVICE_ADD, Event::STATUS_CHANGE, Event::DEVICE_ADD}) {
    ASSERT_NE(other.next(live, now, refusal), nullptr);
    EXPECT_EQ(other.onItsWay()->event.event_type(), type);
    other.taken();
    EXPECT_TRUE(other.kept().empty()) << "nobody could build on it";
    second->getStatus("s")->setValue(2UL);
  }
}

TEST(Sender, KeepsNothingThatAReceiverMustNotBuildOn) {
  std::string refusal;
  const Tree live = node("r");
  Sender sender(7, 10s);
  const auto send = [&](const std::string& text) {
    live->setGlobalStatus({{}, text});
    return sender.next(live, Time(1000s), refusal)->event.event_type();
  };
  for (const char* const text : {"tree", "a", "b"})
    send(text), sender.interrupted(), sender.taken();
  send("c");
  sender.refused();
  EXPECT_EQ(sender.lackedAfter({7, 1}), 2U);
  for (const Sequence& have : {Sequence{7, 0}, Sequence{7, 4}, Sequence{8, 1}}) {
    EXPECT_EQ(sender.lackedAfter(have), std::nullopt);
  }
  // Nobody knows who has the event that was refused after an interruption.
  send("c");
  sender.interrupted();
  sender.refused();
  EXPECT_EQ(sender.lackedAfter({7, 3}), std::nullopt);
  for (int i = 0; i < 2; ++i, sender.refused()) {
    EXPECT_EQ(send("d"), Event::DEVICE_ADD);
    EXPECT_EQ(sender.onItsWay()->sequence.n, 5U);
  }
  send("d");
  sender.taken();
  send("e");
  sender.taken();
  EXPECT_GT(sender.keptBytes(), 0U);
  send("f");
  sender.interrupted();
  sender.requestTree();
  sender.restart(9);
  EXPECT_TRUE(sender.kept().empty() && sender.keptBytes() == 0 && !sender.treeDue());
  for (int i = 0; i < 2; ++i, sender.refused()) {
    EXPECT_EQ(send("g"), Event::DEVICE_ADD);
    EXPECT_EQ(sender.onItsWay()->sequence, (Sequence{9, 1}));
  }
}

TEST(Sender, RepeatsNoTreeThatTheBrokerRefuses) {
  std::string refusal = "an old one";
  Tree live = node("r");
  Sender sender(7, 10s);
  const auto send = [&](const std::string& text, Time now) {
    live->setGlobalStatus({{}, text});
    const Publication* const publication = sender.next(live, now, refusal);
    return publication != nullptr && publication->event.event_type() == Event::DEVICE_ADD;
  };
  EXPECT_TRUE(send("a", Time(1s)));
  EXPECT_EQ(refusal, "");
  EXPECT_EQ(sender.taken().after->getGlobalStatus(), GlobalStatus({}, "a"));
  sender.requestTree();
  EXPECT_TRUE(send("a", Time(11s)));
  sender.refused();
  EXPECT_FALSE(sender.treeDue() || sender.next(live, Time(21s), refusal));
  std::string text(1000, 'x');
  for (; !send(text, Time(21s)); text.back() ^= 1) sender.taken();
  sender.refused();
  refusal = "an old one";
  EXPECT_FALSE(send(text, Time(21s)));
  EXPECT_EQ(refusal, "");
  EXPECT_EQ(sender.taken().after->getGlobalStatus(), live->getGlobalStatus());
  live = nullptr;
  sender.requestTree();
  ASSERT_NE(sender.next(live, Time(99s), refusal), nullptr);
  EXPECT_EQ(sender.taken().event.event_type(), Event::DEVICE_REMOVE);
}

// As many bytes again as the tree has, or as are kept at least.
TEST(Sender, SendsTheTreeAgainAfterManyEventsAndNotThoseOfAllRootsAtOnce) {
  std::string refusal;
  std::map<int, int> roots;  // by the number of events of a kilobyte
  for (std::uint64_t epoch = 1; epoch <= 100; ++epoch) {
    const Tree live = node("r");
    Sender sender(epoch, 10s, 4'000);
    int events = -1;  // the first one is the tree
    do {
      live->setGlobalStatus({{}, std::string(1'000, static_cast<char>('a' + ++events))});
      ASSERT_NE(sender.next(live, Time(1000s), refusal), nullptr);
    } while (!isWholeTree(sender.taken().event) || events == 0);
    ++roots[events];
  }
  EXPECT_EQ(roots.begin()->first, 5);
  EXPECT_EQ(roots.rbegin()->first, 7);
  for (const auto& [events, count] : roots) EXPECT_LT(count, 80);
}

}  // namespace
