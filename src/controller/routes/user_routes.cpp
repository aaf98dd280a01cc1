#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "api/auth_middleware.h"
#include "api/route_book.h"
#include "controller/routes/account_body.h"
#include "controller/routes/account_guards.h"
#include "controller/routes/families.h"
#include "controller/routes/key_prefix.h"
#include "controller/routes/route_input.h"
#include "identity/crypto.h"
#include "identity/new_organization.h"
#include "platform/json_fields.h"
#include "platform/text.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;
using identity::Organization;
using identity::User;
using nlohmann::json;
namespace crypto = identity::crypto;

/// Recorded with every decision on a registration, whoever made it.
constexpr const char* kApprover = "admin";

Response userNotFound() {
  return Response::error(404, "User not found");
}

void setPassword(User& user, const std::string& password) {
  user.salt = crypto::generateSalt();
  user.password_hash = crypto::hashPassword(password, user.salt);
}

/// What an administrator asks for when making an account.
struct NewAccount {
  std::string email;
  std::string password;
  std::string name;
  std::string role;
  std::string type;
  std::string org_id;
  std::string org_name;

  explicit NewAccount(const json& body)
      : email(textOr(body, "email")),
        password(textOr(body, "password")),
        name(textOr(body, "name")),
        role(textOr(body, "role", "viewer")),
        type(textOr(body, "registration_type", "user")),
        org_id(textOr(body, "org_id")),
        org_name(textOr(body, "org_name")) {
    if (role.empty()) role = "viewer";
    if (withOrganization()) role = "org_admin";
  }

  bool withOrganization() const { return type == "organization" || type == "user_organization"; }

  std::optional<Response> refusal() const {
    if (email.empty() || password.empty()) {
      return Response::error(400, "email and password are required");
    }
    if (isTooShort(password)) return passwordTooShort();
    if (type != "user" && !withOrganization()) {
      return Response::error(
          400, "registration_type must be 'user', 'organization', or 'user_organization'");
    }
    if (withOrganization() && org_name.empty()) {
      return Response::error(400, "org_name is required for organization registration");
    }
    if (platform::hasControls(email)) return invalidEmail();
    return std::nullopt;
  }

  User user() const {
    User made;
    made.id = crypto::generateUserId();
    made.email = email;
    setPassword(made, password);
    made.name = name;
    made.role = role;
    made.api_key = crypto::generateApiKey();
    made.created_at = crypto::nowISO8601();
    made.org_id = org_id;
    return made;
  }
};

struct UserRoutes {
  AccountAccess access;
  const api::AuthMiddleware& auth;

  identity::UserStore& store() const { return *access.store; }

  Response list(const Context& context, const Request& request) const {
    if (!access.isAdmin(context, request)) return adminRoleRequired();
    if (!access.full()) return listKeys();
    if (access.store == nullptr) return noUserStore();
    std::map<std::string, std::string> names;
    for (Organization& one : store().listOrganizations()) names[one.id] = std::move(one.name);
    json users = json::array();
    for (const User& user : store().listUsers()) {
      json object = user.toJson();
      const auto name = names.find(user.org_id);
      object["org_name"] = name == names.end() ? "" : name->second;
      users.push_back(std::move(object));
    }
    return counted("users", std::move(users));
  }

  Response create(const Context& context, const Request& request) const {
    if (auto refusal = refusedBody(request, {{"email", MemberType::kText},
                                             {"password", MemberType::kText},
                                             {"name", MemberType::kText},
                                             {"role", MemberType::kText},
                                             {"registration_type", MemberType::kText},
                                             {"org_id", MemberType::kText},
                                             {"org_name", MemberType::kText}})) {
      return *refusal;
    }
    const NewAccount wanted(*request.json());
    if (auto refusal = wanted.refusal()) return *refusal;
    if (identity::isClusterAdminRole(wanted.role) && !access.isClusterAdmin(context, request)) {
      return clusterAdminRoleRequired();
    }
    if (store().findByEmail(wanted.email)) return emailTaken();
    User user = wanted.user();
    if (wanted.withOrganization()) {
      const Organization own = identity::newOrganization(wanted.org_name, "", user.id);
      if (!store().createOrganization(own)) {
        return Response::error(500, "Failed to create organization");
      }
      user.org_id = own.id;
    } else if (!user.org_id.empty() && !canBeJoined(user.org_id)) {
      return Response::error(404, "Organization not found");
    }
    if (store().createUser(user)) return Response::created(user.toJson());
    // Nobody is to join an organization whose owner does not exist.
    if (wanted.withOrganization()) store().deleteOrganization(user.org_id);
    if (store().findByEmail(user.email)) return emailTaken();
    return Response::error(500, "Failed to create user");
  }

  Response update(const Context& context, const Request& request) const {
    const std::string id = request.getPathParam("id");
    if (!store().findById(id)) return userNotFound();
    if (auto refusal = refusedBody(request, {{"role", MemberType::kText},
                                             {"name", MemberType::kText},
                                             {"active", MemberType::kFlag},
                                             {"email_verified", MemberType::kFlag},
                                             {"password", MemberType::kText}})) {
      return *refusal;
    }
    const json& body = *request.json();
    const bool new_password = body.contains("password");
    const std::string password = textOr(body, "password");
    if (new_password && isTooShort(password)) return passwordTooShort();
    ChangedUser changed =
        changeUserFor(access, context, request, id, [&](User& user) -> std::optional<Response> {
          platform::readField(body, "role", user.role);
          platform::readField(body, "name", user.name);
          platform::readField(body, "active", user.active);
          platform::readField(body, "email_verified", user.email_verified);
          if (new_password) setPassword(user, password);
          return std::nullopt;
        });
    if (!changed.user) return changed.refusal;
    if (!store().deleteUserSessions(id)) return Response::error(500, "Failed to end sessions");
    return Response::ok(changed.user->toJson());
  }

  Response remove(const Request& request) const {
    const std::string id = request.getPathParam("id");
    if (!store().deleteUser(id)) return userNotFound();
    return decided("deleted", id);
  }

  Response pending() const {
    return counted("pending", platform::jsonArray(store().listPendingApprovals()));
  }

  Response approve(const Request& request) const {
    const std::string id = request.getPathParam("id");
    return store().approveUser(id, kApprover) ? decided("approved", id) : userNotFound();
  }

  Response reject(const Request& request) const {
    const std::string id = request.getPathParam("id");
    return store().rejectUser(id, kApprover) ? decided("rejected", id) : userNotFound();
  }

  Response dashboard() const {
    json users = platform::jsonArray(store().listUsers());
    json organizations = platform::jsonArray(store().listOrganizations());
    json waiting = platform::jsonArray(store().listPendingApprovals());
    json answer = {{"total_users", users.size()},
                   {"total_orgs", organizations.size()},
                   {"pending_approvals", waiting.size()}};
    answer["users"] = std::move(users);
    answer["organizations"] = std::move(organizations);
    answer["pending"] = std::move(waiting);
    return Response::ok(answer);
  }

  /// `handler` for administrators, where there are accounts that can be edited.
  api::Handler editing(api::Handler handler) const {
    return [full = access.full(), inner = guarded(access, Guard::kAdmin, std::move(handler))](
               Context& c, const Request& r) {
      return full ? inner(c, r) : Response::error(403, "User management requires --auth-mode full");
    };
  }

 private:
  Response listKeys() const {
    json keys = json::array();
    for (const api::ApiKeyEntry& key : auth.listApiKeys()) {
      keys.push_back({{"name", key.name},
                      {"type", key.type},
                      {"roles", key.roles},
                      {"key_prefix", keyPrefix(key.key)}});
    }
    return counted("users", std::move(keys));
  }

  bool canBeJoined(const std::string& org_id) const {
    const auto organization = store().getOrganization(org_id);
    return organization && organization->active;
  }

  static Response emailTaken() { return Response::error(409, "Email already registered"); }

  static Response decided(const char* status, const std::string& id) {
    return Response::ok({{"status", status}, {"user_id", id}});
  }
};

}  // namespace

void addUserRoutes(api::RouteBook& book, const AccountAccess& access,
                   const api::AuthMiddleware& auth) {
  const UserRoutes h{access, auth};
  const auto admins = [&](api::Handler handler) {
    return guarded(access, Guard::kAdmin, std::move(handler));
  };
  const auto cluster_admins = [&](api::Handler handler) {
    return guarded(access, Guard::kClusterAdmin, std::move(handler));
  };
  book.get("/api/v1/users", [h](auto& c, auto& r) { return h.list(c, r); });
  book.post("/api/v1/users", h.editing([h](auto& c, auto& r) { return h.create(c, r); }));
  book.put("/api/v1/users/:id", h.editing([h](auto& c, auto& r) { return h.update(c, r); }));
  book.del("/api/v1/users/:id", cluster_admins([h](auto&, auto& r) { return h.remove(r); }));
  book.get("/api/v1/auth/pending", cluster_admins([h](auto&, auto&) { return h.pending(); }));
  book.post("/api/v1/auth/approve/:id",
            cluster_admins([h](auto&, auto& r) { return h.approve(r); }));
  book.post("/api/v1/auth/reject/:id", cluster_admins([h](auto&, auto& r) { return h.reject(r); }));
  book.get("/api/v1/admin/dashboard", admins([h](auto&, auto&) { return h.dashboard(); }));
}

}  // namespace tavrel::controller
