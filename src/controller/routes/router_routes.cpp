#include <nlohmann/json.hpp>
#include <utility>

#include "api/route_book.h"
#include "cluster/router_registry.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/console.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;
using platform::printLine;

struct RouterRoutes {
  cluster::RouterRegistry& routers;

  Response list() const { return counted("routers", platform::jsonArray(routers.all())); }

  Response add(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const json& body = *req.json();
    cluster::RouterInfo router;
    router.address = body.value("address", "");
    if (router.address.empty()) return Response::error(400, "address is required");
    const auto mode = cluster::aiControlModeFromString(body.value("ai_mode", "none"));
    if (!mode) {
      return Response::error(400, "Invalid mode. Use: none, advisory, or autonomous");
    }
    router.ai_control.mode = *mode;
    platform::readField(body, "llm_model", router.ai_control.model);
    platform::readField(body, "decision_timeout_ms", router.ai_control.decision_timeout_ms);
    platform::readField(body, "hostname", router.hostname);
    platform::readField(body, "port", router.port);
    const auto added = routers.add(std::move(router));
    if (!added) return refused();
    printLine("[Routers] Added router: " + added->address +
              " with AI mode: " + cluster::aiControlModeToString(*mode));
    return Response::ok({{"success", true}, {"id", added->id}, {"router", added->toJson()}});
  }

  Response remove(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string id = req.json()->value("id", "");
    if (id.empty()) return Response::error(400, "id is required");
    if (!routers.remove(id)) return notFound();
    printLine("[Routers] Removed router: " + id);
    return Response::ok({{"success", true}});
  }

  Response rules(const Request& req) const {
    const auto router = routers.find(req.getPathParam("id"));
    if (!router) return notFound();
    return Response::ok({{"router_id", router->id}, {"rules", platform::jsonArray(router->rules)}});
  }

  Response setRules(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string id = req.getPathParam("id");
    if (!routers.find(id)) return notFound();
    const json* sent = platform::jsonMember(*req.json(), "rules");
    if (sent == nullptr || !sent->is_array()) {
      return Response::error(400, "rules array is required");
    }
    auto rules = cluster::routerRulesFrom(*sent);
    const std::size_t count = rules.size();
    if (!routers.setRules(id, std::move(rules))) return notFound();
    printLine("[Routers] Updated " + std::to_string(count) + " rules for router: " + id);
    return Response::ok({{"success", true}, {"rules_count", count}});
  }

  Response heartbeat(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string id = req.getPathParam("id");
    if (!isStorableId(id)) return Response::error(400, "id is not valid UTF-8");
    const auto known = routers.heartbeat(id, *req.json(), platform::wallNow());
    if (known.refused) return refused();
    if (known.registered) {
      printLine("[Routers] Registered new router: " + id + " (" + known.router.hostname + ")");
    }
    return Response::ok({{"success", true}, {"router_id", id}});
  }

  static Response refused() {
    return Response::error(503, "Too many routers, or its description is too long");
  }
  static Response notFound() { return Response::error(404, "Router not found"); }
};

}  // namespace

void addRouterRoutes(api::RouteBook& book, cluster::RouterRegistry& routers) {
  const RouterRoutes h{routers};
  book.get("/api/v1/routers", [h](auto&, auto&) { return h.list(); });
  book.post("/api/v1/routers/add", [h](auto&, auto& req) { return h.add(req); });
  book.post("/api/v1/routers/remove", [h](auto&, auto& req) { return h.remove(req); });
  book.get("/api/v1/routers/:id/rules", [h](auto&, auto& req) { return h.rules(req); });
  book.post("/api/v1/routers/:id/rules", [h](auto&, auto& req) { return h.setRules(req); });
  book.post("/api/v1/routers/:id/heartbeat", [h](auto&, auto& req) { return h.heartbeat(req); });
}

}  // namespace tavrel::controller
