#pragma once

#include <memory>
#include <stop_token>

#include "ai/ai_control.h"
#include "ai/moe_router.h"
#include "ai/theme_detector.h"
#include "api/auth_middleware.h"
#include "api/http_server.h"
#include "cluster/router_registry.h"
#include "cluster/routing_rule.h"
#include "cluster/task_executor.h"
#include "config/backend_profile_manager.h"
#include "config/node_config.h"
#include "controller/background_loops.h"
#include "controller/cluster_services.h"
#include "controller/command_line.h"
#include "controller/controller_identity.h"
#include "controller/hierarchy_services.h"
#include "controller/routes/account_access.h"
#include "events/event_stream_service.h"
#include "identity/user_store.h"
#include "inference/agent_host.h"
#include "inference/chat_proxy.h"
#include "inference/local_model_server.h"
#include "inference/model_catalogue.h"
#include "inference/openai_gateway.h"
#include "metrics/metrics_collector.h"
#include "metrics/metrics_history.h"
#include "models/model_distribution.h"
#include "models/model_registry.h"
#include "models/pull_jobs.h"
#include "models/training_jobs.h"
#include "net/http_client.h"
#include "net/smtp_client.h"
#include "net/worker_client.h"
#include "net/worker_connection_pool.h"
#include "pipeline/pipeline_coordinator.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {

/// Every long-lived object of the program, in order of creation: each may use those above it, and
/// they are destroyed in reverse. Owned by start-up; constructing it starts nothing.
struct Services {
  explicit Services(const Options& options);

  /// Throws as HierarchyServices does.
  void createHierarchy(const Options& options);

  ControllerIdentity self;
  api::AuthMiddleware auth;
  events::EventStreamService& events;
  metrics::MetricsCollector& collector;
  metrics::MetricsHistory& history;

  net::HttpClient http;
  net::WorkerClient worker_client;
  net::WorkerConnectionPool worker_connections;
  net::SmtpClient smtp;

  /// Made by start-up in mode "full", where the controller has user accounts; else null.
  std::unique_ptr<identity::UserStore> user_store;
  AccountAccess accounts;

  worker::WorkerRegistry workers;
  worker::TypedWorkerRegistries typed;
  cluster::RouterRegistry routers;
  cluster::RoutingRules routing_rules;
  config::NodeConfigs node_configs;
  config::BackendProfileManager backend_profiles;

  std::stop_source programs;  ///< a stop kills the programs that run for requests
  cluster::TaskExecutor task_executor;
  std::unique_ptr<ClusterServices> cluster;  ///< null: cluster mode is off

  ai::AiControl ai_control;
  ai::MoeRouter experts;
  ai::LazyThemeDetector themes;
  models::ModelRegistry model_registry;
  models::TrainingJobs training_jobs;
  models::PullJobs pull_jobs;
  models::ModelDistribution distribution;
  pipeline::PipelineCoordinator pipelines;
  inference::LocalModelServer local_server;
  inference::AgentHost agent_host;
  inference::ModelCatalogue models;
  inference::ChatProxy chat;
  inference::OpenAiGateway openai;

  /// Null until createHierarchy; the routes need it.
  std::unique_ptr<HierarchyServices> hierarchy;

  api::HttpServer server;
  BackgroundLoops loops;
};

/// Offers every family's routes. The hierarchy must have been created.
void addAllRoutes(api::RouteBook& book, Services& services);

}  // namespace tavrel::controller
