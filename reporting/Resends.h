// Which events go out once more, because a collector lacks them, and when.
//
// A collector says how far it has come with a root. What the broker took after that goes out again,
// to everybody: those who have it drop it.
//
// - The first who asks is answered at once. Whoever asks within the next second for nothing more
//   was answered with it: many collectors that start together cost one answer.
// - Whoever asks within that second for more waits until it is over. So a root goes out again once
//   a second at most, whatever is asked for.
//
// It knows no events: whether all of them are kept is another's business. One thread at a time.
// Every operation is O(log of the number of roots that were asked for within the last second).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "reporting/Agenda.h"
#include "reporting/Endpoint.h"

namespace orv::reporting {

class Resends {
 public:
  // Somebody has come as far as the event n of the root.
  void ask(const std::string& root, std::uint64_t n);
  // The root is gone.
  void drop(const std::string& root);

  // The root whose turn it is, and the event after which it goes out again; counts as gone out.
  std::optional<std::pair<std::string, std::uint64_t>> next(Time now);
  // When to call `next` again; Time::max() for not until somebody asks.
  Time due() const { return agenda_.due(); }

 private:
  struct Root {
    std::optional<std::uint64_t> asked;  // the lowest n
    std::optional<std::uint64_t> sent;   // the n after which it went out, within the last second
  };

  std::unordered_map<std::string, Root> roots_;
  Agenda agenda_;
};

}  // namespace orv::reporting
