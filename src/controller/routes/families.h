#pragma once

#include <cstddef>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tavrel::ai {
class AiControl;
class LazyThemeDetector;
class MoeRouter;
}  // namespace tavrel::ai
namespace tavrel::api {
class AuthMiddleware;
class RouteBook;
}  // namespace tavrel::api
namespace tavrel::cluster {
class AgentRegistry;
class ClusterManager;
class ControllerTiers;
class GossipProtocol;
class LLMPool;
class LoadBalancer;
class NodeRegistry;
class RouterRegistry;
class RoutingRules;
class TaskExecutor;
class WorkerPool;
}  // namespace tavrel::cluster
namespace tavrel::config {
class BackendProfileManager;
class NodeConfigs;
}  // namespace tavrel::config
namespace tavrel::events {
class EventStreamService;
}
namespace tavrel::inference {
class AgentHost;
class ChatProxy;
class ModelCatalogue;
class OpenAiGateway;
}  // namespace tavrel::inference
namespace tavrel::metrics {
class MetricsCollector;
class MetricsHistory;
}  // namespace tavrel::metrics
namespace tavrel::models {
class ModelDistribution;
class ModelRegistry;
class PullJobs;
class TrainingJobs;
}  // namespace tavrel::models
namespace tavrel::net {
class HttpClient;
class SmtpClient;
class WorkerClient;
}  // namespace tavrel::net
namespace tavrel::pipeline {
class PipelineCoordinator;
}
namespace tavrel::worker {
class TypedWorkerRegistries;
class TypedWorkerRegistry;
class WorkerRegistry;
}  // namespace tavrel::worker

namespace tavrel::controller {
struct AccountAccess;
class ControllerHierarchy;
struct ControllerIdentity;
struct EdgeNodeInfo;
class EdgeServers;
}  // namespace tavrel::controller

// The contents page of the API: one function for every family of routes. What they get must outlive
// the server.
namespace tavrel::controller {

/// Begins to install an edge node, in the background; false when it cannot. The second value is the
/// body of the request, null without one.
using EdgeInstaller = std::function<bool(const EdgeNodeInfo&, const nlohmann::json& request)>;

void addAuthRoutes(api::RouteBook& book, api::AuthMiddleware& auth, const AccountAccess& access);
/// Registration, sessions, passwords and what mails link to.
void addAccountRoutes(api::RouteBook& book, const AccountAccess& access, net::SmtpClient& smtp);
void addSmtpRoutes(api::RouteBook& book, const AccountAccess& access, net::SmtpClient& smtp);
/// Users, the approval of registrations and the administrators' overview. Without user accounts
/// the users are the API keys of `auth`.
void addUserRoutes(api::RouteBook& book, const AccountAccess& access,
                   const api::AuthMiddleware& auth);
void addOrganizationRoutes(api::RouteBook& book, const AccountAccess& access);
/// Personal settings and conversations.
void addUserDataRoutes(api::RouteBook& book, const AccountAccess& access);
/// Credentials and quotas.
void addCredentialRoutes(api::RouteBook& book, const AccountAccess& access);
/// Tenants live on the data workers, who are asked.
void addTenantRoutes(api::RouteBook& book, const worker::TypedWorkerRegistry& data_workers,
                     net::WorkerClient& client);
/// `agents` is null without a cluster.
void addStatusRoutes(api::RouteBook& book, const ControllerIdentity& self,
                     const worker::WorkerRegistry& workers, const cluster::RouterRegistry& routers,
                     const worker::TypedWorkerRegistries& typed,
                     const cluster::AgentRegistry* agents);
/// `refresh_node` is told the id of every cluster node that reports itself; it may be empty.
void addWorkerRoutes(api::RouteBook& book, worker::WorkerRegistry& workers,
                     cluster::RouterRegistry& routers, events::EventStreamService& events,
                     metrics::MetricsHistory& history, const config::NodeConfigs& configs,
                     pipeline::PipelineCoordinator& pipelines,
                     std::function<void(const std::string& node_id)> refresh_node);
/// Membership and gossip. Null: not part of this process; the routes then say so.
void addClusterRoutes(api::RouteBook& book, cluster::ClusterManager* manager,
                      cluster::NodeRegistry* registry, cluster::GossipProtocol* gossip);
/// What the whole cluster consists of; `manager` may be null.
void addClusterOverviewRoutes(api::RouteBook& book, const cluster::ClusterManager* manager,
                              const cluster::ControllerTiers& tiers,
                              const worker::WorkerRegistry& workers,
                              const cluster::RouterRegistry& routers,
                              const worker::TypedWorkerRegistries& typed);
/// Tasks for worker nodes, and those that others send to this one. Null: not part of this process.
void addWorkerPoolRoutes(api::RouteBook& book, const cluster::LoadBalancer* balancer,
                         cluster::WorkerPool* pool, const cluster::TaskExecutor& executor);
/// Language-model nodes and agents of the cluster, and agents run here. Null: not part of this
/// process.
void addClusterAgentRoutes(api::RouteBook& book, const cluster::LLMPool* llm_pool,
                           cluster::AgentRegistry* agents, const inference::AgentHost& host);
/// Master and sub-controllers, their commands, and the planned edge nodes. Without an installer no
/// edge can be deployed. What is given must outlive the server.
void addHierarchyRoutes(api::RouteBook& book, ControllerHierarchy& hierarchy,
                        EdgeInstaller install_edge);
/// The edge servers that announce themselves.
void addEdgeServerRoutes(api::RouteBook& book, EdgeServers& edges);
/// Parent, connected controllers, and the jobs passed on between them.
void addControllerRoutes(api::RouteBook& book, cluster::ControllerTiers& tiers);
void addRouterRoutes(api::RouteBook& book, cluster::RouterRegistry& routers);
void addTypedWorkerRoutes(api::RouteBook& book, worker::TypedWorkerRegistries& typed,
                          const worker::WorkerRegistry& workers,
                          events::EventStreamService& events);
void addModelListRoutes(api::RouteBook& book, const inference::ModelCatalogue& models);
/// `local_model_server` is asked about models that no worker has loaded.
void addModelRoutes(api::RouteBook& book, const worker::WorkerRegistry& workers,
                    models::PullJobs& jobs, models::ModelDistribution& distribution,
                    net::WorkerClient& client, const std::string& local_model_server);
void addModelRegistryRoutes(api::RouteBook& book, models::ModelRegistry& registry);
void addPipelineRoutes(api::RouteBook& book, pipeline::PipelineCoordinator& pipelines,
                       models::ModelRegistry& registry);
void addTrainingRoutes(api::RouteBook& book, models::TrainingJobs& jobs);
void addChatRoutes(api::RouteBook& book, inference::ChatProxy& chat);
/// The OpenAI surface: chat completions, completions and embeddings.
void addOpenAiRoutes(api::RouteBook& book, inference::OpenAiGateway& gateway);
void addAiRoutes(api::RouteBook& book, const ControllerIdentity& self, ai::AiControl& control,
                 const cluster::RouterRegistry& routers, const worker::WorkerRegistry& workers);
void addThemeRoutes(api::RouteBook& book, ai::LazyThemeDetector& detector,
                    const ai::AiControl& control);
void addRoutingRuleRoutes(api::RouteBook& book, cluster::RoutingRules& rules,
                          const ai::LazyThemeDetector& detector);
void addMoeRoutes(api::RouteBook& book, ai::MoeRouter& experts);
void addConfigRoutes(api::RouteBook& book, config::NodeConfigs& configs);
void addBackendRoutes(api::RouteBook& book, config::BackendProfileManager& profiles,
                      net::HttpClient& http);
void addEventRoutes(api::RouteBook& book, events::EventStreamService& events);
void addMetricsRoutes(api::RouteBook& book, metrics::MetricsCollector& collector,
                      metrics::MetricsHistory& history);

}  // namespace tavrel::controller
