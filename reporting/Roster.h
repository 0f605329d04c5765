// What a reporter tells of its roots: a list for each partition, and a summary of each list, which
// all its states carry.
//
// - A list says which roots there are, where each is, and what is held back. It goes out when a
//   root comes or goes, or when what is held back changes; when the broker may not have it; and
//   when somebody asks. If it says something else of what is there, it gets a new version.
// - Where the roots are changes with each event. The sum of their marks in the summary tells that,
//   so no list goes out for it: whoever has the same sum is where the reporter is.
//
// So a state costs what the partitions cost, and not the roots, and what comes or goes costs one
// list of one partition.
//
// Where a root is means the last event that was given to the broker, and not the last one that it
// took: on a connection that keeps its order that is what has arrived when the state does.
//
// One thread at a time. Every operation is O(log of the number of roots), but for those that make a
// message.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "proto/monitoring/reporting.pb.h"
#include "reporting/Sequence.h"

namespace orv::reporting {

class Roster {
 public:
  // The root is there, where it is, and why something later is held back; empty if nothing is.
  // Whether its list is owed now.
  bool put(const std::string& root, const Sequence& latest, const std::string& heldBack);
  // The root is there no longer. Whether its list is owed now.
  bool drop(const std::string& root);

  // Somebody asks for the list of that partition, or the broker did not take it. Nothing is owed of
  // a partition that is not known.
  void owe(unsigned int partition);

  // The list of that partition shall go out once more as the last state announced it: whoever asks
  // need not wait for the next state. Once between two states; returns whether it does.
  bool repeat(unsigned int partition);

  // The broker has kept a list of that partition which is not to stay.
  void oweEvenIfEmpty(unsigned int partition);

  // The broker may have lost the lists that went out. What is not found to be kept, with its
  // version, is owed after `oweDoubted`.
  void doubtKept();
  bool foundKept(unsigned int partition, std::uint64_t version);  // whether it is the last one
  bool oweDoubted();                                              // whether any is
  // All lists are owed, as those of another process.
  void oweAll();

  // Announces the lists that are owed: gives those that say something else a version, from
  // `version` + 1 on, and returns the last.
  std::uint64_t announce(std::uint64_t version);
  // The next list to go out of those that are announced.
  std::optional<unsigned int> next() const;
  // It goes out: empty for a list without roots, which the broker shall forget.
  std::string list(unsigned int partition, std::uint64_t start);

  // Adds the summaries of the lists that have a version.
  void describe(orv::proto::monitoring::ReporterState& state) const;

 private:
  struct Root {
    Sequence latest;
    std::string heldBack;
    std::uint64_t hash;
  };
  struct Part {
    std::map<std::string, Root> roots;
    std::uint64_t version = 0;
    std::uint64_t sum = 0;
    bool isChanged = false;  // since it got its version
    bool isDoubted = false;
    bool isRepeated = false;  // since the last state
  };

  void change(unsigned int partition, Part& part);

  std::map<unsigned int, Part> parts_;
  std::set<unsigned int> owed_;
  std::set<unsigned int> announced_;  // that go out
};

}  // namespace orv::reporting
