#pragma once

#include <string>
#include <utility>
#include <vector>

#include "worker/worker_info.h"

namespace tavrel::test {

/// An online worker of this machine that has these models.
inline worker::WorkerInfo onlineWorker(const std::string& id, int port = 8090,
                                       std::vector<std::string> models = {}) {
  worker::WorkerInfo info;
  info.worker_id = id;
  info.worker_name = id;
  info.ip_address = "127.0.0.1";
  info.port = port;
  info.status = worker::WorkerStatus::kOnline;
  info.capabilities.installed_models = std::move(models);
  return info;
}

}  // namespace tavrel::test
