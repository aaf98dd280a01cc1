#include <nlohmann/json.hpp>
#include <utility>
#include <variant>

#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "events/event_stream_service.h"
#include "platform/console.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"
#include "worker/worker_url.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;
using platform::printLine;
using worker::TypedWorkerInfo;
using worker::WorkerKind;

/// The six routes of one kind.
struct TypedWorkerRoutes {
  const worker::TypedWorkerKind& kind;
  worker::TypedWorkerRegistry& registry;
  const worker::TypedWorkerRegistries& typed;
  const worker::WorkerRegistry& workers;
  events::EventStreamService& events;

  Response registerWorker(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    auto read = worker::typedWorkerFromRegistration(kind, *req.json(), req.remote_address,
                                                    platform::wallNow());
    if (const auto* refusal = std::get_if<std::string>(&read)) {
      return Response::error(400, *refusal);
    }
    auto& info = std::get<TypedWorkerInfo>(read);
    json reply{{"success", true},
               {kind.id_key, info.id},
               {"message", std::string(kind.title) + " registered successfully"}};
    if (kind.replies_with_topology) reply["cluster_topology"] = topologyFor(info.id);
    admit(std::move(info));
    return Response::ok(reply);
  }

  Response heartbeat(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    const std::string id = req.getPathParam("id");
    const platform::WallTime now = platform::wallNow();
    const bool known = registry.update(
        id, [&](TypedWorkerInfo& info) { worker::applyTypedHeartbeat(info, body, now); });
    if (!known) {
      if (!isStorableId(id)) return Response::error(400, "id is not valid UTF-8");
      auto read = worker::typedWorkerFromHeartbeat(kind, id, body, req.remote_address, now);
      if (const auto* refusal = std::get_if<std::string>(&read)) {
        return Response::error(400, *refusal);
      }
      admit(std::move(std::get<TypedWorkerInfo>(read)));
    }
    return Response::ok({{"success", true}, {kind.id_key, id}});
  }

  Response deregister(const Request& req) const {
    const worker::TypedWorkerPtr removed = registry.remove(req.getPathParam("id"));
    if (removed == nullptr) return notFound();
    printLine(lineStart("Deregistered") + removed->id);
    if (kind.offline != nullptr) {
      (events.*kind.offline)(removed->id, {{"name", removed->name}, {"url", removed->url}});
    }
    return Response::ok(
        {{"success", true}, {"message", std::string(kind.title) + " deregistered"}});
  }

  Response list() const {
    const platform::WallTime now = platform::wallNow();
    json records = json::array();
    for (const auto& info : registry.snapshot()) records.push_back(info->toJson(now));
    return counted(kind.list_key, std::move(records));
  }

  Response get(const Request& req) const {
    const worker::TypedWorkerPtr info = registry.find(req.getPathParam("id"));
    return info == nullptr ? notFound() : Response::ok(info->toJson(platform::wallNow()));
  }

  Response remove(const Request& req) const {
    const worker::TypedWorkerPtr removed = registry.remove(req.getPathParam("id"));
    if (removed == nullptr) return notFound();
    printLine(lineStart("Removed") + removed->id);
    return Response::ok({{"status", "removed"}});
  }

  void admit(TypedWorkerInfo info) const {
    const std::string id = info.id;
    const std::string name = info.name;
    std::string line = lineStart("Registered") + id + " at " + info.url;
    if (kind.log_suffix != nullptr) line += kind.log_suffix(info);
    const json record = info.toJson(info.last_heartbeat);
    for (const worker::PurgedWorker& purged : registry.registerWorker(std::move(info))) {
      printLine("[" + std::string(kind.label) + "] Purging " +
                (purged.replaced ? "replaced " : "stale ") + kind.noun + ": " + purged.id + " (" +
                purged.name + ")");
    }
    printLine(line);
    announce(id, name, record);
  }

  void announce(const std::string& id, const std::string& name, const json& record) const {
    if (kind.online != nullptr) {
      json data = json::object();
      for (const char* key : kind.event_keys) data[key] = record.at(key);
      (events.*kind.online)(id, std::move(data));
    }
    if (kind.logs_online) {
      events.logInfo(id, "inference_worker", std::string(kind.title) + " online: " + name);
    }
  }

  /// Where a daemon that has just registered finds the others.
  json topologyFor(const std::string& self) const {
    const platform::WallTime now = platform::wallNow();
    json inference = json::array();
    for (const worker::WorkerPtr& worker : workers.snapshot()) {
      if (worker->status != worker::WorkerStatus::kOnline) continue;
      std::string url = worker::baseUrlOf(*worker);
      if (!url.empty()) inference.push_back(std::move(url));
    }
    for (std::string& url : typed.of(WorkerKind::kNativeInference).onlineUrls(now)) {
      inference.push_back(std::move(url));
    }
    json peers = json::array();
    for (const auto& peer : registry.snapshot()) {
      if (peer->id == self || peer->statusAt(now) != "online" || peer->baseUrl().empty()) continue;
      peers.push_back(peer->baseUrl());
    }
    return {{"inference_worker_urls", std::move(inference)},
            {"data_worker_urls", typed.of(WorkerKind::kData).onlineUrls(now)},
            {"agent_worker_urls", typed.of(WorkerKind::kAgent).onlineUrls(now)},
            {"peers", std::move(peers)}};
  }

  std::string lineStart(const char* what) const {
    return "[" + std::string(kind.label) + "] " + what + " " + kind.noun + ": ";
  }

  Response notFound() const { return Response::error(404, std::string(kind.title) + " not found"); }
};

}  // namespace

void addTypedWorkerRoutes(api::RouteBook& book, worker::TypedWorkerRegistries& typed,
                          const worker::WorkerRegistry& workers,
                          events::EventStreamService& events) {
  for (const worker::TypedWorkerKind& kind : worker::typedWorkerKinds()) {
    const TypedWorkerRoutes h{kind, typed.of(kind.kind), typed, workers, events};
    const std::string prefix = kind.prefix;
    book.post(prefix + "/register", [h](auto&, auto& req) { return h.registerWorker(req); });
    book.post(prefix + "/:id/heartbeat", [h](auto&, auto& req) { return h.heartbeat(req); });
    book.post(prefix + "/:id/deregister", [h](auto&, auto& req) { return h.deregister(req); });
    book.get(prefix, [h](auto&, auto&) { return h.list(); });
    book.get(prefix + "/:id", [h](auto&, auto& req) { return h.get(req); });
    book.del(prefix + "/:id", [h](auto&, auto& req) { return h.remove(req); });
  }
}

}  // namespace tavrel::controller
