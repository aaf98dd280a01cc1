#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "metrics/metrics_data_point.h"
#include "metrics/point_ring.h"
#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::metrics {

/// Rolling series of samples: one per worker and one for the cluster.
///
/// Threads: any; workers_mutex_ and cluster_mutex_ are leaves and never held together.
/// Time: points carry theirs, queries take `now`. Once a minute recordClusterMetrics tidies up with
///   the time of its point, so a worker that left loses its series one retention later.
/// Memory: about 150 bytes a point, at most 360 points a worker with the usual settings.
/// Lifetime: instance() lives until the process ends; tests build their own.
class MetricsHistory {
 public:
  static constexpr std::int32_t kDefaultRetentionMinutes = 60;
  static constexpr std::int32_t kDefaultSampleIntervalSeconds = 10;
  static constexpr std::chrono::minutes kCleanupPeriod{1};

  static MetricsHistory& instance();

  MetricsHistory() = default;
  MetricsHistory(const MetricsHistory&) = delete;
  MetricsHistory& operator=(const MetricsHistory&) = delete;

  /// How long points are kept, and how many: as many as one per interval. Only the first call has
  /// an effect.
  void initialize(std::int32_t retention_minutes, std::int32_t sample_interval_seconds)
      TV_EXCLUDES(workers_mutex_, cluster_mutex_);

  void recordWorkerMetrics(const std::string& worker_id, const MetricsDataPoint& point)
      TV_EXCLUDES(workers_mutex_);
  void recordClusterMetrics(const ClusterMetricsDataPoint& point)
      TV_EXCLUDES(workers_mutex_, cluster_mutex_);

  /// The points of the last `duration_minutes` (all when not positive), oldest first: of one
  /// worker as recorded, of an unknown worker none. An empty id stands for all workers, whose
  /// points are merged per `resolution_seconds` (1 when not positive).
  std::vector<MetricsDataPoint> getWorkerHistory(const std::string& worker_id,
                                                 std::int32_t duration_minutes,
                                                 std::int32_t resolution_seconds,
                                                 platform::WallTime now) const
      TV_EXCLUDES(workers_mutex_);
  /// The same for the cluster, as recorded.
  std::vector<ClusterMetricsDataPoint> getClusterHistory(std::int32_t duration_minutes,
                                                         platform::WallTime now) const
      TV_EXCLUDES(cluster_mutex_);

  std::optional<MetricsDataPoint> getLatestWorkerMetrics(const std::string& worker_id) const
      TV_EXCLUDES(workers_mutex_);
  std::optional<ClusterMetricsDataPoint> getLatestClusterMetrics() const
      TV_EXCLUDES(cluster_mutex_);
  std::vector<std::string> getWorkerIds() const TV_EXCLUDES(workers_mutex_);

  /// Drops every point older than the retention, and workers that have none left.
  void cleanup(platform::WallTime now) TV_EXCLUDES(workers_mutex_, cluster_mutex_);

  nlohmann::json getStats() const TV_EXCLUDES(workers_mutex_, cluster_mutex_);

 private:
  struct Limits {
    bool initialized = false;
    std::int32_t retention_minutes = kDefaultRetentionMinutes;
    std::int32_t sample_interval_seconds = kDefaultSampleIntervalSeconds;

    std::size_t maxPoints() const;
  };

  /// All workers' points since `since_ms`, merged per `resolution_seconds`.
  std::vector<MetricsDataPoint> mergedHistory(std::int64_t since_ms,
                                              std::int64_t resolution_seconds) const
      TV_EXCLUDES(workers_mutex_);
  std::vector<MetricsDataPoint> pointsOf(const std::string& worker_id, std::int64_t since_ms) const
      TV_EXCLUDES(workers_mutex_);

  mutable platform::Mutex workers_mutex_;
  std::map<std::string, PointRing<MetricsDataPoint>> workers_ TV_GUARDED_BY(workers_mutex_);
  Limits worker_limits_ TV_GUARDED_BY(workers_mutex_);

  mutable platform::Mutex cluster_mutex_;
  PointRing<ClusterMetricsDataPoint> cluster_ TV_GUARDED_BY(cluster_mutex_);
  Limits cluster_limits_ TV_GUARDED_BY(cluster_mutex_);  ///< a copy, so no query needs both locks
  platform::WallTime next_cleanup_ TV_GUARDED_BY(cluster_mutex_);
};

}  // namespace tavrel::metrics
