#include "reporting/Sender.h"

#include <algorithm>
#include <utility>

#include "device_tree/Utils.h"
#include "device_tree/Walk.h"
#include "reporting/Mark.h"
#include "reporting/Snapshot.h"

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

Tree treeOf(const std::shared_ptr<Snapshot>& snapshot) {
  return snapshot ? snapshot->tree() : nullptr;
}

}  // namespace

Sender::Sender(std::uint64_t epoch, std::chrono::milliseconds treePause, std::size_t leastBytes)
    : last_{epoch, 0}, treePause_(treePause), leastBytes_(leastBytes) {}

const Publication* Sender::next(const Tree& live, Time now, std::string& errorMessage) {
  errorMessage.clear();
  if (publication_) return nullptr;  // two on their way could arrive in either order
  Publication publication{{last_.epoch, last_.n + 1}, {}};
  Event& event = publication.event;
  const bool isInStep = live && snapshot_ && snapshot_->isInStep(*live, event);
  if (live && !isInStep && hasMoreLevelsThan(MOST_LEVELS, *live)) {
    errorMessage = "The tree has more than " + std::to_string(MOST_LEVELS) + " levels";
    return nullptr;
  }
  const bool isChanged =
      isInStep ? event.has_event_type() : EventHelper::ComputeEvent(treeOf(snapshot_), live, event);
  const std::optional<Time> due = treeDue();
  const bool isTreeDue = due && *due <= now;
  const bool isOutgrown = isChanged && sinceTree_ > outgrownAt_;
  // A tree that is sent again is the one that the broker took last. So it need not be built anew,
  // and what has changed since follows as a small event.
  repeats_ = snapshot_ && live && !(isChanged && isWholeTree(event)) && (isTreeDue || isOutgrown);
  if (repeats_) {
    EventHelper::ComputeEvent(nullptr, snapshot_->build(), event);
  } else if (!isChanged) {
    return nullptr;
  }
  if (isWholeTree(event)) lastTree_ = now;
  // The next snapshot is built from the message and not copied from the live tree, so that it is
  // what receivers have, and what they cannot build is noticed here.
  if (repeats_) {
    published_ = snapshot_;
  } else if (isWholeTree(event)) {
    Tree built;
    if (!EventHelper::ApplyEvent(event, built, errorMessage)) return nullptr;
    published_ = std::make_shared<Snapshot>(std::move(built));
  }
  return &publication_.emplace(std::move(publication));
}

std::optional<Time> Sender::treeDue() const noexcept {
  if (!owesTree_) return std::nullopt;
  return lastTree_ ? *lastTree_ + treePause_ : Time::min();
}

Step Sender::taken() {
  Step step{publication_->sequence, {}, treeOf(snapshot_), {}};
  step.event = settle();
  step.after = treeOf(snapshot_);
  return step;
}

Event Sender::settle() {
  last_ = publication_->sequence;
  Event event = std::move(publication_->event);
  keep(event);
  if (isWholeTree(event)) {
    snapshot_ = std::move(published_);
    owesTree_ = false;
  } else if (event.event_type() == Event::DEVICE_REMOVE) {
    snapshot_.reset();
  } else if (!snapshot_->apply(event)) {
    // Only where identifiers repeat. Receivers refuse it as well: the next event is a whole tree.
    letGo();
    snapshot_.reset();
  }
  mayHaveArrived_ = false;
  publication_.reset();
  return event;
}

void Sender::restart(std::uint64_t epoch) noexcept {
  last_ = {epoch, 0};
  snapshot_.reset();
  publication_.reset();
  published_.reset();
  mayHaveArrived_ = owesTree_ = false;
  letGo();
}

void Sender::refused() noexcept {
  // Some receivers may have it then and others not, so its number is used up, and only a whole tree
  // is right for all of them.
  if (mayHaveArrived_) {
    last_ = publication_->sequence;
    snapshot_.reset();
    letGo();
  }
  // Nothing needs that tree, and the broker may take what has changed.
  if (repeats_) {
    sinceTree_ = 0;
    owesTree_ = false;
  }
  mayHaveArrived_ = false;
  publication_.reset();
  published_.reset();
}

void Sender::keep(const Event& event) {
  if (event.event_type() != Event::STATUS_CHANGE) {
    letGo();
    // Roots that change at one pace must not all send their trees at one time.
    const std::size_t least = std::max(event.ByteSizeLong(), leastBytes_);
    outgrownAt_ = least + markOf(0, last_) % (least / 2 + 1);
    sinceTree_ = 0;
    return;
  }
  kept_.push_back(event.SerializeAsString());
  sinceTree_ += kept_.back().size();
  keptBytes_ += kept_.back().size() + sizeof(std::string);
}

std::optional<std::size_t> Sender::lackedAfter(const Sequence& have) const noexcept {
  if (have.epoch != last_.epoch || have.n > last_.n || last_.n - have.n > kept_.size()) {
    return std::nullopt;
  }
  return last_.n - have.n;
}

void Sender::letGo() noexcept {
  kept_ = {};
  keptBytes_ = 0;
}

}  // namespace orv::reporting
