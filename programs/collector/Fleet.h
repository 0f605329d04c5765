// The fleet that a collector follows, for those who look at it on other threads.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "collector/Changes.h"
#include "collector/TreeHealth.h"
#include "reporting/Collector.h"

// A lock that goes to whoever asked first. The loop of a busy collector takes it again at once, and
// a std::mutex would hardly ever pass to somebody else.
class Turns {
 public:
  void lock();
  void unlock();

 private:
  std::mutex mutex_;
  std::condition_variable passed_;
  std::uint64_t next_ = 0;
  std::uint64_t current_ = 0;
};

// Stands between a connection and a collector and holds a lock during each call. So it is never
// held while the connection waits for the network.
class Fleet final : public orv::reporting::Endpoint {
 public:
  // What a list of the roots shows of one.
  struct Summary {
    std::string name;
    // What its topmost device says of itself. Nothing while there is no tree.
    std::optional<orv::device_tree::GlobalStatus> own;
    std::size_t devices = 0;
    std::size_t warnings = 0;  // so many of the devices are at this level
    std::size_t errors = 0;
    orv::reporting::Condition condition = orv::reporting::Condition::OUT_OF_DATE;
    // Since when its health, which is that of its worst device, and its condition are like that.
    std::chrono::system_clock::time_point healthSince;
    std::chrono::system_clock::time_point conditionSince;

    // That of the device that is worst. Nothing while there is no tree.
    std::optional<orv::device_tree::GlobalStatus::Level> worst() const;
  };
  struct Root {
    Summary summary;
    TreeHealth health;
    std::chrono::system_clock::time_point lastEvent;  // when it was applied
    std::uint64_t version = 0;
  };

  // The callbacks are called under the lock.
  Fleet(orv::reporting::CollectorCallbacks callbacks,
        const orv::reporting::CollectorOptions& options);

  // Hold it while you use what follows and what that returns.
  std::unique_lock<Turns> lock() const { return std::unique_lock<Turns>(turns_); }

  const std::map<std::string, Root>& roots() const { return roots_; }
  // The root has to be one of roots().
  orv::reporting::Collector::View view(const std::string& root) const;
  // Whether the collector has a connection to its broker. Without one no tree is current.
  bool isConnected() const { return isConnected_; }
  const orv::reporting::Collector::Counters& counters() const { return collector_.counters(); }
  // How many events were applied, for each type.
  const std::map<orv::reporting::Event::EventType, std::uint64_t>& events() const {
    return events_;
  }

  // Short texts that stay the same exactly as long as the summaries of all roots and the connection
  // do, or what `view` returns of one.
  std::string listTag() const { return tagOf(list_.version()); }
  std::string rootTag(const std::string& root) const;
  // A text that stays the same for as long as this process runs, and is another one in all others.
  std::string start() const { return std::to_string(start_); }

  // The roots whose summaries have changed.
  const Changes& listChanges() const { return list_; }
  // The devices of the root that have changed, from now on and for as long as somebody has this.
  std::shared_ptr<const Changes> follow(const std::string& root);
  // Is called under the lock when one of these has changed.
  void setListener(std::function<void()> listener) { listener_ = std::move(listener); }

  // Begins with a tree that a history has, see Collector::resume.
  void resume(const std::string& id, const orv::reporting::Tree& tree,
              const orv::reporting::Sequence& sequence);

  std::optional<orv::reporting::Message> connecting() override;
  void connected(orv::reporting::Link& link, orv::reporting::Time now) override;
  void disconnected(orv::reporting::Time now) override;
  void settled(std::uint64_t number, const std::string& refusal, orv::reporting::Time now) override;
  void received(const orv::reporting::Message& message, orv::reporting::Time now) override;
  orv::reporting::Time serve(orv::reporting::Time now) override;

 private:
  orv::reporting::CollectorCallbacks observe(orv::reporting::CollectorCallbacks callbacks);
  void apply(const std::string& id, const orv::reporting::Event& event,
             const orv::reporting::Tree& tree);
  void change(const std::string& id, orv::reporting::Condition condition);
  void update(const std::string& id, Root& root, Summary summary);
  std::shared_ptr<Changes> followed(const std::string& root) const;
  std::string headOf(const std::string& root) const;
  void lookAtHeads(orv::reporting::Time now);
  void notify() const;
  void setConnected(bool isConnected);
  std::string tagOf(std::uint64_t version) const;

  mutable Turns turns_;
  std::map<std::string, Root> roots_;
  std::map<orv::reporting::Event::EventType, std::uint64_t> events_;
  std::uint64_t start_;  // random: the versions of another process are others
  std::uint64_t version_ = 1;
  Changes list_{version_};
  struct Followed {
    std::weak_ptr<Changes> changes;
    std::string head;
  };
  std::map<std::string, Followed> followed_;
  orv::reporting::Time headsAt_{};  // when they were looked at
  std::function<void()> listener_;
  bool isConnected_ = false;
  orv::reporting::Collector collector_;
};

// For people.
std::string textOf(orv::reporting::Condition condition);
// As messages have it: OK, WARNING or ERROR.
std::string textOf(orv::device_tree::GlobalStatus::Level level);
