#pragma once

#include <cstdint>
#include <memory>

#include "cluster/controller_tiers.h"
#include "cluster/controller_transport.h"
#include "cluster/router_sync.h"
#include "cluster/worker_mirror.h"
#include "controller/hierarchy/command_executor.h"
#include "controller/hierarchy/controller_hierarchy.h"
#include "controller/hierarchy/edge_servers.h"

namespace tavrel::ai {
class AiControl;
}

namespace tavrel::controller {

struct ControllerIdentity;
struct Options;

/// What links this controller to those above and below it, in order of creation. Constructing it
/// starts nothing.
///
/// Threads: all functions belong to start-up.
struct HierarchyServices {
  /// Throws std::invalid_argument when the URL of a sub-controller's master cannot be read.
  /// Everything must outlive it.
  HierarchyServices(const Options& options, const ControllerIdentity& self, net::HttpClient& http,
                    worker::WorkerRegistry& workers, const cluster::RouterRegistry& routers,
                    const ai::AiControl& ai_control);

  /// Called once the server listens, with its port.
  void startCalls(std::int32_t port);
  /// Returns when every thread has ended; calls that are under way end when the client is
  /// cancelled.
  void stop();

  cluster::HttpControllerTransport hierarchy_calls;
  cluster::HttpControllerTransport cluster_calls;
  ControllerHierarchy hierarchy;
  cluster::WorkerMirror mirror;
  CommandExecutor commands;
  EdgeServers edge_servers;
  cluster::ControllerTiers tiers;
  std::unique_ptr<cluster::RouterSync> router_sync;  ///< only in router mode
};

}  // namespace tavrel::controller
