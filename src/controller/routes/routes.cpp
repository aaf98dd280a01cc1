#include "controller/routes/families.h"
#include "controller/services.h"

namespace tavrel::controller {

void addAllRoutes(api::RouteBook& book, Services& s) {
  ClusterServices* const c = s.cluster.get();
  cluster::ClusterManager* const manager = c == nullptr ? nullptr : &c->manager;
  cluster::NodeRegistry* const nodes = c == nullptr ? nullptr : &c->nodes;
  addHierarchyRoutes(book, s.hierarchy->hierarchy, nullptr);
  addAuthRoutes(book, s.auth, s.accounts);
  addAccountRoutes(book, s.accounts, s.smtp);
  addSmtpRoutes(book, s.accounts, s.smtp);
  addUserRoutes(book, s.accounts, s.auth);
  addOrganizationRoutes(book, s.accounts);
  addUserDataRoutes(book, s.accounts);
  addCredentialRoutes(book, s.accounts);
  addTenantRoutes(book, s.typed.of(worker::WorkerKind::kData), s.worker_client);
  addStatusRoutes(book, s.self, s.workers, s.routers, s.typed, c == nullptr ? nullptr : &c->agents);
  addEventRoutes(book, s.events);
  addMetricsRoutes(book, s.collector, s.history);
  addWorkerRoutes(book, s.workers, s.routers, s.events, s.history, s.node_configs, s.pipelines,
                  [c](const std::string& id) {
                    if (c != nullptr) c->refreshNode(id, platform::steadyNow());
                  });
  addTypedWorkerRoutes(book, s.typed, s.workers, s.events);
  addClusterRoutes(book, manager, nodes, c == nullptr ? nullptr : c->gossip.get());
  addClusterOverviewRoutes(book, manager, s.hierarchy->tiers, s.workers, s.routers, s.typed);
  addWorkerPoolRoutes(book, c == nullptr ? nullptr : &c->balancer,
                      c == nullptr ? nullptr : &c->worker_pool, s.task_executor);
  addClusterAgentRoutes(book, c == nullptr ? nullptr : &c->llm_pool,
                        c == nullptr ? nullptr : &c->agents, s.agent_host);
  addEdgeServerRoutes(book, s.hierarchy->edge_servers);
  addControllerRoutes(book, s.hierarchy->tiers);
  addRouterRoutes(book, s.routers);
  addModelListRoutes(book, s.models);
  addModelRoutes(book, s.workers, s.pull_jobs, s.distribution, s.worker_client,
                 s.local_server.baseUrl());
  addModelRegistryRoutes(book, s.model_registry);
  addPipelineRoutes(book, s.pipelines, s.model_registry);
  addTrainingRoutes(book, s.training_jobs);
  addChatRoutes(book, s.chat);
  addOpenAiRoutes(book, s.openai);
  addAiRoutes(book, s.self, s.ai_control, s.routers, s.workers);
  addMoeRoutes(book, s.experts);
  addThemeRoutes(book, s.themes, s.ai_control);
  addConfigRoutes(book, s.node_configs);
  addBackendRoutes(book, s.backend_profiles, s.http);
  addRoutingRuleRoutes(book, s.routing_rules, s.themes);
}

}  // namespace tavrel::controller
