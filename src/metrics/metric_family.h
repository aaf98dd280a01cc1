#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The values that metrics are made of.
namespace tavrel::metrics {

enum class MetricType { kCounter, kGauge, kHistogram };

/// What is registered about one metric family.
struct MetricInfo {
  std::string name;
  std::string help;
  MetricType type = MetricType::kCounter;
  std::vector<std::string> labels;  ///< names, for documentation: a series may carry others
};

/// One series of a histogram.
struct HistogramBuckets {
  std::vector<double> bounds;         ///< ascending upper bounds
  std::vector<std::uint64_t> counts;  ///< per bound: how many observations were not above it
  double sum = 0;
  std::uint64_t count = 0;

  explicit HistogramBuckets(const std::vector<double>& upper_bounds)
      : bounds(upper_bounds), counts(upper_bounds.size()) {}
  void observe(double value);
};

/// One label: name and value.
using LabelView = std::pair<std::string_view, std::string_view>;

/// The labels of one series, in the order of their names. Immutable once made, so that snapshots
/// share it. Kept as pairs: values may contain any character.
struct LabelSet {
  std::vector<std::pair<std::string, std::string>> labels;
  std::size_t hash = 0;

  explicit LabelSet(std::span<const LabelView> views);
  bool equals(std::span<const LabelView> views) const;
};
using LabelKey = std::shared_ptr<const LabelSet>;

std::size_t hashOf(std::span<const LabelView> labels);

/// A metric family and its series as they were at one moment, series in the order of their labels.
/// Counters and gauges have values, histograms have histograms.
struct FamilySnapshot {
  MetricInfo info;
  std::vector<std::pair<LabelKey, double>> values;
  std::vector<std::pair<LabelKey, HistogramBuckets>> histograms;
};

}  // namespace tavrel::metrics
