#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "config/node_config.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/clock.h"
#include "platform/console.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

struct ConfigRoutes {
  config::NodeConfigs& configs;

  Response set(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string node = req.json()->value("node_id", "");
    if (node.empty()) return Response::error(400, "Missing node_id");
    const std::string id = configs.set(node, *req.json(), platform::wallNow());
    platform::printLine("[Config] Updated config for node " + node + " to version " + id);
    return Response::ok({{"success", true}, {"node_id", node}, {"config_id", id}});
  }

  Response pull(const Request& req) const {
    const std::string node = req.getQuery("node_id");
    if (node.empty()) return Response::error(400, "Missing node_id parameter");
    const auto response = configs.pull(node);
    return response ? Response::ok(response->toJson()) : unknown(node);
  }

  Response list() const { return counted("configs", configs.list()); }

  Response remove(const Request& req) const {
    const std::string node = req.getPathParam("node_id");
    if (!configs.remove(node)) return unknown(node);
    platform::printLine("[Config] Deleted config for node " + node);
    return Response::ok({{"status", "deleted"}, {"node_id", node}});
  }

 private:
  static Response unknown(const std::string& node) {
    return Response::error(404, "No config found for node: " + node);
  }
};

}  // namespace

void addConfigRoutes(api::RouteBook& book, config::NodeConfigs& configs) {
  const ConfigRoutes h{configs};
  book.post("/api/v1/config/set", [h](auto&, auto& req) { return h.set(req); });
  book.get("/api/v1/config/pull", [h](auto&, auto& req) { return h.pull(req); });
  book.get("/api/v1/config/list", [h](auto&, auto&) { return h.list(); });
  book.del("/api/v1/config/:node_id", [h](auto&, auto& req) { return h.remove(req); });
}

}  // namespace tavrel::controller
