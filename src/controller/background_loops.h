#pragma once

#include "api/auth_middleware.h"
#include "cluster/router_registry.h"
#include "identity/user_store.h"
#include "inference/openai_gateway.h"
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

/// The loops that start-up runs: the reaper, which also tidies the gateway, the cluster-metrics
/// recorder, and the upkeep of tokens and, where there are any, user accounts. Owned by start-up;
/// the destructor stops them.
class BackgroundLoops {
 public:
  BackgroundLoops(worker::WorkerRegistry& workers, const cluster::RouterRegistry& routers,
                  worker::TypedWorkerRegistries& typed, metrics::MetricsHistory& history,
                  api::AuthMiddleware& auth);

  /// To be called before start. The gateway must outlive the loops.
  void tendGateway(inference::OpenAiGateway& gateway) { gateway_ = &gateway; }
  /// To be called before start. The store must outlive the loops.
  void tendAccounts(identity::UserStore& store) { accounts_ = &store; }

  void start();
  void stop();

 private:
  inference::OpenAiGateway* gateway_ = nullptr;  ///< constant after start
  identity::UserStore* accounts_ = nullptr;      ///< constant after start
  platform::PeriodicTask reaper_;
  platform::PeriodicTask recorder_;
  platform::PeriodicTask upkeep_;
};

}  // namespace tavrel::controller
