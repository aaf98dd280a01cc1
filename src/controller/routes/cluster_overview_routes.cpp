#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "api/route_book.h"
#include "cluster/cluster_manager.h"
#include "cluster/controller_tiers.h"
#include "cluster/router_registry.h"
#include "controller/routes/families.h"
#include "platform/json_text.h"
#include "platform/text.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"
#include "worker/worker_url.h"

namespace tavrel::controller {
namespace {

using api::Response;
using nlohmann::json;
using worker::WorkerInfo;
using worker::WorkerKind;
using worker::WorkerStatus;

constexpr std::pair<WorkerKind, const char*> kCountedKinds[] = {
    {WorkerKind::kData, "data_workers"},       {WorkerKind::kMedia, "media_workers"},
    {WorkerKind::kComm, "comm_workers"},       {WorkerKind::kAgent, "agent_workers"},
    {WorkerKind::kScience, "science_workers"}, {WorkerKind::kTraining, "training_workers"},
};

/// Whether it passes requests on to a service outside the cluster.
bool isCloud(const WorkerInfo& worker) {
  using Backend = worker::InferenceBackend;
  const Backend backend = worker::inferenceBackendFromString(worker.backend_type);
  return worker.worker_type == "cloud" ||
         (backend >= Backend::kOllamaCloud && backend <= Backend::kNvidiaNimCloud) ||
         backend == Backend::kMetaLcmCloud || backend == Backend::kMetaVljepaCloud ||
         backend == Backend::kXlstmCloud;
}

/// By convention the names of embedding models say what they are.
std::vector<std::string> embeddingModels(const std::vector<std::string>& models) {
  std::vector<std::string> found;
  for (const std::string& model : models) {
    if (platform::toLower(model).find("embed") != std::string::npos) found.push_back(model);
  }
  return found;
}

std::string urlOf(const WorkerInfo& worker) {
  const std::string& host = worker.ip_address.empty() ? worker.hostname : worker.ip_address;
  return host.empty() ? "" : worker::httpUrl(host, worker.port);
}

json resource(const WorkerInfo& worker) {
  json loaded = json::array();
  for (const worker::RunningModel& model : worker.running_models) loaded.push_back(model.name);
  return {{"worker_id", worker.worker_id},
          {"worker_name", worker.worker_name},
          {"worker_type", worker.worker_type},
          {"hostname", worker.hostname},
          {"url", urlOf(worker)},
          {"backends", worker.capabilities.available_backends},
          {"backend_type", worker.backend_type},
          {"models", std::move(loaded)},
          {"available_models", worker.capabilities.installed_models},
          {"capabilities", worker.capabilities.toJson()}};
}

json resource(const worker::TypedWorkerInfo& worker) {
  return {{"worker_id", worker.id},
          {"worker_name", worker.name},
          {"worker_type", worker.worker_type},
          {"hostname", worker.hostname},
          {"url", worker.baseUrl()},
          {"models", worker.list("loaded_models")},
          {"available_models", worker.list("available_models")},
          {"capabilities", worker.capabilities}};
}

/// How many of a kind there are.
struct Tally {
  std::size_t count = 0;
  std::size_t online = 0;

  void add(bool is_online) {
    ++count;
    if (is_online) ++online;
  }
  json toJson() const {
    return {{"count", count}, {"online", online}, {"offline", count - online}};
  }
};

struct ClusterOverviewRoutes {
  const cluster::ClusterManager* manager;
  const cluster::ControllerTiers& tiers;
  const worker::WorkerRegistry& workers;
  const cluster::RouterRegistry& routers;
  const worker::TypedWorkerRegistries& typed;

  Response nodes() const {
    platform::JsonArrayText nodes;
    if (manager != nullptr) {
      for (const cluster::NodePtr& node : manager->getAllNodes()) nodes.add(node->toJson());
    }
    for (const worker::WorkerPtr& worker : workers.snapshot()) {
      const bool online = worker->status == WorkerStatus::kOnline;
      nodes.add({{"worker_id", worker->worker_id},
                 {"worker_name", worker->worker_name},
                 {"hostname", worker->hostname},
                 {"ip_address", worker->ip_address},
                 {"port", worker->port},
                 {"type", "worker"},
                 {"status", online ? "online" : "offline"},
                 {"os", worker->os},
                 {"arch", worker->arch},
                 {"version", worker->version}});
    }
    Response response;
    response.body = "{\"nodes\":" + nodes.take() + '}';
    return response;
  }

  Response status() const {
    const std::size_t controllers = tiers.connectedCount() + 1;
    json components = {{"controllers", {{"count", controllers}, {"online", controllers}}}};
    std::size_t online = controllers;
    const auto enter = [&](const char* key, const Tally& tally) {
      online += tally.online;
      components[key] = tally.toJson();
    };
    Tally inference;
    for (const worker::WorkerPtr& worker : workers.snapshot()) {
      inference.add(worker->status == WorkerStatus::kOnline);
    }
    enter("workers", inference);
    Tally front_ends;
    for (const cluster::RouterInfo& router : routers.all()) {
      front_ends.add(cluster::isAvailable(router.status));
    }
    enter("routers", front_ends);
    const platform::WallTime now = platform::wallNow();
    for (const auto& [kind, key] : kCountedKinds) {
      Tally daemons;
      for (const auto& daemon : typed.of(kind).snapshot()) {
        daemons.add(daemon->statusAt(now) != "offline");
      }
      enter(key, daemons);
    }
    return Response::ok({{"status", "healthy"},
                         {"total_nodes_online", online},
                         {"components", std::move(components)}});
  }

  /// What can run models now. A worker that passes on to a service outside is a cloud worker only;
  /// whoever has an embedding model is an embedding provider besides.
  Response resources() const {
    json local = json::array();
    json native = json::array();
    json cloud = json::array();
    json embedding = json::array();
    const auto enterProvider = [&](json entry, std::vector<std::string> models) {
      if (models.empty()) return;
      entry["models"] = std::move(models);
      embedding.push_back(std::move(entry));
    };
    for (const worker::WorkerPtr& worker : workers.snapshot()) {
      if (worker->status != WorkerStatus::kOnline) continue;
      json entry = resource(*worker);
      enterProvider(entry, embeddingModels(worker->capabilities.installed_models));
      (isCloud(*worker) ? cloud : local).push_back(std::move(entry));
    }
    const platform::WallTime now = platform::wallNow();
    for (const auto& daemon : typed.of(WorkerKind::kNativeInference).snapshot()) {
      if (daemon->statusAt(now) == "offline") continue;
      json entry = resource(*daemon);
      enterProvider(entry, embeddingModels(daemon->list("available_models")));
      native.push_back(std::move(entry));
    }
    return Response::ok({{"inference_workers", std::move(local)},
                         {"native_inference_workers", std::move(native)},
                         {"cloud_workers", std::move(cloud)},
                         {"embedding_providers", std::move(embedding)}});
  }
};

}  // namespace

void addClusterOverviewRoutes(api::RouteBook& book, const cluster::ClusterManager* manager,
                              const cluster::ControllerTiers& tiers,
                              const worker::WorkerRegistry& workers,
                              const cluster::RouterRegistry& routers,
                              const worker::TypedWorkerRegistries& typed) {
  const ClusterOverviewRoutes h{manager, tiers, workers, routers, typed};
  book.get("/api/v1/cluster/status", [h](auto&, auto&) { return h.status(); });
  book.get("/api/v1/cluster/resources", [h](auto&, auto&) { return h.resources(); });
  book.get("/api/v1/cluster/nodes", [h](auto&, auto&) { return h.nodes(); });
}

}  // namespace tavrel::controller
