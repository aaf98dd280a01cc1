#pragma once

#include <string>
#include <utility>
#include <vector>

#include "worker/worker_registry.h"

namespace tavrel::inference {

/// An online worker that has these models.
inline worker::WorkerInfo aWorker(std::string id, std::vector<std::string> models) {
  worker::WorkerInfo info;
  info.worker_id = std::move(id);
  info.status = worker::WorkerStatus::kOnline;
  info.ip_address = "127.0.0.1";
  info.capabilities.installed_models = std::move(models);
  return info;
}

inline void setLoad(worker::WorkerInfo& info, float cpu_percent, std::uint64_t memory_used,
                    std::uint64_t memory_total) {
  info.metrics.cpu_usage = cpu_percent;
  info.metrics.memory_used = memory_used;
  info.metrics.memory_total = memory_total;
}

}  // namespace tavrel::inference
