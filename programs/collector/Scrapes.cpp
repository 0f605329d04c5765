#include "collector/Scrapes.h"

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <utility>

class Scrapes::Scrape {
 public:
  explicit Scrape(Exposition metrics) : bytes_(metrics.bytes()), metrics_(std::move(metrics)) {}

  std::size_t bytes() const { return bytes_; }

  std::string next() {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!metrics_) throw std::runtime_error("a client was too slow to read the metrics");
    return metrics_->next();
  }

  void giveUp() {
    const std::lock_guard<std::mutex> guard(mutex_);
    metrics_.reset();
  }

 private:
  const std::size_t bytes_;
  std::mutex mutex_;
  std::optional<Exposition> metrics_;
};

std::function<std::string()> Scrapes::add(Exposition metrics) {
  constexpr std::size_t mostBytes = 512U << 20U;
  const auto added = std::make_shared<Scrape>(std::move(metrics));
  const std::lock_guard<std::mutex> guard(mutex_);
  std::size_t bytes = added->bytes();
  for (auto at = scrapes_.end(); at != scrapes_.begin();) {
    const auto scrape = (--at)->lock();
    if (scrape) bytes += scrape->bytes();
    if (scrape && bytes > mostBytes) scrape->giveUp();
    if (!scrape || bytes > mostBytes) at = scrapes_.erase(at);
  }
  scrapes_.push_back(added);
  return [added] { return added->next(); };
}
