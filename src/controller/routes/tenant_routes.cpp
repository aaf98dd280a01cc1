#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "api/route_book.h"
#include "controller/routes/account_body.h"
#include "controller/routes/families.h"
#include "controller/routes/relay.h"
#include "controller/routes/route_input.h"
#include "net/worker_client.h"
#include "platform/clock.h"
#include "platform/json_fields.h"
#include "platform/side_by_side.h"
#include "platform/text.h"
#include "worker/typed_worker_registry.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using net::CallKind;
using net::HttpResult;
using nlohmann::json;
using worker::TypedWorkerPtr;

/// How many data workers are asked at once for their lists.
constexpr std::size_t kMaxCallsAtOnce = 16;
constexpr const char* kTenants = "/api/v1/tenants";

bool isTrusted(const TypedWorkerPtr& worker, platform::WallTime now) {
  return now - worker->last_heartbeat < worker::kTrustedFor;
}

/// The tenants of a list answer: a bare array, or an object with a "tenants" array.
json tenantsIn(const std::string& text) {
  json answer = net::parsedJson(text);
  if (answer.is_array()) return answer;
  const json* tenants = answer.is_object() ? platform::jsonMember(answer, "tenants") : nullptr;
  return tenants != nullptr && tenants->is_array() ? *tenants : json::array();
}

/// Whether the worker did what it was asked: it has the tenant.
bool succeeded(const HttpResult& result) {
  if (!result.transport_error.empty() || result.status < 200 || result.status > 299) return false;
  const json answer = net::parsedJson(result.body);
  return !answer.is_object() || !answer.contains("error");
}

struct TenantRoutes {
  const worker::TypedWorkerRegistry& data_workers;
  net::WorkerClient& client;

  Response list() const {
    const std::vector<TypedWorkerPtr> workers = reachable();
    std::vector<json> lists(workers.size(), json::array());
    std::vector<std::function<void()>> calls;
    for (std::size_t i = 0; i < workers.size(); ++i) {
      calls.emplace_back([&, i] {
        const HttpResult result =
            client.get(CallKind::kTenants, net::joinUrl(workers[i]->baseUrl(), kTenants));
        if (result.ok()) lists[i] = tenantsIn(result.body);
      });
    }
    platform::runSideBySide(calls, kMaxCallsAtOnce);

    json tenants = json::array();
    for (std::size_t i = 0; i < workers.size(); ++i) {
      for (json& tenant : lists[i]) {
        if (!tenant.is_object()) continue;
        tenant["data_worker_id"] = workers[i]->id;
        tenant["data_worker_url"] = workers[i]->baseUrl();
        tenants.push_back(std::move(tenant));
      }
    }
    return counted("tenants", std::move(tenants));
  }

  Response create(const Request& request) const {
    if (auto refusal = refusedBody(request, {})) return *refusal;
    const TypedWorkerPtr worker = emptiest();
    if (worker == nullptr) return Response::error(503, "No data workers available");
    return relayed(
        client.post(CallKind::kTenants, net::joinUrl(worker->baseUrl(), kTenants), request.body),
        "Failed to reach data worker");
  }

  Response show(const Request& request) const {
    return firstToHaveIt(request, "", [this](const std::string& url) {
      return client.get(CallKind::kTenants, url);
    });
  }

  Response usage(const Request& request) const {
    return firstToHaveIt(request, "/usage", [this](const std::string& url) {
      return client.get(CallKind::kTenants, url);
    });
  }

  Response update(const Request& request) const {
    if (auto refusal = refusedBody(request, {})) return *refusal;
    return firstToHaveIt(request, "", [&](const std::string& url) {
      return client.put(CallKind::kTenants, url, request.body);
    });
  }

  Response remove(const Request& request) const {
    return firstToHaveIt(request, "", [this](const std::string& url) {
      return client.del(CallKind::kTenants, url);
    });
  }

 private:
  /// Asks one data worker after the other for the tenant of the request.
  Response firstToHaveIt(const Request& request, const char* below,
                         const std::function<HttpResult(const std::string& url)>& call) const {
    const std::string path =
        std::string(kTenants) + '/' + platform::percentEncode(request.getPathParam("id")) + below;
    for (const TypedWorkerPtr& worker : reachable()) {
      const HttpResult result = call(net::joinUrl(worker->baseUrl(), path));
      if (succeeded(result)) return relayed(result, "");
    }
    return Response::error(404, "Tenant not found");
  }

  /// In id order; those that have been silent for a while, and may let one wait, come last.
  std::vector<TypedWorkerPtr> reachable() const {
    std::vector<TypedWorkerPtr> workers = data_workers.snapshot();
    std::erase_if(workers, [](const TypedWorkerPtr& worker) { return worker->baseUrl().empty(); });
    const platform::WallTime now = platform::wallNow();
    std::stable_partition(workers.begin(), workers.end(),
                          [&](const TypedWorkerPtr& worker) { return isTrusted(worker, now); });
    return workers;
  }

  /// Where a new tenant goes: a worker with storage before one without, then the one with the
  /// fewest tenants. Null when none has been heard of lately.
  TypedWorkerPtr emptiest() const {
    const platform::WallTime now = platform::wallNow();
    const auto rank = [](const TypedWorkerPtr& worker) {
      return std::pair(!worker->flag("storage_enabled"), worker->number("tenant_count"));
    };
    TypedWorkerPtr best;
    for (const TypedWorkerPtr& worker : reachable()) {
      if (isTrusted(worker, now) && (best == nullptr || rank(worker) < rank(best))) best = worker;
    }
    return best;
  }
};

}  // namespace

void addTenantRoutes(api::RouteBook& book, const worker::TypedWorkerRegistry& data_workers,
                     net::WorkerClient& client) {
  const TenantRoutes h{data_workers, client};
  book.get(kTenants, [h](auto&, auto&) { return h.list(); });
  book.post(kTenants, [h](auto&, auto& r) { return h.create(r); });
  book.get("/api/v1/tenants/:id", [h](auto&, auto& r) { return h.show(r); });
  book.put("/api/v1/tenants/:id", [h](auto&, auto& r) { return h.update(r); });
  book.del("/api/v1/tenants/:id", [h](auto&, auto& r) { return h.remove(r); });
  book.get("/api/v1/tenants/:id/usage", [h](auto&, auto& r) { return h.usage(r); });
}

}  // namespace tavrel::controller
