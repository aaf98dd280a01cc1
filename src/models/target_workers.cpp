#include "models/target_workers.h"

#include <set>
#include <utility>

#include "worker/worker_url.h"

namespace tavrel::models {
namespace {

using worker::WorkerInfo;
using worker::WorkerPtr;

bool isOnline(const WorkerInfo& worker) {
  return worker.status == worker::WorkerStatus::kOnline;
}

bool runsModels(const WorkerInfo& worker) {
  return worker.worker_type.empty() || worker.worker_type == "inference" ||
         worker.worker_type == "cloud";
}

}  // namespace

TargetWorker targetFrom(const WorkerInfo& worker) {
  std::string url = worker::baseUrlOf(worker);
  std::string error = url.empty() ? worker::kNoValidAddress : "";
  return {worker.worker_id, worker.worker_name, std::move(url), std::move(error)};
}

std::vector<TargetWorker> pullTargets(const worker::WorkerRegistry& workers, bool all,
                                      const std::vector<std::string>& ids) {
  std::vector<TargetWorker> targets;
  if (all) {
    for (const WorkerPtr& worker : workers.snapshot()) {
      if (isOnline(*worker) && runsModels(*worker)) targets.push_back(targetFrom(*worker));
    }
    return targets;
  }
  std::set<std::string> seen;
  for (const std::string& id : ids) {
    const WorkerPtr worker = seen.insert(id).second ? workers.find(id) : nullptr;
    if (worker != nullptr && isOnline(*worker)) targets.push_back(targetFrom(*worker));
  }
  return targets;
}

std::vector<TargetWorker> distributionTargets(const worker::WorkerRegistry& workers, bool all,
                                              const std::vector<std::string>& ids) {
  std::vector<TargetWorker> targets;
  if (all) {
    for (const WorkerPtr& worker : workers.snapshot()) {
      if (isOnline(*worker)) targets.push_back(targetFrom(*worker));
    }
    return targets;
  }
  std::set<std::string> seen;
  for (const std::string& id : ids) {
    if (!seen.insert(id).second) continue;
    const WorkerPtr worker = workers.find(id);
    targets.push_back(worker == nullptr ? TargetWorker{id, "", "", "worker not found"}
                                        : targetFrom(*worker));
  }
  return targets;
}

}  // namespace tavrel::models
