#include "reporting/Route.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace orv::reporting {

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr seconds patience(10);           // with a name server
constexpr milliseconds betweenLooks(20);  // at whether it has answered

}  // namespace

Route::Route(std::vector<Broker::Address> brokers)
    : brokers_(std::move(brokers)),
      lookups_(brokers_.size()),
      pauses_(milliseconds(500), seconds(30)) {}

std::optional<Route::Place> Route::next(Time now) {
  if (now < nextAttempt_) return std::nullopt;
  if (addresses_.empty()) {
    auto& lookup = lookups_.at(at_);
    if (!lookup) lookup = std::make_unique<Lookup>(broker().host);
    if (!lookupEnd_) lookupEnd_ = now + patience;
    if (!lookup->isDone()) {
      if (now >= *lookupEnd_) throw std::runtime_error("No name server answers");
      nextAttempt_ = now + betweenLooks;
      return std::nullopt;
    }
    const std::unique_ptr<Lookup> done = std::move(lookup);
    for (std::string& address : done->addresses()) addresses_.push_back(std::move(address));
    lookupEnd_.reset();
  }
  Place place{broker(), std::move(addresses_.front())};
  addresses_.pop_front();
  return place;
}

Time Route::due(Time now) const { return std::max(now, nextAttempt_); }

void Route::failed(Time now, std::mt19937_64& random) {
  lookupEnd_.reset();
  if (!addresses_.empty()) return;
  at_ = (at_ + 1) % brokers_.size();
  if (at_ == 0) pause(now, random);
}

void Route::lost(bool wasStable, Time now, std::mt19937_64& random) {
  if (wasStable) pauses_.reset();
  addresses_.clear();
  at_ = 0;
  pause(now, random);
}

void Route::pause(Time now, std::mt19937_64& random) { nextAttempt_ = now + pauses_.next(random); }

}  // namespace orv::reporting
