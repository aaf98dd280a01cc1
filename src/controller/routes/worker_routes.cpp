#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "api/route_book.h"
#include "cluster/router_registry.h"
#include "config/node_config.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "events/event_stream_service.h"
#include "metrics/metrics_history.h"
#include "pipeline/pipeline_coordinator.h"
#include "platform/console.h"
#include "platform/text.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;
using platform::printLine;
using worker::WorkerInfo;

float percentOf(std::uint64_t part, std::uint64_t whole) {
  if (whole == 0) return 0;
  return static_cast<float>(100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

// What a worker reported, as one point of its history. GPU memory is summed, use averaged, the
// hottest GPU counts, and power is what all draw together.
metrics::MetricsDataPoint pointFrom(const worker::SystemMetrics& reported, platform::WallTime now) {
  metrics::MetricsDataPoint point;
  point.timestamp = now;
  point.cpu_usage = reported.cpu_usage;
  point.cpu_cores = reported.cpu_cores;
  point.cpu_temperature = reported.cpu_temperature;
  point.load_1m = reported.load_average[0];
  point.load_5m = reported.load_average[1];
  point.load_15m = reported.load_average[2];
  point.memory_total = reported.memory_total;
  point.memory_used = reported.memory_used;
  point.memory_available = reported.memory_available;
  point.memory_usage_percent = percentOf(reported.memory_used, reported.memory_total);
  point.disk_total = reported.disk_total;
  point.disk_used = reported.disk_used;
  point.disk_free = reported.disk_free;
  point.disk_usage_percent = percentOf(reported.disk_used, reported.disk_total);
  point.gpu_count = static_cast<std::int32_t>(reported.gpus.size());
  for (const worker::GPUInfo& gpu : reported.gpus) {
    point.gpu_usage += gpu.utilization / static_cast<float>(reported.gpus.size());
    point.gpu_memory_total += gpu.memory_total;
    point.gpu_memory_used += gpu.memory_used;
    point.gpu_temperature = std::max(point.gpu_temperature, gpu.temperature);
    point.gpu_power += gpu.power_draw;
  }
  return point;
}

struct WorkerRoutes {
  worker::WorkerRegistry& workers;
  cluster::RouterRegistry& routers;
  events::EventStreamService& events;
  metrics::MetricsHistory& history;
  const config::NodeConfigs& configs;
  pipeline::PipelineCoordinator& pipelines;
  std::function<void(const std::string& node_id)> refresh_node;

  Response registerWorker(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    if (body.value("worker_id", "").empty()) return Response::error(400, "worker_id is required");
    WorkerInfo info = worker::workerFromRegistration(body, platform::wallNow());
    const std::string id = info.worker_id;
    admit(std::move(info), true);
    return Response::ok({{"status", "registered"}, {"worker_id", id}});
  }

  Response heartbeat(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    const std::string id = req.getPathParam("worker_id");
    const platform::WallTime now = platform::wallNow();
    const bool known =
        workers.update(id, [&](WorkerInfo& worker) { worker::applyHeartbeat(worker, body, now); });
    if (!known) {
      // The controller was restarted, or the worker was silent for too long.
      if (!isStorableId(id)) return Response::error(400, "worker_id is not valid UTF-8");
      WorkerInfo info = worker::workerFromRegistration(body, now);
      worker::applyHeartbeat(info, body, now);
      info.worker_id = id;
      admit(std::move(info), false);
    }
    const worker::WorkerPtr worker = workers.find(id);
    if (body.contains("metrics") && worker != nullptr) {
      history.recordWorkerMetrics(id, pointFrom(worker->metrics, now));
    }
    if (body.contains("pipeline_shards")) pipelines.reportShards(id, body["pipeline_shards"]);
    json reply = {{"status", "ok"}};
    if (worker != nullptr) addConfigHint(*worker, reply);
    return Response::ok(reply);
  }

  /// Tells a worker that runs with another configuration than it should to fetch that.
  void addConfigHint(const WorkerInfo& worker, json& reply) const {
    const std::string expected = configs.configId(worker.worker_id);
    if (expected.empty() || expected == worker.config_id) return;
    reply["config_update_required"] = true;
    reply["expected_config_id"] = expected;
    reply["config_pull_url"] =
        "/api/v1/config/pull?node_id=" + platform::percentEncode(worker.worker_id);
    reply["restart_required"] = config::ConfigPullResponse().restart_required;
  }

  Response list() const {
    worker::WorkerListing listing = workers.listing();
    const std::string begin = "{\"count\":" + std::to_string(listing.count) + ",\"workers\":";
    Response response;
    response.body = std::move(listing.workers);  // tens of megabytes: not copied
    response.body.insert(0, begin);
    response.body += '}';
    return response;
  }

  Response get(const Request& req) const {
    const worker::WorkerPtr worker = workers.find(req.getPathParam("worker_id"));
    if (worker == nullptr) return Response::error(404, "Worker not found");
    return Response::ok(worker->toJson());
  }

  Response discover() const {
    return Response::ok({{"discovered", workers.size()}, {"status", "ok"}});
  }

  Response remove(const Request& req) const {
    const std::string id = req.getPathParam("worker_id");
    if (!workers.remove(id)) return Response::error(404, "Worker not found");
    printLine("[Workers] Removed worker: " + id);
    return Response::ok({{"status", "removed"}});
  }

  Response nodeHeartbeat(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string id = req.json()->value("id", "");
    const std::string type = req.json()->value("type", "");
    const std::string version = req.json()->value("version", "");
    if (id.empty()) return Response::error(400, "id is required");
    if (refresh_node) refresh_node(id);
    if (type == "router") routers.touch(id, platform::wallNow());
    return Response::ok({{"success", true}, {"node_id", id}, {"type", type}, {"version", version}});
  }

  void admit(WorkerInfo info, bool displace_empty_name) const {
    const std::string id = info.worker_id;
    const std::string line = "[Workers] Registered worker: " + info.worker_name + " (" + id +
                             ") from " + info.ip_address;
    json online = {{"name", info.worker_name},
                   {"ip", info.ip_address},
                   {"backends", info.capabilities.available_backends}};
    for (const std::string& old : workers.registerWorker(std::move(info), displace_empty_name)) {
      printLine("[Workers] Removing stale worker: " + old);
    }
    printLine(line);
    events.workerOnline(id, std::move(online));
  }
};

}  // namespace

void addWorkerRoutes(api::RouteBook& book, worker::WorkerRegistry& workers,
                     cluster::RouterRegistry& routers, events::EventStreamService& events,
                     metrics::MetricsHistory& history, const config::NodeConfigs& configs,
                     pipeline::PipelineCoordinator& pipelines,
                     std::function<void(const std::string& node_id)> refresh_node) {
  const WorkerRoutes h{
      workers, routers, events, history, configs, pipelines, std::move(refresh_node)};
  book.post("/api/v1/workers/register", [h](auto&, auto& req) { return h.registerWorker(req); });
  book.post("/api/v1/workers/:worker_id/heartbeat",
            [h](auto&, auto& req) { return h.heartbeat(req); });
  book.get("/api/v1/workers", [h](auto&, auto&) { return h.list(); });
  book.get("/api/v1/workers/:worker_id", [h](auto&, auto& req) { return h.get(req); });
  book.post("/api/v1/workers/discover", [h](auto&, auto&) { return h.discover(); });
  book.del("/api/v1/workers/:worker_id", [h](auto&, auto& req) { return h.remove(req); });
  book.post("/api/v1/cluster/nodes/heartbeat",
            [h](auto&, auto& req) { return h.nodeHeartbeat(req); });
}

}  // namespace tavrel::controller
