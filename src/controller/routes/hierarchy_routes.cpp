#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "api/route_book.h"
#include "controller/hierarchy/controller_hierarchy.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/console.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;
using platform::readField;

Response denied(ControllerOperation operation, ControllerRole role) {
  const std::string current = controllerRoleToString(role);
  return Response::json({{"success", false},
                         {"error", "permission_denied"},
                         {"message", "Operation '" + controllerOperationToString(operation) +
                                         "' is not allowed for " + current + " controller"},
                         {"required_role", controllerRoleToString(ControllerRole::kMaster)},
                         {"current_role", current}},
                        403);
}

/// The orders of an operator.
struct OperatorRoutes {
  ControllerHierarchy& hierarchy;
  EdgeInstaller install_edge;

  Response status() const {
    json status = hierarchy.getStatus();
    status["success"] = true;
    return Response::ok(status);
  }

  Response subControllers() const {
    json subs = platform::jsonArray(hierarchy.getSubControllers());
    const std::size_t count = subs.size();
    return Response::ok(
        {{"success", true}, {"sub_controllers", std::move(subs)}, {"count", count}});
  }

  Response addSubController(const Request& req) const {
    hierarchy.requireOperation(ControllerOperation::kAddSubController);
    if (!req.json()) return invalidJsonBody();
    SubControllerInfo sub;
    readSubController(*req.json(), sub);
    sub.status = SubControllerStatus::kUnknown;
    if (sub.address.empty()) return Response::error(400, "address is required");
    if (sub.id.empty()) sub.id = hierarchy.newId("sub-");
    if (!hierarchy.registerSubController(sub)) {
      return Response::error(500, "Failed to register sub-controller");
    }
    return Response::ok({{"success", true}, {"id", sub.id}, {"sub_controller", sub.toJson()}});
  }

  Response removeSubController(const Request& req) const {
    hierarchy.requireOperation(ControllerOperation::kRemoveSubController);
    const std::string id = req.getPathParam("id");
    if (id.empty()) return Response::error(400, "id parameter required");
    if (!hierarchy.removeSubController(id)) {
      return Response::error(404, "Sub-controller not found");
    }
    return Response::ok({{"success", true}});
  }

  Response sendCommand(const Request& req) const {
    hierarchy.requireOperation(ControllerOperation::kModifyTopology);
    if (!req.json()) return invalidJsonBody();
    MasterCommand command;
    readField(*req.json(), "type", command.type);
    readField(*req.json(), "payload", command.payload);
    if (command.type.empty()) return Response::error(400, "command type is required");
    command.id = hierarchy.newId("cmd-");
    const auto sent = hierarchy.sendCommand(req.getPathParam("id"), command);
    if (sent == ControllerHierarchy::SendResult::kUnknownSub ||
        sent == ControllerHierarchy::SendResult::kRefused) {
      return Response::error(500, "Failed to send command");
    }
    return Response::ok({{"success", true},
                         {"command_id", command.id},
                         {"sub_controller_id", req.getPathParam("id")},
                         {"delivered", sent == ControllerHierarchy::SendResult::kDelivered}});
  }

  Response commandResult(const Request& req) const {
    const std::string id = req.getPathParam("id");
    auto reply = hierarchy.commandResult(id);
    if (!reply) {
      return Response::json(
          {{"error", "not_found"},
           {"message", "No result found for command " + platform::replaceInvalidUtf8(id)}},
          404);
    }
    json& success = (*reply)["success"];
    (*reply)["command_success"] = success;
    success = true;
    return Response::ok(*reply);
  }

  Response addEdge(const Request& req) const {
    hierarchy.requireOperation(ControllerOperation::kDeployEdge);
    if (!req.json()) return invalidJsonBody();
    EdgeNodeInfo edge;
    readEdgeNode(*req.json(), edge);
    if (edge.address.empty()) return Response::error(400, "address is required");
    if (edge.id.empty()) edge.id = hierarchy.newId("edge-");
    if (!hierarchy.deployEdge(edge)) return Response::error(500, "Failed to add edge");
    return Response::ok({{"success", true}, {"edge", edge.toJson()}});
  }

  Response removeEdge(const Request& req) const {
    hierarchy.requireOperation(ControllerOperation::kDeployEdge);
    const std::string id = req.getPathParam("id");
    if (id.empty()) return Response::error(400, "id parameter required");
    if (!hierarchy.removeEdge(id)) return Response::error(404, "Edge not found");
    return Response::ok({{"success", true}});
  }

  Response installEdge(const Request& req) const {
    hierarchy.requireOperation(ControllerOperation::kDeployEdge);
    const std::string id = req.getPathParam("id");
    const json body = req.json() ? *req.json() : json();
    EdgeNodeInfo edge = hierarchy.edgeNode(id).value_or(EdgeNodeInfo{});
    if (body.is_object()) readEdgeNode(body, edge);
    edge.id = id;
    if (edge.address.empty()) {
      return Response::error(400, "address is required for edge deployment");
    }
    if (!install_edge || !install_edge(edge, body)) {
      return Response::error(500, "Failed to deploy edge node");
    }
    return Response::ok(
        {{"success", true}, {"message", "Edge deployment initiated"}, {"edge_id", id}});
  }
};

/// What sub-controllers tell their master, and the one thing a master tells a sub.
struct HierarchyCalls {
  ControllerHierarchy& hierarchy;

  Response registerSub(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    SubControllerInfo sub;
    readSubController(*req.json(), sub);
    if (sub.address.empty()) sub.address = req.remote_address;
    if (sub.id.empty()) sub.id = hierarchy.newId("sub-");
    const std::string id = sub.id;
    if (!hierarchy.registerSubController(std::move(sub))) {
      return Response::error(500, "Registration failed");
    }
    return Response::ok(
        {{"success", true}, {"master_id", hierarchy.id()}, {"sub_controller_id", id}});
  }

  /// Heartbeats and status reports.
  Response signOfLife(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    std::string id = callerOf(req);
    if (id.empty()) readField(*req.json(), "id", id);
    if (!isStorableId(id)) return Response::error(400, "id is required");
    return Response::ok(
        {{"success", true}, {"known", hierarchy.subControllerHeartbeat(id, *req.json())}});
  }

  Response commands(const Request& req) const {
    const std::string id = callerOf(req);
    if (id.empty()) return Response::error(400, "X-Sub-Controller-Id header is required");
    json commands = json::array();
    for (MasterCommand& command : hierarchy.takeCommandsFor(id)) {
      commands.push_back({{"id", command.id},
                          {"type", command.type},
                          {"payload", std::move(command.payload)},
                          {"issued_at_ms", platform::toEpochMilliseconds(command.issued_at)}});
    }
    const std::size_t count = commands.size();
    return Response::ok(
        {{"success", true}, {"commands", std::move(commands)}, {"pending_count", count}});
  }

  Response result(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    CommandResult result;
    readField(*req.json(), "command_id", result.command_id);
    if (result.command_id.empty()) return Response::error(400, "command_id is required");
    readField(*req.json(), "sub_id", result.sub_id);
    readField(*req.json(), "success", result.success);
    readField(*req.json(), "result", result.result);
    const json* error = platform::jsonMember(*req.json(), "error");
    if (error != nullptr && !error->is_null()) result.error = error->get<std::string>();
    if (isStorableId(callerOf(req))) result.sub_id = callerOf(req);
    result.time = platform::wallNow();
    hierarchy.storeCommandResult(result);
    platform::printLine("[OrchestratorAPI] Command " + result.command_id + " from sub " +
                        result.sub_id + " result: " + (result.success ? "success" : "failed") +
                        (result.error.empty() ? "" : " - " + result.error));
    return Response::ok(
        {{"success", true}, {"acknowledged", true}, {"command_id", result.command_id}});
  }

  Response command(const Request& req) const {
    if (hierarchy.role() != ControllerRole::kSub) {
      return Response::error(400, "This endpoint is for sub-controller only");
    }
    if (!req.json()) return invalidJsonBody();
    MasterCommand command;
    readField(*req.json(), "id", command.id);
    readField(*req.json(), "type", command.type);
    readField(*req.json(), "payload", command.payload);
    if (command.id.empty()) return Response::error(400, "id is required");
    if (command.type.empty()) return Response::error(400, "command type is required");
    if (!hierarchy.receiveCommand(command)) {
      return Response::error(503, "Too many commands wait, or too large");
    }
    return Response::ok({{"success", true}, {"command_id", command.id}});
  }

 private:
  static std::string callerOf(const Request& req) { return req.getHeader("X-Sub-Controller-Id"); }
};

/// Words the refusal of what the role does not allow.
template <class Routes>
api::Handler permitted(const Routes& routes, Response (Routes::*handler)(const Request&) const) {
  return [routes, handler](auto&, const Request& req) {
    try {
      return (routes.*handler)(req);
    } catch (const PermissionDeniedException& refused) {
      return denied(refused.operation, refused.role);
    }
  };
}

/// For what only a master is asked.
api::Handler masterOnly(const HierarchyCalls& calls,
                        Response (HierarchyCalls::*handler)(const Request&) const) {
  return [calls, handler](auto&, const Request& req) {
    if (calls.hierarchy.role() != ControllerRole::kMaster) {
      return Response::error(400, "This endpoint is for master controller only");
    }
    return (calls.*handler)(req);
  };
}

}  // namespace

void addHierarchyRoutes(api::RouteBook& book, ControllerHierarchy& hierarchy,
                        EdgeInstaller install_edge) {
  using O = OperatorRoutes;
  const OperatorRoutes h{hierarchy, std::move(install_edge)};
  book.get("/api/v1/hierarchy/status", [h](auto&, auto&) { return h.status(); });
  book.get("/api/v1/hierarchy/sub-controllers", [h](auto&, auto&) { return h.subControllers(); });
  book.post("/api/v1/hierarchy/sub-controllers", permitted(h, &O::addSubController));
  book.del("/api/v1/hierarchy/sub-controllers/:id", permitted(h, &O::removeSubController));
  book.post("/api/v1/hierarchy/sub-controllers/:id/command", permitted(h, &O::sendCommand));
  book.get("/api/v1/commands/:id/result", [h](auto&, auto& req) { return h.commandResult(req); });
  book.post("/api/v1/edges", permitted(h, &O::addEdge));
  book.del("/api/v1/edges/:id", permitted(h, &O::removeEdge));
  book.post("/api/v1/edges/:id/deploy", permitted(h, &O::installEdge));

  using C = HierarchyCalls;
  const HierarchyCalls c{hierarchy};
  book.post("/api/v1/hierarchy/register", masterOnly(c, &C::registerSub));
  book.post("/api/v1/hierarchy/heartbeat", masterOnly(c, &C::signOfLife));
  book.post("/api/v1/hierarchy/status", masterOnly(c, &C::signOfLife));
  book.get("/api/v1/hierarchy/commands", masterOnly(c, &C::commands));
  book.post("/api/v1/hierarchy/command/result", masterOnly(c, &C::result));
  book.post("/api/v1/hierarchy/command", [c](auto&, auto& req) { return c.command(req); });
  platform::printLine("[OrchestratorAPI] Routes registered for " +
                      controllerRoleToString(hierarchy.role()) + " controller");
}

}  // namespace tavrel::controller
