#include <nlohmann/json.hpp>
#include <utility>

#include "api/route_book.h"
#include "config/backend_profile_manager.h"
#include "config/local_backends.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/clock.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

json listed(const std::vector<config::BackendProfile>& profiles, bool include_secrets) {
  json array = json::array();
  for (const config::BackendProfile& one : profiles) array.push_back(one.toJson(include_secrets));
  return array;
}

struct BackendRoutes {
  config::BackendProfileManager& profiles;
  net::HttpClient& http;

  Response list() const { return counted("profiles", listed(profiles.getAllProfiles(), false)); }

  Response show(const Request& req) const {
    const std::string id = req.getPathParam("profile_id");
    const auto profile = profiles.getProfile(id);
    return profile ? Response::ok(profile->toJson(false)) : unknown(id);
  }

  Response create(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    config::BackendProfile profile;
    if (auto refusal = read(*req.json(), profile)) return *refusal;
    if (profile.id.empty()) profile.id = config::BackendProfileManager::generateProfileId();
    profile.created_at = profile.updated_at = platform::toUtcText(platform::wallNow());
    profiles.addProfile(profile);
    profiles.saveProfiles();
    return Response::created(profile.toJson(false));
  }

  /// The body is the whole new profile: what it lacks falls back to the defaults.
  Response update(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string id = req.getPathParam("profile_id");
    if (!profiles.getProfile(id)) return unknown(id);
    config::BackendProfile profile;
    if (auto refusal = read(*req.json(), profile)) return *refusal;
    profile.id = id;
    profile.updated_at = platform::toUtcText(platform::wallNow());
    const auto stored = profiles.updateProfile(std::move(profile));
    if (!stored) return unknown(id);
    profiles.saveProfiles();
    return Response::ok(stored->toJson(false));
  }

  Response remove(const Request& req) const {
    const std::string id = req.getPathParam("profile_id");
    if (!profiles.removeProfile(id)) return unknown(id);
    profiles.saveProfiles();
    return Response::ok({{"success", true}, {"deleted", id}});
  }

  Response assign(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    config::WorkerBackendAssignment assignment =
        config::WorkerBackendAssignment::fromJson(*req.json());
    if (assignment.worker_id.empty()) return Response::error(400, "worker_id is required");
    json reply = assignment.toJson();
    reply["success"] = true;
    profiles.assignProfilesToWorker(std::move(assignment));
    profiles.saveProfiles();
    return Response::ok(reply);
  }

  Response ofWorker(const Request& req) const {
    const bool secrets = req.getQuery("secrets", "false") == "true";
    if (secrets && req.getHeader("X-API-Key").empty()) {
      return Response::error(403, "API key required to retrieve secrets");
    }
    const std::string id = req.getPathParam("worker_id");
    const auto assignment = profiles.getWorkerAssignment(id);
    return Response::ok({{"worker_id", id},
                         {"profiles", listed(profiles.getProfilesForWorker(id), secrets)},
                         {"auto_detect_local", assignment && assignment->auto_detect_local}});
  }

  Response detect() const {
    return counted("backends", platform::jsonArray(config::detectLocalBackends(
                                   http, config::localBackendProbes())));
  }

 private:
  static Response unknown(const std::string& id) {
    return Response::error(404, "Profile not found: " + id);
  }

  static std::optional<Response> read(const json& body, config::BackendProfile& profile) {
    try {
      profile = config::BackendProfile::fromJson(body);
    } catch (const json::exception& error) {
      return Response::error(400, std::string("Invalid profile data: ") + error.what());
    }
    return std::nullopt;
  }
};

}  // namespace

void addBackendRoutes(api::RouteBook& book, config::BackendProfileManager& profiles,
                      net::HttpClient& http) {
  const BackendRoutes h{profiles, http};
  book.get("/api/v1/backends/profiles", [h](auto&, auto&) { return h.list(); });
  book.get("/api/v1/backends/profiles/:profile_id", [h](auto&, auto& req) { return h.show(req); });
  book.post("/api/v1/backends/profiles", [h](auto&, auto& req) { return h.create(req); });
  book.put("/api/v1/backends/profiles/:profile_id",
           [h](auto&, auto& req) { return h.update(req); });
  book.del("/api/v1/backends/profiles/:profile_id",
           [h](auto&, auto& req) { return h.remove(req); });
  book.post("/api/v1/backends/assign", [h](auto&, auto& req) { return h.assign(req); });
  book.get("/api/v1/backends/worker/:worker_id", [h](auto&, auto& req) { return h.ofWorker(req); });
  book.get("/api/v1/backends/detect", [h](auto&, auto&) { return h.detect(); });
  book.get("/api/v1/backends/types", [](auto&, auto&) {
    return Response::ok({{"types", config::backendTypeCatalogue()}});
  });
}

}  // namespace tavrel::controller
