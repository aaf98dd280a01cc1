#include "controller/background_loops.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>

#include "identity/account_upkeep.h"
#include "platform/console.h"

namespace tavrel::controller {
namespace {

constexpr std::chrono::seconds kReaperPeriod{10};
constexpr std::chrono::seconds kFirstSample{5};
constexpr std::chrono::seconds kSamplePeriod{10};
/// How long an expired token or session is kept, and how late after midnight the daily quotas may
/// start anew.
constexpr std::chrono::seconds kUpkeepPeriod{60};

/// Adds up what the workers last reported.
class ClusterSum {
 public:
  void add(const worker::WorkerInfo& worker) {
    const worker::SystemMetrics& metrics = worker.metrics;
    ++workers_;
    cpu_ += metrics.cpu_usage;
    point_.cpu_max_usage = std::max(point_.cpu_max_usage, metrics.cpu_usage);
    cores_ += metrics.cpu_cores;
    point_.memory_total += metrics.memory_total;
    point_.memory_used += metrics.memory_used;
    if (metrics.memory_total > 0) {
      memory_percent_ += static_cast<double>(metrics.memory_used) /
                         static_cast<double>(metrics.memory_total) * 100.0;
    }
    for (const worker::GPUInfo& gpu : metrics.gpus) {
      ++point_.total_gpus;
      gpu_ += gpu.utilization;
      point_.gpu_total_memory += gpu.memory_total;
      point_.gpu_memory_used += gpu.memory_used;
    }
  }

  metrics::ClusterMetricsDataPoint point() const {
    metrics::ClusterMetricsDataPoint point = point_;
    point.total_cores = static_cast<std::int32_t>(
        std::clamp<std::int64_t>(cores_, 0, std::numeric_limits<std::int32_t>::max()));
    if (workers_ > 0) {
      point.cpu_avg_usage = static_cast<float>(cpu_ / workers_);
      point.memory_avg_usage = static_cast<float>(memory_percent_ / workers_);
    }
    if (point.total_gpus > 0) point.gpu_avg_usage = static_cast<float>(gpu_ / point.total_gpus);
    return point;
  }

 private:
  metrics::ClusterMetricsDataPoint point_;
  int workers_ = 0;
  std::int64_t cores_ = 0;
  double cpu_ = 0;
  double memory_percent_ = 0;
  double gpu_ = 0;
};

}  // namespace

void reapStaleWorkers(worker::WorkerRegistry& workers, worker::TypedWorkerRegistries& typed,
                      platform::WallTime now) {
  for (const worker::ReapedWorker& reaped : workers.reap(now)) {
    platform::printLine(worker::reapedLine("Workers", reaped));
  }
  for (const std::string& line : typed.reap(now)) platform::printLine(line);
}

metrics::ClusterMetricsDataPoint sampleCluster(const worker::WorkerRegistry& workers,
                                               const cluster::RouterRegistry& routers,
                                               const worker::TypedWorkerRegistries& typed,
                                               platform::WallTime now) {
  ClusterSum sum;
  int online = 0;
  const auto snapshot = workers.snapshot();
  for (const worker::WorkerPtr& worker : snapshot) {
    if (worker->status == worker::WorkerStatus::kOnline) ++online;
    sum.add(*worker);
  }
  metrics::ClusterMetricsDataPoint point = sum.point();
  point.timestamp = now;
  point.workers_online = online;
  point.workers_total = static_cast<std::int32_t>(snapshot.size());
  point.routers_online = static_cast<std::int32_t>(routers.size());
  point.data_workers_online = static_cast<std::int32_t>(typed.of(worker::WorkerKind::kData).size());
  return point;
}

BackgroundLoops::BackgroundLoops(worker::WorkerRegistry& workers,
                                 const cluster::RouterRegistry& routers,
                                 worker::TypedWorkerRegistries& typed,
                                 metrics::MetricsHistory& history, api::AuthMiddleware& auth)
    : reaper_("reaper", kReaperPeriod, kReaperPeriod,
              [this, &workers, &typed](const std::stop_token&) {
                reapStaleWorkers(workers, typed, platform::wallNow());
                if (gateway_ != nullptr) gateway_->tidy(platform::steadyNow());
              }),
      recorder_("cluster-metrics", kFirstSample, kSamplePeriod,
                [&workers, &routers, &typed, &history](const std::stop_token&) {
                  history.recordClusterMetrics(
                      sampleCluster(workers, routers, typed, platform::wallNow()));
                }),
      upkeep_("upkeep", std::chrono::seconds(0), kUpkeepPeriod,
              [this, &auth](const std::stop_token&) {
                auth.cleanupExpiredTokens();
                if (accounts_ != nullptr) identity::tidyAccounts(*accounts_, platform::wallNow());
              }) {}

void BackgroundLoops::start() {
  reaper_.start();
  recorder_.start();
  upkeep_.start();
}

void BackgroundLoops::stop() {
  reaper_.stop();
  recorder_.stop();
  upkeep_.stop();
}

}  // namespace tavrel::controller
