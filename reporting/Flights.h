// Which roots have an event on its way to the broker, and which may go out beside them.
//
// A broker answers each event: it has taken it, or it refuses it. It may also end the connection in
// place of the answer, or right after it, and then the answers to all others on their way are lost
// as well. So the end of a connection says little. One event that was on its way may be the reason;
// far more often none is, because networks break and brokers restart. What follows from that:
//
// - As many as the window is wide are on their way at once. That is MOST on a good connection. They
//   have MOST_BYTES together at most, or are one: what is on its way takes memory here and with the
//   broker.
// - When a connection ends with events on their way, the next one begins with a window of one. Each
//   event that is taken widens it by one: one goes out, then two, then four. What was on its way
//   goes out first, in its order. So an event that ends connections soon stands alone, and those
//   before it are through.
// - A root is DOUBTED when the broker refused its event, or when the connection ended on that event
//   alone. A doubted root goes out alone: nobody else goes out while it waits for those on their
//   way to be settled, nor while it is on its way itself. One doubted root at a time gets a turn,
//   among the others. So a retry costs the others one round trip, and harms nobody.
// - A doubted root is REFUSED when the broker said so in an answer. It is also refused when the end
//   of a connection came on its event alone twice in a row, each time after another event had gone
//   through on that connection: then it is hardly the network. A refused root waits for a pause
//   that doubles from one try to the next, up to ten minutes.
// - A root that is doubted but not refused waits only until the connection has proved good: another
//   event went through, or a second has passed. So a network that was bad holds nobody up once it
//   is good.
// - An event that is taken ends all doubt of its root.
//
// What goes out beside the events of roots counts for its bytes only: what goes out once more (see
// Resends), which the broker has taken before, and lists of roots. States of the reporter are not
// counted. They are small, at most one is on its way, and a retry that waited for them would wait
// for ever beside roots that come and go.
//
// One thread at a time. It does no input or output and reads no clock.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "reporting/Agenda.h"
#include "reporting/Backoff.h"
#include "reporting/Endpoint.h"

namespace orv::reporting {

class Flights {
 public:
  static constexpr std::size_t MOST = 1000;
  static constexpr std::size_t MOST_BYTES = 4'000'000;

  // What the end of a connection left.
  struct Rest {
    std::vector<std::string> roots;  // what was on its way and has to go out again, in its order
    std::optional<std::string> refused;  // the one of them that is refused now
  };

  void connected(Time now);
  Rest disconnected(Time now);

  // Whether the root whose turn it is may go out now. If not, nobody behind it may.
  bool mayGo(const std::string& root) const;
  // Whether anything may go out beside what is on its way.
  bool hasRoom() const;
  void goes(std::uint64_t number, const std::string& root, std::size_t bytes);
  void goesBeside(std::uint64_t number, std::size_t bytes);
  bool isOnItsWay(const std::string& root) const { return numbers_.count(root) > 0; }

  // The answers of the broker. The root whose event has that number; nothing for a number that is
  // none of an event on its way.
  std::optional<std::string> taken(std::uint64_t number, Time now);
  std::optional<std::string> refused(std::uint64_t number, Time now);

  // Nobody waits to go out. With nothing on its way either, what an earlier connection left is
  // settled, and the window is wide again.
  void rest();

  // What was on its way is of no concern any more: no answer to it is expected. The caller lets go
  // of the turns that it gave.
  void forget();

  bool isDoubted(const std::string& root) const { return doubts_.count(root) > 0; }
  // The root is doubted no longer: it has nothing to say, or is gone.
  void trust(const std::string& root);

  // The doubted root whose turn comes now; the caller queues it behind those that wait already.
  std::optional<std::string> retry(Time now);
  // When to ask for one; Time::max() while one has its turn, and when there is none.
  Time retryDue() const;

 private:
  struct Doubt {
    Backoff pauses{std::chrono::seconds(5), std::chrono::minutes(10)};
    unsigned int ends = 0;  // of connections, in a row, that came on its event alone
  };

  bool land(std::uint64_t number, std::string& root);
  void refuse(const std::string& root, Time now);

  std::map<std::uint64_t, std::string> roots_;  // on their way, in their order
  std::map<std::uint64_t, std::size_t>
      bytes_;  // of each message, also of those that go out once more
  std::size_t allBytes_ = 0;
  std::unordered_map<std::string, std::uint64_t> numbers_;
  std::size_t window_ = MOST;
  bool isWindowSmall_ = false;     // the last connection ended with events on their way
  bool isConnectionGood_ = false;  // an event went through
  std::map<std::string, Doubt> doubts_;
  Agenda retries_;                    // doubted roots; one has its turn until it is settled
  std::optional<std::string> tried_;  // the doubted root that has its turn or is on its way
};

}  // namespace orv::reporting
