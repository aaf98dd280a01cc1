#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>

#include "platform/clock.h"

// Samples of the metrics history. Plain values without allocations: ten thousand workers keep
// several million of them.
namespace tavrel::metrics {

/// One sample of one worker. Sizes in bytes, usages in percent, temperatures in degrees Celsius.
struct MetricsDataPoint {
  platform::WallTime timestamp;  ///< when this controller received it

  float cpu_usage = 0;
  std::int32_t cpu_cores = 0;
  float cpu_temperature = 0;
  float load_1m = 0;
  float load_5m = 0;
  float load_15m = 0;

  std::uint64_t memory_total = 0;
  std::uint64_t memory_used = 0;
  std::uint64_t memory_available = 0;
  float memory_usage_percent = 0;

  std::uint64_t disk_total = 0;
  std::uint64_t disk_used = 0;
  std::uint64_t disk_free = 0;
  float disk_usage_percent = 0;

  std::int32_t gpu_count = 0;
  float gpu_usage = 0;
  std::uint64_t gpu_memory_total = 0;
  std::uint64_t gpu_memory_used = 0;
  float gpu_temperature = 0;
  float gpu_power = 0;  ///< watts

  std::uint64_t requests_total = 0;
  std::uint64_t requests_per_minute = 0;
  float avg_latency_ms = 0;

  nlohmann::json toJson() const;
};

/// One sample of the whole cluster. Units as above.
struct ClusterMetricsDataPoint {
  platform::WallTime timestamp;

  std::int32_t workers_online = 0;
  std::int32_t workers_total = 0;
  std::int32_t routers_online = 0;
  std::int32_t data_workers_online = 0;

  float cpu_avg_usage = 0;
  std::int32_t total_cores = 0;
  float cpu_max_usage = 0;

  std::uint64_t memory_total = 0;
  std::uint64_t memory_used = 0;
  float memory_avg_usage = 0;

  std::int32_t total_gpus = 0;
  float gpu_avg_usage = 0;
  std::uint64_t gpu_total_memory = 0;
  std::uint64_t gpu_memory_used = 0;

  std::uint64_t requests_total = 0;
  std::uint64_t requests_per_minute = 0;
  float avg_latency_ms = 0;

  nlohmann::json toJson() const;
};

}  // namespace tavrel::metrics
