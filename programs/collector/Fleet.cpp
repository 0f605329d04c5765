#include "collector/Fleet.h"

#include <array>
#include <functional>
#include <iterator>
#include <memory>
#include <tuple>
#include <utility>

#include "reporting/Seed.h"

using orv::device_tree::GlobalStatus;
using orv::proto::monitoring::GlobalStatus_Level_Name;
using orv::proto::monitoring::StatusChangeEvent;
using orv::reporting::Collector;
using orv::reporting::CollectorCallbacks;
using orv::reporting::Condition;
using orv::reporting::Event;
using orv::reporting::Link;
using orv::reporting::Message;
using orv::reporting::Time;
using orv::reporting::Tree;

void Turns::lock() {
  std::unique_lock<std::mutex> guard(mutex_);
  const std::uint64_t mine = next_++;
  passed_.wait(guard, [this, mine] { return current_ == mine; });
}

void Turns::unlock() {
  const std::lock_guard<std::mutex> guard(mutex_);
  ++current_;
  passed_.notify_all();
}

std::optional<GlobalStatus::Level> Fleet::Summary::worst() const {
  if (!own) return std::nullopt;
  if (errors > 0) return GlobalStatus::LEVEL_ERROR;
  return warnings > 0 ? GlobalStatus::LEVEL_WARNING : GlobalStatus::LEVEL_OK;
}

Fleet::Fleet(CollectorCallbacks callbacks, const orv::reporting::CollectorOptions& options)
    : events_({{Event::DEVICE_ADD, 0},
               {Event::DEVICE_REMOVE, 0},
               {Event::CONFIGURATION_CHANGE, 0},
               {Event::STATUS_CHANGE, 0}}),
      start_(orv::reporting::drawSeed()),
      collector_(observe(std::move(callbacks)), options) {}

CollectorCallbacks Fleet::observe(CollectorCallbacks callbacks) {
  CollectorCallbacks result;
  result.applied = [this, applied = std::move(callbacks.applied)](
                       const std::string& id, const orv::reporting::Step& step) {
    ++events_[step.event.event_type()];
    apply(id, step.event, step.after);
    applied(id, step);
  };
  result.changed = [this, changed = std::move(callbacks.changed)](const std::string& id,
                                                                  Condition condition) {
    change(id, condition);
    changed(id, condition);
  };
  result.problem = std::move(callbacks.problem);
  return result;
}

void Fleet::apply(const std::string& id, const Event& event, const Tree& tree) {
  if (!tree && roots_.count(id) == 0) return;  // the removal of a root that is not known
  Root& root = roots_[id];
  root.lastEvent = std::chrono::system_clock::now();
  Summary summary = {};
  summary.condition = root.summary.condition;
  if (tree) {
    root.health.apply(event, *tree);
    summary.name = tree->getName();
    summary.own = tree->getGlobalStatus();
    summary.devices = root.health.devices();
    summary.warnings = root.health.count(GlobalStatus::LEVEL_WARNING);
    summary.errors = root.health.count(GlobalStatus::LEVEL_ERROR);
  }
  update(id, root, std::move(summary));
  const auto changes = followed(id);
  if (!changes) return;
  if (event.event_type() != Event::STATUS_CHANGE) {
    changes->addAll(version_);
  } else {
    const auto& status = event.GetExtension(StatusChangeEvent::base);
    for (const auto& one : status.global_status_changes()) changes->add(version_, one.device_id());
    for (const auto& one : status.named_status_changes()) changes->add(version_, one.device_id());
  }
  notify();
}

void Fleet::resume(const std::string& id, const Tree& tree,
                   const orv::reporting::Sequence& sequence) {
  const auto guard = lock();
  collector_.resume(id, tree, sequence);
  Event whole;
  whole.set_event_type(Event::DEVICE_ADD);
  apply(id, whole, tree);
}

void Fleet::change(const std::string& id, Condition condition) {
  ++version_;
  if (condition == Condition::FORGOTTEN) {
    roots_.erase(id);
    list_.add(version_, id);
    if (const auto changes = followed(id)) changes->addAll(version_);
    return notify();
  }
  Root& root = roots_[id];
  Summary summary = root.summary;
  summary.condition = condition;
  update(id, root, std::move(summary));
  if (const auto changes = followed(id)) changes->add(version_);
  notify();
}

void Fleet::update(const std::string& id, Root& root, Summary summary) {
  const auto values = [](const Summary& one) {
    return std::tie(one.name, one.own, one.devices, one.warnings, one.errors, one.condition);
  };
  const bool isNew = root.version == 0;
  root.version = ++version_;
  if (!isNew && values(root.summary) == values(summary)) return;
  const auto now = std::chrono::system_clock::now();
  const bool isSameHealth = !isNew && root.summary.worst() == summary.worst();
  const bool isSameCondition = !isNew && root.summary.condition == summary.condition;
  summary.healthSince = isSameHealth ? root.summary.healthSince : now;
  summary.conditionSince = isSameCondition ? root.summary.conditionSince : now;
  root.summary = std::move(summary);
  list_.add(version_, id);
  notify();
}

void Fleet::setConnected(bool isConnected) {
  isConnected_ = isConnected;
  list_.add(++version_);
  notify();
}

std::shared_ptr<Changes> Fleet::followed(const std::string& root) const {
  const auto entry = followed_.find(root);
  return entry == followed_.end() ? nullptr : entry->second.changes.lock();
}

std::shared_ptr<const Changes> Fleet::follow(const std::string& root) {
  for (auto entry = followed_.begin(); entry != followed_.end();) {
    entry = entry->second.changes.expired() ? followed_.erase(entry) : std::next(entry);
  }
  auto changes = followed(root);
  if (!changes) {
    changes = std::make_shared<Changes>(++version_);
    followed_[root] = {changes, headOf(root)};
  }
  return changes;
}

void Fleet::notify() const {
  if (listener_) listener_();
}

Collector::View Fleet::view(const std::string& root) const { return collector_.view(root).value(); }

std::string Fleet::tagOf(std::uint64_t version) const {
  return std::to_string(start_) + "." + std::to_string(version);
}

// Another reporter of the same tree, or another reason, is no event, and nobody is told.
std::string Fleet::headOf(const std::string& root) const {
  const auto now = collector_.view(root);
  return now ? now->reporter + "\n" + now->reason : std::string();
}

void Fleet::lookAtHeads(Time now) {
  if (now - headsAt_ < std::chrono::seconds(1)) return;
  headsAt_ = now;
  for (auto& [id, followed] : followed_) {
    std::string head = headOf(id);
    if (head == followed.head) continue;
    followed.head = std::move(head);
    if (const auto changes = followed.changes.lock()) changes->add(++version_);
    notify();
  }
}

std::string Fleet::rootTag(const std::string& root) const {
  return tagOf(roots_.at(root).version) + "." +
         std::to_string(std::hash<std::string>()(headOf(root)));
}

std::optional<Message> Fleet::connecting() {
  const auto guard = lock();
  return collector_.connecting();
}

void Fleet::connected(Link& link, Time now) {
  const auto guard = lock();
  setConnected(true);
  collector_.connected(link, now);
}

void Fleet::disconnected(Time now) {
  const auto guard = lock();
  setConnected(false);
  collector_.disconnected(now);
}

void Fleet::settled(std::uint64_t number, const std::string& refusal, Time now) {
  const auto guard = lock();
  collector_.settled(number, refusal, now);
}

void Fleet::received(const Message& message, Time now) {
  const auto guard = lock();
  collector_.received(message, now);
}

Time Fleet::serve(Time now) {
  const auto guard = lock();
  lookAtHeads(now);
  return collector_.serve(now);
}

std::string textOf(Condition condition) {
  const std::array<const char*, 5> texts = {"current", "out of date", "its reporter is gone",
                                            "forgotten", "not arrived"};
  return texts.at(static_cast<std::size_t>(condition));
}

std::string textOf(GlobalStatus::Level level) {
  return GlobalStatus_Level_Name(GlobalStatus(level, "").toProtoBuf().level());
}
