#include "reporting/Follower.h"

#include <algorithm>
#include <utility>

#include "device_tree/Utils.h"

namespace orv::reporting {

using device_tree::utils::EventHelper;

Follower::Follower(std::string root) : root_(std::move(root)) {}

// What arrives once more must not be applied once more. And what is still on its way of an epoch
// that was left would bring back a tree that is gone.
bool Follower::isOld(const Sequence& sequence) const noexcept {
  return isOfEpoch(sequence) ? sequence.n <= sequence_.n : isLeft(sequence.epoch);
}

Follower::Outcome Follower::take(const Sequence& sequence, const Event& event,
                                 std::string& errorMessage) {
  errorMessage.clear();
  const bool isSameEpoch = isOfEpoch(sequence);
  if (isOld(sequence)) return Outcome::OLD;
  // A change belongs to the tree that it was computed from. On any other one it would make a tree
  // that no reporter ever had. A whole tree and a removal stand by themselves; but a removal of
  // another epoch may be older than the tree.
  const bool isNext = isSameEpoch && sequence.n == sequence_.n + 1;
  const bool isRemoval = isSameEpoch && event.event_type() == Event::DEVICE_REMOVE;
  if (!isWholeTree(event) && !isNext && !isRemoval) {
    if (isSameEpoch) {
      highest_ = std::max(highest_, sequence.n);
    } else {
      isLost_ = true;
    }
    return Outcome::GAP;
  }
  // Whole trees are built beside the one that is kept, so that a refused one changes nothing.
  Tree tree = isWholeTree(event) ? nullptr : tree_;
  bool isApplied = EventHelper::ApplyEvent(event, tree, errorMessage);
  if (isApplied && tree && tree->getDeviceId() != root_) {
    errorMessage = "The event holds the tree of another root";
    isApplied = false;
  }
  if (!isApplied) {
    isLost_ = true;
    return Outcome::REFUSED;
  }
  if (!isSameEpoch) leaveEpoch();
  // A change that follows what was applied last says nothing of what was lost before.
  if (isWholeTree(event) || isRemoval) isLost_ = false;
  tree_ = std::move(tree);
  sequence_ = sequence;
  return Outcome::APPLIED;
}

void Follower::reported(const Sequence& latest, bool isOfNow) noexcept {
  reported_ = latest;
  if (isOfNow) {
    const bool isBelow = isOfEpoch(latest) && latest.n < sequence_.n;
    if (isBelow && (latest.n + 1 < sequence_.n || doubted_ == sequence_.n)) isLost_ = true;
    doubted_ = isBelow ? sequence_.n : 0;
  }
  // Anyone who may publish can send an event with a high n, which nothing will ever follow. And an
  // event that the broker refused leaves its number to another one.
  if (isOfNow && isOfEpoch(latest)) highest_ = std::min(highest_, latest.n);
}

void Follower::miss() noexcept {
  if (reported_) highest_ = std::max(highest_, reported_->n);
}

void Follower::distrust() noexcept {
  sequence_ = {};
  reported_.reset();
}

void Follower::resume(Tree tree, const Sequence& sequence) {
  leaveEpoch();
  tree_ = std::move(tree);
  sequence_ = sequence;
}

bool Follower::canCatchUp() const noexcept {
  return tree_ && !isLost_ && sequence_.n > 0 && (!reported_ || isOfEpoch(*reported_));
}

void Follower::forget() {
  leaveEpoch();
  tree_.reset();
  reported_.reset();
}

bool Follower::isCurrent() const noexcept {
  return sequence_.n > 0 && !isLost_ && highest_ <= sequence_.n &&
         (!reported_ || isOfEpoch(*reported_));
}

bool Follower::isBehind() const noexcept { return reported_ && reported_->n > sequence_.n; }

bool Follower::isOfEpoch(const Sequence& other) const noexcept {
  return sequence_.n > 0 && other.epoch == sequence_.epoch;
}

// A tree that arrived late can have made this follower leave the epoch that is current. So the word
// of the reporter counts more than what was left.
bool Follower::isLeft(std::uint64_t epoch) const noexcept {
  if (reported_ && reported_->epoch == epoch) return false;
  return std::find(left_.begin(), left_.end(), epoch) != left_.end();
}

void Follower::leaveEpoch() {
  if (sequence_.n > 0) {
    left_.erase(std::remove(left_.begin(), left_.end(), sequence_.epoch), left_.end());
    left_.push_back(sequence_.epoch);
    if (left_.size() > MOST_EPOCHS_LEFT) left_.erase(left_.begin());
  }
  sequence_ = {};
  highest_ = doubted_ = 0;
  isLost_ = false;
}

}  // namespace orv::reporting
