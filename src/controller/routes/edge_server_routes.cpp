#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "api/route_book.h"
#include "controller/hierarchy/edge_servers.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/console.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

struct EdgeServerRoutes {
  EdgeServers& edges;

  Response announce(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const auto edge = edges.registerEdge(*req.json(), platform::wallNow());
    if (!edge) return tooLarge();
    platform::printLine("[Controller] Edge server registered: " + edge->edge_id + " (" +
                        edge->hostname + ")");
    return Response::ok({{"success", true}, {"edge_id", edge->edge_id}, {"status", "registered"}});
  }

  Response heartbeat(const Request& req) const {
    const std::string id = req.getPathParam("id");
    if (!isStorableId(id)) return Response::error(400, "Edge ID required");
    const json body = req.json() ? *req.json() : json::object();
    json reply{{"status", "ok"}, {"edge_id", id}};
    const auto heard = edges.heartbeat(id, body, platform::wallNow());
    if (heard == EdgeServers::Heartbeat::kTooLarge) return tooLarge();
    if (heard == EdgeServers::Heartbeat::kRegistered) {
      platform::printLine("[Controller] Edge server auto-registered via heartbeat: " + id);
      reply["auto_registered"] = true;
    }
    return Response::ok(reply);
  }

  Response list() const { return counted("edges", platform::jsonArray(edges.all())); }

  static Response tooLarge() { return Response::error(413, "Edge description is too large"); }

  Response get(const Request& req) const {
    const auto edge = edges.find(req.getPathParam("id"));
    return edge ? Response::ok(edge->toJson()) : Response::error(404, "Edge not found");
  }
};

}  // namespace

void addEdgeServerRoutes(api::RouteBook& book, EdgeServers& edges) {
  const EdgeServerRoutes h{edges};
  book.post("/api/v1/edges/register", [h](auto&, auto& req) { return h.announce(req); });
  book.post("/api/v1/edges/:id/heartbeat", [h](auto&, auto& req) { return h.heartbeat(req); });
  book.get("/api/v1/edges", [h](auto&, auto&) { return h.list(); });
  book.get("/api/v1/edges/:id", [h](auto&, auto& req) { return h.get(req); });
}

}  // namespace tavrel::controller
