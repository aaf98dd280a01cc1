#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "metrics/metric_family.h"
#include "platform/mutex.h"

namespace tavrel::metrics {

/// Label names and values of one series.
using Labels = std::map<std::string, std::string>;

/// Counters, gauges and histograms of the controller, with their two texts.
///
/// Threads: any. mutex_ is a leaf, held for a hash look-up per recorded value; texts are made from
///   a snapshot after it was released. Recording into a series that exists allocates nothing when
///   done through the record… methods.
/// Lifetime: getInstance() lives until the process ends; tests build their own.
/// Failure: what is recorded under a name that is not registered with that type is ignored, so are
///   amounts that would make a counter fall, and the series a family gets beyond kMaxSeries.
class MetricsCollector {
 public:
  /// Per family: label values partly come from clients, and must not fill the memory.
  static constexpr std::size_t kMaxSeries = 10'000;

  static MetricsCollector& getInstance();

  /// Registers the families every controller has.
  MetricsCollector();
  MetricsCollector(const MetricsCollector&) = delete;
  MetricsCollector& operator=(const MetricsCollector&) = delete;

  /// Adds a family or replaces what is registered under its name; series stay unless the type
  /// changes.
  void registerCounter(const std::string& name, const std::string& help,
                       std::vector<std::string> labels) TV_EXCLUDES(mutex_);
  void registerGauge(const std::string& name, const std::string& help,
                     std::vector<std::string> labels) TV_EXCLUDES(mutex_);
  /// `bounds` ascend; series that exist keep theirs.
  void registerHistogram(const std::string& name, const std::string& help,
                         std::vector<std::string> labels, std::vector<double> bounds)
      TV_EXCLUDES(mutex_);

  void counterInc(std::string_view name, const Labels& labels = {}) { counterAdd(name, 1, labels); }
  void counterAdd(std::string_view name, double value, const Labels& labels = {});
  void gaugeSet(std::string_view name, double value, const Labels& labels = {});
  void gaugeInc(std::string_view name, const Labels& labels = {});
  void gaugeDec(std::string_view name, const Labels& labels = {});
  void histogramObserve(std::string_view name, double value, const Labels& labels = {});

  /// `path` is a route's pattern, never what a client sent.
  void recordHttpRequest(std::string_view method, std::string_view path, int status,
                         double duration_seconds);
  void recordLlmInference(std::string_view model, std::string_view backend,
                          std::int64_t prompt_tokens, std::int64_t completion_tokens,
                          double duration_seconds);
  void recordImageGeneration(std::string_view backend, std::string_view operation, bool success,
                             double duration_seconds);
  void setWorkerCount(std::size_t count, std::string_view status);
  void setModelCount(std::size_t count, std::string_view backend);

  std::string getPrometheusMetrics() const;
  std::string getJsonMetrics() const;

 private:
  using LabelsView = std::span<const LabelView>;

  /// Labels to be looked up, hashed before the lock is taken.
  struct Query {
    explicit Query(LabelsView view) : labels(view), hash(hashOf(view)) {}
    LabelsView labels;
    std::size_t hash;
  };
  struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(const LabelKey& key) const { return key->hash; }
    std::size_t operator()(const Query& query) const { return query.hash; }
  };
  struct KeyEqual {
    using is_transparent = void;
    bool operator()(const LabelKey& a, const LabelKey& b) const { return a->labels == b->labels; }
    bool operator()(const LabelKey& a, const Query& b) const { return a->equals(b.labels); }
    bool operator()(const Query& a, const LabelKey& b) const { return b->equals(a.labels); }
  };
  template <class Value>
  using Series = std::unordered_map<LabelKey, Value, KeyHash, KeyEqual>;

  struct Family {
    MetricInfo info;
    std::vector<double> bounds;  ///< of series to come
    Series<double> values;
    Series<HistogramBuckets> histograms;
  };

  void registerDefaultMetrics();
  void registerFamily(MetricInfo info, std::vector<double> bounds) TV_EXCLUDES(mutex_);

  void add(std::string_view name, MetricType type, double value, LabelsView labels)
      TV_EXCLUDES(mutex_);
  void set(std::string_view name, double value, LabelsView labels) TV_EXCLUDES(mutex_);
  void observe(std::string_view name, double value, LabelsView labels) TV_EXCLUDES(mutex_);

  /// Null unless the name is registered with this type.
  Family* find(std::string_view name, MetricType type) TV_REQUIRES(mutex_);
  std::vector<FamilySnapshot> snapshot() const TV_EXCLUDES(mutex_);

  mutable platform::Mutex mutex_;
  std::map<std::string, Family, std::less<>> families_ TV_GUARDED_BY(mutex_);
};

}  // namespace tavrel::metrics
