// The metrics of a fleet.
#pragma once

#include "collector/Exposition.h"
#include "collector/Fleet.h"
#include "collector/HistoryHttp.h"
#include "collector/MetricOptions.h"
#include "collector/Partitions.h"

// Of the roots of these partitions. What concerns the collector itself is always there. The fleet
// is locked for some hundred devices at a time; nothing of it is needed for what is returned.
Exposition metricsOf(const Fleet& fleet, const HistorySource& history, const Partitions& partitions,
                     const MetricOptions& options);
