#include "metrics/metrics_data_point.h"

#include <nlohmann/json.hpp>

namespace tavrel::metrics {

using nlohmann::json;

json MetricsDataPoint::toJson() const {
  return {{"timestamp", platform::toEpochMilliseconds(timestamp)},
          {"cpu",
           {{"usage", cpu_usage},
            {"cores", cpu_cores},
            {"temperature", cpu_temperature},
            {"load_1m", load_1m},
            {"load_5m", load_5m},
            {"load_15m", load_15m}}},
          {"memory",
           {{"total", memory_total},
            {"used", memory_used},
            {"available", memory_available},
            {"usage_percent", memory_usage_percent}}},
          {"disk",
           {{"total", disk_total},
            {"used", disk_used},
            {"free", disk_free},
            {"usage_percent", disk_usage_percent}}},
          {"gpu",
           {{"count", gpu_count},
            {"usage", gpu_usage},
            {"memory_total", gpu_memory_total},
            {"memory_used", gpu_memory_used},
            {"temperature", gpu_temperature},
            {"power", gpu_power}}},
          {"requests",
           {{"total", requests_total},
            {"per_minute", requests_per_minute},
            {"avg_latency_ms", avg_latency_ms}}}};
}

json ClusterMetricsDataPoint::toJson() const {
  return {
      {"timestamp", platform::toEpochMilliseconds(timestamp)},
      {"cluster",
       {{"workers_online", workers_online},
        {"workers_total", workers_total},
        {"routers_online", routers_online},
        {"data_workers_online", data_workers_online}}},
      {"cpu",
       {{"avg_usage", cpu_avg_usage}, {"total_cores", total_cores}, {"max_usage", cpu_max_usage}}},
      {"memory", {{"total", memory_total}, {"used", memory_used}, {"avg_usage", memory_avg_usage}}},
      {"gpu",
       {{"total_gpus", total_gpus},
        {"avg_usage", gpu_avg_usage},
        {"total_memory", gpu_total_memory},
        {"memory_used", gpu_memory_used}}},
      {"requests",
       {{"total", requests_total},
        {"per_minute", requests_per_minute},
        {"avg_latency_ms", avg_latency_ms}}}};
}

}  // namespace tavrel::metrics
