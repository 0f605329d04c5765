#include "collector/FleetHistory.h"

#include <chrono>
#include <cmath>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "collector/Fleet.h"
#include "history/Recorder.h"

using orv::history::Recorder;
using orv::history::RecorderOptions;

namespace {

RecorderOptions recorderOptions(const HistoryOptions& options,
                                std::function<void(const std::string&)> log) {
  RecorderOptions result;
  result.keepAge = std::chrono::seconds(std::llround(options.keepDays * 86400));
  result.keepBytes = static_cast<std::uint64_t>(options.keepSize * 1e9);
  result.problem = std::move(log);
  return result;
}

}  // namespace

struct FleetHistory::Core {
  Core(const HistoryOptions& options, std::function<void(const std::string&)> theLog)
      : log(std::move(theLog)), recorder(options.file, recorderOptions(options, log)) {}

  std::function<void(const std::string&)> log;
  Recorder recorder;
  std::mutex mutex;
  std::string failure;
};

FleetHistory::FleetHistory(const HistoryOptions& options,
                           std::function<void(const std::string&)> log)
    : core_(std::make_unique<Core>(options, std::move(log))) {
  serve(true);
}

FleetHistory::~FleetHistory() = default;

void FleetHistory::resume(Fleet& fleet) {
  for (auto& root : core_->recorder.resume()) {
    try {
      fleet.resume(root.root, root.tree, root.sequence);
    } catch (const std::invalid_argument& refusal) {
      core_->log("A tree of the history is not taken: " + std::string(refusal.what()));
    }
  }
}

void FleetHistory::record(const std::string& root, const orv::reporting::Step& step) {
  core_->recorder.record(root, step);
}

void FleetHistory::forget(const std::string& root) { core_->recorder.forget(root); }

void FleetHistory::serve(bool isConnected) {
  core_->recorder.setConnected(isConnected);
  core_->recorder.serve();
  const std::lock_guard<std::mutex> guard(core_->mutex);
  core_->failure = core_->recorder.failure();
}

std::string FleetHistory::failure() const {
  const std::lock_guard<std::mutex> guard(core_->mutex);
  return core_->failure;
}
