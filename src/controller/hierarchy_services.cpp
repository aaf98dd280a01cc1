#include "controller/hierarchy_services.h"

#include "ai/ai_control.h"
#include "cluster/router_registry.h"
#include "controller/cluster_services.h"
#include "controller/command_line.h"
#include "controller/controller_identity.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {
namespace {

HierarchyConfig hierarchyConfig(const Options& options, const ControllerIdentity& self) {
  HierarchyConfig config;
  config.controller_id = self.id;
  config.master_api_key = options.master_api_key;
  config.name = self.name;
  config.address = self.address;
  config.port = options.port;
  if (options.sub_controller) {
    config.role = ControllerRole::kSub;
    readMasterUrl(options.master_url, config);
  }
  return config;
}

cluster::ThisController thisController(const Options& options, const ControllerIdentity& self) {
  return {self.id,
          self.name,
          self.address,
          options.cluster_id,
          static_cast<cluster::ControllerTier>(options.tier),
          options.parent_url};
}

std::unique_ptr<cluster::RouterSync> makeRouterSync(const Options& options,
                                                    const ControllerIdentity& self,
                                                    worker::WorkerRegistry& workers,
                                                    cluster::ControllerTransport& transport) {
  if (!options.router_mode || options.controller_url.empty()) return nullptr;
  return std::make_unique<cluster::RouterSync>(
      cluster::RouterSyncConfig{options.controller_url, self.id, self.name, self.address,
                                options.port, std::chrono::milliseconds(options.sync_interval_ms)},
      workers, cluster::RouterSyncEnvironment{transport});
}

}  // namespace

HierarchyServices::HierarchyServices(const Options& options, const ControllerIdentity& self,
                                     net::HttpClient& http, worker::WorkerRegistry& workers,
                                     const cluster::RouterRegistry& routers,
                                     const ai::AiControl& ai_control)
    : hierarchy_calls(http, options.master_api_key),
      cluster_calls(http, clusterKey(options)),
      hierarchy(hierarchyConfig(options, self),
                HierarchyEnvironment{hierarchy_calls,
                                     [&workers, &routers] {
                                       return LocalCounts{workers.size(), routers.size()};
                                     }}),
      mirror(workers, hierarchy_calls),
      commands(hierarchy, localActions(hierarchy, workers, routers, mirror)),
      tiers(thisController(options, self), workers, routers,
            cluster::TiersEnvironment{cluster_calls,
                                      [&ai_control] { return ai_control.config().toJson(); }}),
      router_sync(makeRouterSync(options, self, workers, cluster_calls)) {}

void HierarchyServices::startCalls(std::int32_t port) {
  hierarchy.setPort(port);
  tiers.start(port);
  if (router_sync != nullptr) router_sync->start(port);
}

void HierarchyServices::stop() {
  if (router_sync != nullptr) router_sync->stop();
  tiers.stop();
  hierarchy.stop();
  commands.stop();
}

}  // namespace tavrel::controller
