// The metrics of a fleet in the text format of Prometheus.
#pragma once

#include <prometheus/metric_family.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "collector/Fleet.h"
#include "collector/Partitions.h"

// Goes through the metrics of a fleet piece by piece: the text is long, and the fleet must not be
// locked for as long as making it takes. The format wants each family in one go, so a piece is one
// family of some roots.
class Metrics {
 public:
  // Of the roots of these partitions. The counters of the collector are always there.
  Metrics(const Fleet& fleet, const Partitions& partitions);

  // The text of the next piece. Empty at the end.
  std::string next();

 private:
  std::vector<prometheus::MetricFamily> collect() const;  // the present piece
  std::vector<prometheus::MetricFamily> collectDevices() const;
  std::vector<prometheus::MetricFamily> collectTotals() const;

  const Fleet& fleet_;
  std::vector<std::pair<std::string, std::string>> roots_;  // identifier and label
  std::vector<std::size_t> ends_;                           // of the pieces, in roots_
  std::size_t family_ = 0;
  std::size_t piece_ = 0;
};
