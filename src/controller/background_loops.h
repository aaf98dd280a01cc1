#pragma once

#include "cluster/router_registry.h"
#include "metrics/metrics_history.h"
#include "platform/periodic_task.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {

/// Marks silent workers offline and forgets them, first the inference workers, then the typed ones:
/// one pass, with its console lines.
void reapStaleWorkers(worker::WorkerRegistry& workers, worker::TypedWorkerRegistries& typed,
                      platform::WallTime now);

/// The state of the whole cluster as one point of the metrics history.
metrics::ClusterMetricsDataPoint sampleCluster(const worker::WorkerRegistry& workers,
                                               const cluster::RouterRegistry& routers,
                                               const worker::TypedWorkerRegistries& typed,
                                               platform::WallTime now);

/// The loops that start-up runs: the reaper and the cluster-metrics recorder. Owned by start-up;
/// the destructor stops them.
class BackgroundLoops {
 public:
  BackgroundLoops(worker::WorkerRegistry& workers, const cluster::RouterRegistry& routers,
                  worker::TypedWorkerRegistries& typed, metrics::MetricsHistory& history);

  void start();
  void stop();

 private:
  platform::PeriodicTask reaper_;
  platform::PeriodicTask recorder_;
};

}  // namespace tavrel::controller
