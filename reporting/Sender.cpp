#include "reporting/Sender.h"

#include <utility>
#include <vector>

#include "device_tree/Utils.h"

namespace orv::reporting {

using device_tree::DeviceNode;
using device_tree::utils::EventHelper;

namespace {

bool hasMoreLevelsThan(unsigned int most, const DeviceNode& root) {
  std::vector<const DeviceNode*> level = {&root};
  for (unsigned int levels = 1; levels <= most; ++levels) {
    std::vector<const DeviceNode*> below;
    for (const DeviceNode* device : level) {
      for (const auto& [key, subDevice] : device->getSubDevices()) below.push_back(subDevice.get());
    }
    if (below.empty()) return false;
    level = std::move(below);
  }
  return true;
}

}  // namespace

bool isWholeTree(const Event& event) noexcept {
  return event.event_type() == Event::DEVICE_ADD ||
         event.event_type() == Event::CONFIGURATION_CHANGE;
}

Sender::Sender(std::uint64_t epoch, std::chrono::milliseconds treePause)
    : last_{epoch, 0}, treePause_(treePause) {}

const Publication* Sender::next(const Tree& live, Time now, std::string& errorMessage) {
  errorMessage.clear();
  if (publication_) return nullptr;
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

void Sender::taken() {
  last_ = publication_->sequence;
  std::string refusal;
  if (isWholeTree(publication_->event)) {
    snapshot_ = std::move(published_);
    owesTree_ = false;
  } else if (!EventHelper::ApplyEvent(publication_->event, snapshot_, refusal)) {
    // Only where identifiers repeat. Receivers refuse it as well: the next event is a whole tree.
    snapshot_.reset();
  }
  mayHaveArrived_ = false;
  publication_.reset();
}

void Sender::refused() noexcept {
  if (mayHaveArrived_) {
    last_ = publication_->sequence;
    snapshot_.reset();
  }
  mayHaveArrived_ = false;
  publication_.reset();
  published_.reset();
}

}  // namespace orv::reporting
