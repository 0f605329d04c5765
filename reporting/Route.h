// Where the next attempt to connect goes, and when.
//
// - The brokers have their order, and each host has its addresses. An attempt that fails is
// followed
//   at once by one to the next address, until all have failed. Then there is a pause, drawn at
//   random, that grows from half a second to half a minute, and the first broker has its turn
//   again.
// - A connection that was made and is lost is followed by a pause, too: many may have lost it. Then
//   all of them look for the first broker again and meet there. If the connection was stable, the
//   pauses begin anew.
// - A host that is not found in time has failed. The answer counts when the host has its next turn.
//
// One thread at a time.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "reporting/Backoff.h"
#include "reporting/Broker.h"
#include "reporting/Endpoint.h"
#include "reporting/Lookup.h"

namespace orv::reporting {

class Route {
 public:
  struct Place {
    Broker::Address broker;
    std::string address;  // numeric
  };

  explicit Route(std::vector<Broker::Address> brokers);

  // The broker whose turn it is.
  const Broker::Address& broker() const { return brokers_.at(at_); }

  // The next place to connect to; empty while it is not yet time or the host is being looked up.
  // Throws std::runtime_error with the reason when the host is not found: the attempt has failed.
  std::optional<Place> next(Time now);
  // When to call `next` again.
  Time due(Time now) const;

  void failed(Time now, std::mt19937_64& random);
  void lost(bool wasStable, Time now, std::mt19937_64& random);

 private:
  void pause(Time now, std::mt19937_64& random);

  std::vector<Broker::Address> brokers_;
  std::vector<std::unique_ptr<Lookup>> lookups_;  // by broker; one at a time for each
  std::size_t at_ = 0;
  std::deque<std::string> addresses_;  // of that broker, which have not been tried
  std::optional<Time> lookupEnd_;      // while one is waited for
  Time nextAttempt_;
  Backoff pauses_;
};

}  // namespace orv::reporting
