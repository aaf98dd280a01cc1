#include "controller/services.h"

#include "platform/files.h"

namespace tavrel::controller {
namespace {

/// Routers first, then the model registry.
std::vector<inference::RemoteCatalogue> nodesWithModels(const cluster::RouterRegistry& routers,
                                                        const models::ModelRegistry& registry) {
  std::vector<inference::RemoteCatalogue> remotes;
  for (const cluster::RouterInfo& router : routers.all()) {
    const std::string url = router.baseUrl();
    if (router.status == cluster::NodeStatus::kHealthy && !url.empty()) {
      remotes.push_back(
          {net::joinUrl(url, "/api/v1/models?scope=own"), "cluster", "router", false});
    }
  }
  const std::string storage = registry.storageWorkerUrl(platform::wallNow());
  if (!storage.empty()) {
    remotes.push_back({net::joinUrl(storage, "/api/v1/models"), "registry", "registry", true});
  }
  return remotes;
}

std::string scienceWorkerUrl(const worker::TypedWorkerRegistries& typed) {
  const auto found = typed.of(worker::WorkerKind::kScience).firstOnline(platform::wallNow());
  return found == nullptr ? "" : found->baseUrl();
}

inference::OpenAiSettings openAiSettings(const Options& options) {
  inference::OpenAiSettings settings;
  if (options.worker_stall_seconds > 0) {
    settings.stall_timeout = std::chrono::seconds(options.worker_stall_seconds);
  }
  if (options.stream_comment_seconds > 0) {
    settings.keep_alive = std::chrono::seconds(options.stream_comment_seconds);
  }
  return settings;
}

}  // namespace

Services::Services(const Options& options)
    : self(identityOf(options)),
      events(events::EventStreamService::instance()),
      collector(metrics::MetricsCollector::getInstance()),
      history(metrics::MetricsHistory::instance()),
      worker_client(http),
      worker_connections({}),
      accounts{nullptr, options.auth_mode},
      backend_profiles(platform::userConfigDirectory("/tmp") + "/backend_profiles.json"),
      task_executor(http, programs.get_token()),
      cluster(options.cluster_enabled ? std::make_unique<ClusterServices>(options, self) : nullptr),
      ai_control(http),
      themes(http),
      model_registry(worker_client, typed.of(worker::WorkerKind::kData)),
      training_jobs(worker_client, typed.of(worker::WorkerKind::kTraining), model_registry),
      pull_jobs(worker_client, events),
      distribution(worker_client, workers, model_registry),
      pipelines(worker_client, workers,
                [this] { return model_registry.storageWorkerUrl(platform::wallNow()); }),
      local_server(http, options.local_model_server),
      agent_host(workers, http, local_server.baseUrl()),
      models(workers, local_server, http,
             [this] { return nodesWithModels(routers, model_registry); }),
      chat({workers, ai_control, experts, routers, [this] { return scienceWorkerUrl(typed); }, http,
            local_server, collector}),
      openai(workers, worker_connections, experts, local_server, collector,
             openAiSettings(options)),
      loops(workers, routers, typed, history, auth) {
  loops.tendGateway(openai);
}

void Services::createHierarchy(const Options& options) {
  hierarchy =
      std::make_unique<HierarchyServices>(options, self, http, workers, routers, ai_control);
}

}  // namespace tavrel::controller
