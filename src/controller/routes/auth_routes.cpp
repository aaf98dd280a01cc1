#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "api/auth_middleware.h"
#include "controller/routes/account_access.h"
#include "controller/routes/account_body.h"
#include "controller/routes/families.h"
#include "controller/routes/key_prefix.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;

bool isAdmin(const Context& context) {
  if (!context.identity) return false;
  const std::vector<std::string>& roles = context.identity->roles;
  return std::find(roles.begin(), roles.end(), "admin") != roles.end();
}

Response adminRequired() {
  return Response::error(403, "Admin access required");
}

/// The member when it is an array of strings, else `fallback`.
std::vector<std::string> stringsOr(const nlohmann::json& body, const char* name,
                                   std::vector<std::string> fallback) {
  const auto member = body.find(name);
  if (member == body.end() || !member->is_array()) return fallback;
  const bool strings = std::all_of(member->begin(), member->end(),
                                   [](const nlohmann::json& item) { return item.is_string(); });
  return strings ? member->get<std::vector<std::string>>() : fallback;
}

struct AuthRoutes {
  api::AuthMiddleware& auth;
  AccountAccess access;

  Response listKeys(const Context& context) const {
    if (!isAdmin(context)) return adminRequired();
    nlohmann::json keys = nlohmann::json::array();
    for (const api::ApiKeyEntry& key : auth.listApiKeys()) {
      keys.push_back({{"name", key.name},
                      {"type", key.type},
                      {"roles", key.roles},
                      {"permissions", key.permissions},
                      {"revoked", key.revoked},
                      {"request_count", key.request_count},
                      {"key_prefix", keyPrefix(key.key)}});
    }
    return Response::ok({{"keys", std::move(keys)}, {"stats", auth.getStats()}});
  }

  Response createKey(const Context& context, const Request& request) const {
    if (!isAdmin(context)) return adminRequired();
    if (auto refusal =
            refusedBody(request, {{"name", MemberType::kText}, {"type", MemberType::kText}})) {
      return *refusal;
    }
    const nlohmann::json& body = *request.json();
    const std::string name = textOr(body, "name");
    if (name.empty()) return Response::error(400, "'name' is required");
    const std::string type = textOr(body, "type", "client");
    const std::string key = auth.generateApiKey(name, type, stringsOr(body, "roles", {}),
                                                stringsOr(body, "permissions", {}));
    return Response::created(
        {{"key", key},
         {"name", name},
         {"type", type},
         {"message", "Store this key securely - it cannot be retrieved later"}});
  }

  Response revokeKey(const Context& context, const Request& request) const {
    if (!isAdmin(context)) return adminRequired();
    if (auto refusal = refusedBody(request, {{"key", MemberType::kText}})) return *refusal;
    const std::string key = textOr(*request.json(), "key");
    if (key.empty()) return Response::error(400, "'key' is required");
    if (!auth.revokeApiKey(key)) return Response::error(404, "API key not found");
    return Response::ok({{"status", "revoked"}});
  }

  Response issueWorkerToken(const Context& context, const Request& request) const {
    if (!context.identity) return Response::error(401, "Authentication required");
    if (auto refusal = refusedBody(request, {{"worker_id", MemberType::kText}})) return *refusal;
    const nlohmann::json& body = *request.json();
    const std::string worker_id = textOr(body, "worker_id");
    if (worker_id.empty()) return Response::error(400, "'worker_id' is required");
    const std::string token = auth.issueWorkerToken(
        worker_id, stringsOr(body, "permissions", {"inference", "heartbeat", "status"}));
    return Response::created({{"token", token},
                              {"worker_id", worker_id},
                              {"type", "worker"},
                              {"expires_in_seconds", auth.workerTokenTtlSeconds()}});
  }

  /// Without user accounts there is no first administrator to set up.
  Response setupStatus() const {
    const bool first =
        access.store != nullptr && access.store->getSetting("first_time_setup", "") == "true";
    return Response::ok({{"first_time_setup", first}});
  }

  Response info(const Context& context, const Request& request) const {
    nlohmann::json answer = {{"auth_mode", access.auth_mode}, {"authenticated", false}};
    if (const auto session = access.getSessionFromRequest(request)) {
      answer["authenticated"] = true;
      answer["user"] = {
          {"id", session->user_id}, {"email", session->email}, {"role", session->role}};
    } else if (context.identity) {
      const api::AuthIdentity& caller = *context.identity;
      answer["authenticated"] = true;
      answer["user"] = {{"id", caller.id},
                        {"type", caller.type},
                        {"roles", caller.roles},
                        {"permissions", caller.permissions}};
    }
    return Response::ok(answer);
  }
};

}  // namespace

void addAuthRoutes(api::RouteBook& book, api::AuthMiddleware& auth, const AccountAccess& access) {
  const AuthRoutes h{auth, access};
  book.get("/api/v1/auth/keys", [h](Context& c, const Request&) { return h.listKeys(c); });
  book.post("/api/v1/auth/keys", [h](Context& c, const Request& r) { return h.createKey(c, r); });
  book.post("/api/v1/auth/keys/revoke",
            [h](Context& c, const Request& r) { return h.revokeKey(c, r); });
  book.get("/api/v1/auth/stats",
           [h](Context&, const Request&) { return Response::ok(h.auth.getStats()); });
  book.post("/api/v1/auth/tokens/worker",
            [h](Context& c, const Request& r) { return h.issueWorkerToken(c, r); });
  book.get("/api/v1/auth/mode", [h](Context&, const Request&) {
    return Response::ok({{"auth_mode", h.access.auth_mode}});
  });
  book.get("/api/v1/auth/setup-status", [h](Context&, const Request&) { return h.setupStatus(); });
  book.get("/api/v1/auth/info", [h](Context& c, const Request& r) { return h.info(c, r); });
}

}  // namespace tavrel::controller
