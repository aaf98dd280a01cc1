#include "metrics/metrics_history.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

#include "platform/console.h"

namespace tavrel::metrics {
namespace {

/// The beginning of a window, in milliseconds: clock arithmetic would overflow on the durations
/// that clients may ask for.
std::int64_t windowStart(platform::WallTime now, std::int64_t duration_minutes) {
  if (duration_minutes <= 0) return std::numeric_limits<std::int64_t>::min();
  return platform::toEpochMilliseconds(now) - duration_minutes * 60'000;
}

template <class Point>
std::vector<Point> pointsSince(const PointRing<Point>& ring, std::int64_t since_ms) {
  std::vector<Point> points;
  for (std::size_t i = 0; i < ring.size(); ++i) {
    if (platform::toEpochMilliseconds(ring[i].timestamp) >= since_ms) points.push_back(ring[i]);
  }
  return points;
}

template <class Point>
void dropBefore(PointRing<Point>& ring, std::int64_t since_ms) {
  while (!ring.empty() && platform::toEpochMilliseconds(ring.front().timestamp) < since_ms) {
    ring.popFront();
  }
}

void mergeInto(MetricsDataPoint& merged, const MetricsDataPoint& point) {
  merged.cpu_usage = std::max(merged.cpu_usage, point.cpu_usage);
  merged.memory_usage_percent = std::max(merged.memory_usage_percent, point.memory_usage_percent);
  merged.gpu_usage = std::max(merged.gpu_usage, point.gpu_usage);
  merged.gpu_memory_used = std::max(merged.gpu_memory_used, point.gpu_memory_used);
  merged.requests_total += point.requests_total;
  merged.requests_per_minute += point.requests_per_minute;
  // A running pairwise mean on purpose: the newest points weigh most.
  if (point.avg_latency_ms > 0) {
    merged.avg_latency_ms = (point.avg_latency_ms + merged.avg_latency_ms) / 2;
  }
}

}  // namespace

std::size_t MetricsHistory::Limits::maxPoints() const {
  const std::int64_t points = std::int64_t{retention_minutes} * 60 / sample_interval_seconds;
  return static_cast<std::size_t>(std::max<std::int64_t>(1, points));
}

MetricsHistory& MetricsHistory::instance() {
  static MetricsHistory history;
  return history;
}

void MetricsHistory::initialize(std::int32_t retention_minutes,
                                std::int32_t sample_interval_seconds) {
  const Limits limits{true, retention_minutes, std::max(1, sample_interval_seconds)};
  {
    platform::MutexLock lock(workers_mutex_);
    if (worker_limits_.initialized) return;
    worker_limits_ = limits;
  }
  {
    platform::MutexLock lock(cluster_mutex_);
    cluster_limits_ = limits;
  }
  platform::printLine(
      "[MetricsHistory] Initialized with retention=" + std::to_string(limits.retention_minutes) +
      " minutes, sample_interval=" + std::to_string(limits.sample_interval_seconds) +
      " seconds (max " + std::to_string(limits.maxPoints()) + " data points per worker)");
}

void MetricsHistory::recordWorkerMetrics(const std::string& worker_id,
                                         const MetricsDataPoint& point) {
  platform::MutexLock lock(workers_mutex_);
  workers_[worker_id].push(point, worker_limits_.maxPoints());
}

void MetricsHistory::recordClusterMetrics(const ClusterMetricsDataPoint& point) {
  bool cleanup_due = false;
  {
    platform::MutexLock lock(cluster_mutex_);
    cluster_.push(point, cluster_limits_.maxPoints());
    cleanup_due = point.timestamp >= next_cleanup_;
    if (cleanup_due) next_cleanup_ = point.timestamp + kCleanupPeriod;
  }
  if (cleanup_due) cleanup(point.timestamp);
}

std::vector<MetricsDataPoint> MetricsHistory::getWorkerHistory(const std::string& worker_id,
                                                               std::int32_t duration_minutes,
                                                               std::int32_t resolution_seconds,
                                                               platform::WallTime now) const {
  const std::int64_t since_ms = windowStart(now, duration_minutes);
  if (!worker_id.empty()) return pointsOf(worker_id, since_ms);
  return mergedHistory(since_ms, std::max(1, resolution_seconds));
}

std::vector<MetricsDataPoint> MetricsHistory::pointsOf(const std::string& worker_id,
                                                       std::int64_t since_ms) const {
  platform::MutexLock lock(workers_mutex_);
  const auto found = workers_.find(worker_id);
  if (found == workers_.end()) return {};
  return pointsSince(found->second, since_ms);
}

std::vector<MetricsDataPoint> MetricsHistory::mergedHistory(std::int64_t since_ms,
                                                            std::int64_t resolution_seconds) const {
  std::map<std::int64_t, MetricsDataPoint> buckets;
  // Worker by worker, so that heartbeats never wait for the whole walk.
  for (const std::string& worker_id : getWorkerIds()) {
    for (const MetricsDataPoint& point : pointsOf(worker_id, since_ms)) {
      const std::int64_t second = platform::toEpochSeconds(point.timestamp);
      const std::int64_t start = second - second % resolution_seconds;
      const auto [bucket, is_first] = buckets.try_emplace(start, point);
      if (is_first) {
        bucket->second.timestamp = platform::WallTime(std::chrono::seconds(start));
      } else {
        mergeInto(bucket->second, point);
      }
    }
  }
  std::vector<MetricsDataPoint> merged;
  merged.reserve(buckets.size());
  for (const auto& [start, point] : buckets) merged.push_back(point);
  return merged;
}

std::vector<ClusterMetricsDataPoint> MetricsHistory::getClusterHistory(
    std::int32_t duration_minutes, platform::WallTime now) const {
  const std::int64_t since_ms = windowStart(now, duration_minutes);
  platform::MutexLock lock(cluster_mutex_);
  return pointsSince(cluster_, since_ms);
}

std::optional<MetricsDataPoint> MetricsHistory::getLatestWorkerMetrics(
    const std::string& worker_id) const {
  platform::MutexLock lock(workers_mutex_);
  const auto found = workers_.find(worker_id);
  if (found == workers_.end() || found->second.empty()) return std::nullopt;
  return found->second.back();
}

std::optional<ClusterMetricsDataPoint> MetricsHistory::getLatestClusterMetrics() const {
  platform::MutexLock lock(cluster_mutex_);
  if (cluster_.empty()) return std::nullopt;
  return cluster_.back();
}

std::vector<std::string> MetricsHistory::getWorkerIds() const {
  platform::MutexLock lock(workers_mutex_);
  std::vector<std::string> ids;
  for (const auto& [id, ring] : workers_) ids.push_back(id);
  return ids;
}

void MetricsHistory::cleanup(platform::WallTime now) {
  {
    platform::MutexLock lock(workers_mutex_);
    const std::int64_t since_ms = windowStart(now, worker_limits_.retention_minutes);
    for (auto worker = workers_.begin(); worker != workers_.end();) {
      dropBefore(worker->second, since_ms);
      worker = worker->second.empty() ? workers_.erase(worker) : std::next(worker);
    }
  }
  platform::MutexLock lock(cluster_mutex_);
  dropBefore(cluster_, windowStart(now, cluster_limits_.retention_minutes));
}

nlohmann::json MetricsHistory::getStats() const {
  nlohmann::json stats;
  {
    platform::MutexLock lock(workers_mutex_);
    std::size_t points = 0;
    for (const auto& [id, ring] : workers_) points += ring.size();
    stats = {{"initialized", worker_limits_.initialized},
             {"retention_minutes", worker_limits_.retention_minutes},
             {"sample_interval_seconds", worker_limits_.sample_interval_seconds},
             {"max_points_per_worker", worker_limits_.maxPoints()},
             {"workers_tracked", workers_.size()},
             {"total_worker_data_points", points}};
  }
  platform::MutexLock lock(cluster_mutex_);
  stats["cluster_data_points"] = cluster_.size();
  return stats;
}

}  // namespace tavrel::metrics
