#include <string>
#include <string_view>
#include <utility>

#include "api/route_book.h"
#include "cluster/agent_registry.h"
#include "cluster/router_registry.h"
#include "controller/controller_identity.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "controller/version.h"
#include "platform/files.h"
#include "platform/text.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"
#include "worker/worker_url.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;

/// How the kinds of typed workers show in the component list, in its order.
struct ComponentKind {
  worker::WorkerKind kind;
  const char* type;
  const char* dashboard;  ///< before the id; null: the kind has no dashboard
};
constexpr ComponentKind kComponentKinds[] = {
    {worker::WorkerKind::kData, "data-worker", "/dashboard/data/"},
    {worker::WorkerKind::kMedia, "media-worker", "/dashboard/media/"},
    {worker::WorkerKind::kComm, "comm-worker", "/dashboard/comm/"},
    {worker::WorkerKind::kAgent, "agent-worker", "/dashboard/agent/"},
    {worker::WorkerKind::kScience, "science-worker", "/dashboard/science/"},
    {worker::WorkerKind::kTraining, "training-worker", "/dashboard/training/"},
    {worker::WorkerKind::kNativeInference, "inference-worker", nullptr},
    {worker::WorkerKind::kSwarm, "swarm-controller", nullptr},
};

/// Names that may be downloaded as they are; installation packages go by prefix and suffix.
constexpr std::string_view kDownloads[] = {
    "tavrel-workerd-linux-x86_64", "tavrel-workerd-ubuntu-x86_64", "tavrel-workerd-fedora-x86_64",
    "tavrel-controller", "tavrel-worker"};

constexpr std::string_view kDownloadDirectories[] = {"dist/",
                                                     "../dist/",
                                                     "dist/fedora42/",
                                                     "../dist/fedora42/",
                                                     "dist/macos-arm64/",
                                                     "../dist/macos-arm64/"};

bool mayDownload(std::string_view name) {
  if (name.find_first_of(std::string_view("/\0\"", 3)) != std::string_view::npos) return false;
  for (const std::string_view allowed : kDownloads) {
    if (name == allowed) return true;
  }
  const bool ours = name.starts_with("tavrel-workerd") || name.starts_with("tavrel-controller");
  const bool package =
      name.find(".rpm") != std::string_view::npos || name.find(".deb") != std::string_view::npos;
  return ours && package;
}

Response download(Context&, const Request& request) {
  const std::string name = request.getPathParam("filename");
  if (!mayDownload(name)) return Response::error(404, "Not Found");
  for (const std::string_view directory : kDownloadDirectories) {
    if (auto content = platform::readFile(std::string(directory) + name)) {
      Response response = Response::text(std::move(*content), "application/octet-stream");
      response.headers["Content-Disposition"] = "attachment; filename=\"" + name + "\"";
      return response;
    }
  }
  return Response::error(404, "Binary not found: " + name);
}

std::string workerComponentStatus(worker::WorkerStatus status) {
  switch (status) {
    case worker::WorkerStatus::kOffline:
      return "offline";
    case worker::WorkerStatus::kStarting:
      return "unknown";
    default:
      return "online";
  }
}

nlohmann::json component(const worker::WorkerInfo& worker) {
  const std::string& host = worker.ip_address.empty() ? worker.hostname : worker.ip_address;
  return {{"type", "worker"},
          {"name", worker.worker_name},
          {"hostname", worker.hostname},
          {"url", worker::httpUrlIfValid(host, worker.port)},
          {"status", workerComponentStatus(worker.status)},
          {"last_heartbeat", platform::toEpochSeconds(worker.last_heartbeat)},
          {"mode", worker.worker_type},
          {"dashboard_url", "/dashboard/worker/" + platform::percentEncode(worker.worker_id)}};
}

nlohmann::json component(const cluster::RouterInfo& router) {
  const bool up = router.status == cluster::NodeStatus::kHealthy ||
                  router.status == cluster::NodeStatus::kDegraded;
  const bool down = router.status == cluster::NodeStatus::kUnhealthy ||
                    router.status == cluster::NodeStatus::kOffline;
  return {{"type", "router"},
          {"name", router.hostname.empty() ? router.id : router.hostname},
          {"hostname", router.hostname},
          {"url", router.baseUrl()},
          {"status", up ? "online" : (down ? "offline" : "unknown")},
          {"last_heartbeat", platform::toEpochSeconds(router.last_heartbeat)},
          {"mode", cluster::aiControlModeToString(router.ai_control.mode)}};
}

nlohmann::json component(const worker::TypedWorkerInfo& worker, const ComponentKind& kind,
                         platform::WallTime now) {
  nlohmann::json entry = {{"type", kind.type},
                          {"name", worker.name},
                          {"hostname", worker.hostname},
                          {"url", worker.baseUrl()},
                          {"status", worker.statusAt(now)},
                          {"last_heartbeat", platform::toEpochSeconds(worker.last_heartbeat)},
                          {"mode", worker.worker_type}};
  if (kind.dashboard != nullptr) {
    entry["dashboard_url"] = kind.dashboard + platform::percentEncode(worker.id);
  }
  return entry;
}

struct StatusRoutes {
  const ControllerIdentity& self;
  const worker::WorkerRegistry& workers;
  const cluster::RouterRegistry& routers;
  const worker::TypedWorkerRegistries& typed;
  const cluster::AgentRegistry* agents;

  Response status(Context&, const Request&) const {
    std::size_t online = 0;
    for (const worker::WorkerPtr& worker : workers.snapshot()) {
      if (worker->status == worker::WorkerStatus::kOnline) ++online;
    }
    std::int64_t swarms = 0;
    for (const auto& swarm : typed.of(worker::WorkerKind::kSwarm).snapshot()) {
      swarms += swarm->number("active_swarms");
    }
    return Response::ok(
        {{"controller_name", self.name},
         {"controller_id", self.id},
         {"version", kVersion},
         {"metrics",
          {{"active_swarms", swarms},
           {"online_workers", online},
           {"installed_agents", agents == nullptr ? 0 : agents->getAgentCount()},
           {"total_agent_invocations", agents == nullptr ? 0 : agents->totalInvocations()}}}});
  }

  Response components(Context&, const Request&) const {
    const platform::WallTime now = platform::wallNow();
    nlohmann::json list = nlohmann::json::array();
    for (const worker::WorkerPtr& worker : workers.snapshot()) list.push_back(component(*worker));
    for (const cluster::RouterInfo& router : routers.all()) list.push_back(component(router));
    for (const ComponentKind& kind : kComponentKinds) {
      for (const auto& worker : typed.of(kind.kind).snapshot()) {
        list.push_back(component(*worker, kind, now));
      }
    }
    return counted("components", std::move(list));
  }
};

}  // namespace

void addStatusRoutes(api::RouteBook& book, const ControllerIdentity& self,
                     const worker::WorkerRegistry& workers, const cluster::RouterRegistry& routers,
                     const worker::TypedWorkerRegistries& typed,
                     const cluster::AgentRegistry* agents) {
  const StatusRoutes h{self, workers, routers, typed, agents};
  book.get("/api/v1/health", [](Context&, const Request&) {
    return Response::ok({{"status", "ok"}, {"version", kVersion}, {"component", "controller"}});
  });
  book.get("/health", [](Context&, const Request&) {
    return Response::ok({{"status", "ok"}, {"component", "controller"}});
  });
  book.get("/api/v1/status", [h](Context& c, const Request& r) { return h.status(c, r); });
  book.get("/api/v1/components", [h](Context& c, const Request& r) { return h.components(c, r); });
  book.get("/downloads/:filename", download);
  book.get("/", [](Context&, const Request&) { return Response::ok({{"status", "ok"}}); });
}

}  // namespace tavrel::controller
