#pragma once

#include <string>
#include <vector>

#include "metrics/metric_family.h"

namespace tavrel::metrics {

/// The families as Prometheus reads them (text format 0.0.4): counters, gauges, histograms, each
/// kind in the order given. Text that is not UTF-8 is replaced.
std::string toPrometheusText(const std::vector<FamilySnapshot>& families);

/// The same as JSON text: {"counters": {name: [{"labels", "value"}]}, "gauges": …, "histograms":
/// {name: [{"labels", "sum", "count", "buckets": [{"le", "count"}]}]}}.
std::string toJsonText(const std::vector<FamilySnapshot>& families);

}  // namespace tavrel::metrics
