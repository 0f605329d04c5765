#include "reporting/Sender.h"

#include <utility>

#include "device_tree/Utils.h"
#include "device_tree/Walk.h"

namespace orv::reporting {

using device_tree::DeviceNode;
using device_tree::utils::EventHelper;

namespace {

bool hasMoreLevelsThan(unsigned int most, const DeviceNode& root) {
  device_tree::Walk walk(root);
  while (walk.next() != nullptr) {
    if (walk.depth() >= most) return true;
  }
  return false;
}

}  // namespace

Sender::Sender(std::uint64_t epoch, std::chrono::milliseconds treePause)
    : last_{epoch, 0}, treePause_(treePause) {}

const Publication* Sender::next(const Tree& live, Time now, std::string& errorMessage) {
  errorMessage.clear();
  if (publication_) return nullptr;  // two on their way could arrive in either order
  if (live && hasMoreLevelsThan(MOST_LEVELS, *live)) {
    errorMessage = "The tree has more than " + std::to_string(MOST_LEVELS) + " levels";
    return nullptr;
  }
  Publication publication{{last_.epoch, last_.n + 1}, {}};
  const std::optional<Time> due = treeDue();
  const bool fromNothing = live && due && *due <= now;
  if (!EventHelper::ComputeEvent(fromNothing ? nullptr : snapshot_, live, publication.event)) {
    return nullptr;
  }
  // The next snapshot is built from the message and not copied from the live tree, so that it is
  // what receivers have, and what they cannot build is noticed here.
  if (isWholeTree(publication.event)) {
    lastTree_ = now;
    if (!EventHelper::ApplyEvent(publication.event, published_, errorMessage)) return nullptr;
  }
  return &publication_.emplace(std::move(publication));
}

std::optional<Time> Sender::treeDue() const noexcept {
  if (!owesTree_) return std::nullopt;
  return lastTree_ ? *lastTree_ + treePause_ : Time::min();
}

Step Sender::taken() {
  last_ = publication_->sequence;
  Step step{last_, std::move(publication_->event), snapshot_, {}};
  std::string refusal;
  if (isWholeTree(step.event)) {
    snapshot_ = std::move(published_);
    step.after = snapshot_;
    owesTree_ = false;
  } else if (EventHelper::ApplyEvent(step.event, snapshot_, refusal)) {
    step.after = snapshot_;
  } else {
    // Only where identifiers repeat. Receivers refuse it as well: the next event is a whole tree.
    step.after = std::exchange(snapshot_, nullptr);
  }
  mayHaveArrived_ = false;
  publication_.reset();
  return step;
}

void Sender::restart(std::uint64_t epoch) noexcept {
  last_ = {epoch, 0};
  snapshot_.reset();
  publication_.reset();
  published_.reset();
  mayHaveArrived_ = owesTree_ = false;
}

void Sender::refused() noexcept {
  // Some receivers may have it then and others not, so its number is used up, and only a whole tree
  // is right for all of them.
  if (mayHaveArrived_) {
    last_ = publication_->sequence;
    snapshot_.reset();
  }
  mayHaveArrived_ = false;
  publication_.reset();
  published_.reset();
}

}  // namespace orv::reporting
