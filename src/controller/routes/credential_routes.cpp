#include <nlohmann/json.hpp>
#include <utility>

#include "api/route_book.h"
#include "controller/routes/account_body.h"
#include "controller/routes/account_guards.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "identity/crypto.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;
using identity::Credential;
using identity::ResourceQuota;
using identity::Session;
using nlohmann::json;
namespace crypto = identity::crypto;

Response accessDenied() {
  return Response::error(403, "Access denied");
}

struct CredentialRoutes {
  AccountAccess access;

  identity::UserStore& store() const { return *access.store; }

  Response list(const Session& session) const {
    json credentials = platform::jsonArray(store().listCredentials("user", session.user_id));
    for (const Credential& shared : store().listSharedCredentials(session.org_id)) {
      credentials.push_back(shared.toJson());
    }
    return counted("credentials", std::move(credentials));
  }

  Response create(const Session& session, const Request& request) const {
    if (auto refusal = refusedBody(request, {{"name", MemberType::kText},
                                             {"service", MemberType::kText},
                                             {"owner_type", MemberType::kText},
                                             {"credential_data", MemberType::kObjectOrText},
                                             {"shared", MemberType::kFlag}})) {
      return *refusal;
    }
    const json& body = *request.json();
    Credential made;
    made.name = textOr(body, "name");
    made.service = textOr(body, "service");
    if (made.name.empty() || made.service.empty()) {
      return Response::error(400, "name and service are required");
    }
    made.owner_type = textOr(body, "owner_type", "user");
    if (made.owner_type != "user" && made.owner_type != "org") {
      return Response::error(400, "owner_type must be 'user' or 'org'");
    }
    made.owner_id = made.owner_type == "org" ? session.org_id : session.user_id;
    if (made.owner_id.empty()) return Response::error(400, "No organization");
    made.id = crypto::generateCredentialId();
    made.credential_data = jsonTextOr(body, "credential_data", "{}");
    platform::readField(body, "shared", made.shared);
    made.created_at = crypto::nowISO8601();
    made.updated_at = made.created_at;
    made.created_by = session.user_id;
    if (!store().createCredential(made)) {
      return Response::error(500, "Failed to create credential");
    }
    return Response::created(made.toJson());
  }

  Response remove(const Session& session, const Request& request) const {
    const std::string id = request.getPathParam("id");
    const auto found = store().getCredential(id);
    if (!found) return credentialNotFound();
    if (found->created_by != session.user_id && session.role != "admin") return accessDenied();
    if (!store().deleteCredential(id)) return credentialNotFound();
    return Response::ok({{"status", "deleted"}, {"credential_id", id}});
  }

  Response quotas(const Session& session, const Context& context, const Request& request) const {
    const std::string user_id = request.getPathParam("uid");
    if (user_id != session.user_id && !access.isAdmin(context, request)) return accessDenied();
    return Response::ok({{"quotas", platform::jsonArray(store().getQuotas("user", user_id))}});
  }

  Response setQuota(const Request& request) const {
    const std::string user_id = request.getPathParam("uid");
    if (!isStorableId(user_id)) return Response::error(400, "uid is not valid UTF-8");
    if (auto refusal = refusedBody(request, {{"metric", MemberType::kText},
                                             {"limit_value", MemberType::kNumber},
                                             {"reset_interval", MemberType::kText}})) {
      return *refusal;
    }
    ResourceQuota quota;
    quota.target_type = "user";
    quota.target_id = user_id;
    platform::readField(*request.json(), "metric", quota.metric);
    if (quota.metric.empty()) return Response::error(400, "metric is required");
    platform::readField(*request.json(), "limit_value", quota.limit_value);
    platform::readField(*request.json(), "reset_interval", quota.reset_interval);
    quota.last_reset = crypto::nowISO8601();
    if (!store().setQuota(quota)) return Response::error(500, "Failed to set quota");
    return Response::ok({{"status", "quota_set"}, {"user_id", user_id}, {"metric", quota.metric}});
  }

 private:
  static Response credentialNotFound() { return Response::error(404, "Credential not found"); }
};

}  // namespace

void addCredentialRoutes(api::RouteBook& book, const AccountAccess& access) {
  const CredentialRoutes h{access};
  const auto user = [&](SignedInHandler handler) { return signedIn(access, std::move(handler)); };
  book.get("/api/v1/credentials", user([h](auto& s, auto&, auto&) { return h.list(s); }));
  book.post("/api/v1/credentials", user([h](auto& s, auto&, auto& r) { return h.create(s, r); }));
  book.del("/api/v1/credentials/:id",
           user([h](auto& s, auto&, auto& r) { return h.remove(s, r); }));
  book.get("/api/v1/quotas/:uid",
           user([h](auto& s, auto& c, auto& r) { return h.quotas(s, c, r); }));
  book.put("/api/v1/quotas/:uid",
           guarded(access, Guard::kAdmin, [h](auto&, auto& r) { return h.setQuota(r); }));
}

}  // namespace tavrel::controller
