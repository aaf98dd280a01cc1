#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "api/route_book.h"
#include "controller/routes/account_body.h"
#include "controller/routes/account_guards.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "identity/crypto.h"
#include "identity/new_organization.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/text.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;
using identity::Organization;
using identity::User;
using nlohmann::json;

constexpr const char* kBodyRequired = "JSON body required";

Response organizationNotFound() {
  return Response::error(404, "Organization not found");
}

Response notAMember() {
  return Response::error(404, "User not in this organization");
}

/// Whether settings that are sent as text, as the answers show them, are a JSON object.
bool hasSettingsObject(const json& body) {
  const json* settings = platform::jsonMember(body, "settings");
  if (settings == nullptr || !settings->is_string()) return true;
  const auto& text = settings->get_ref<const std::string&>();
  return platform::jsonWithinLimits(text, platform::kMaxForeignJsonDepth) &&
         json::parse(text, nullptr, /*allow_exceptions=*/false).is_object();
}

/// Takes over what the body has. Settings are an object, or its text as the answers show it.
void readOrganization(const json& body, Organization& organization) {
  platform::readField(body, "name", organization.name);
  platform::readField(body, "description", organization.description);
  platform::readField(body, "max_users", organization.max_users);
  platform::readField(body, "plan", organization.plan);
  organization.settings = jsonTextOr(body, "settings", organization.settings);
}

struct OrganizationRoutes {
  AccountAccess access;

  identity::UserStore& store() const { return *access.store; }

  Response list() const {
    return counted("organizations", platform::jsonArray(store().listOrganizations()));
  }

  Response create(const Request& request) const {
    if (auto refusal = refusedBody(request, {{"name", MemberType::kText},
                                             {"slug", MemberType::kText},
                                             {"description", MemberType::kText},
                                             {"max_users", MemberType::kNumber},
                                             {"plan", MemberType::kText},
                                             {"settings", MemberType::kObject}})) {
      return *refusal;
    }
    const json& body = *request.json();
    Organization made = identity::newOrganization("", "");
    readOrganization(body, made);
    platform::readField(body, "slug", made.slug);
    if (made.name.empty()) return Response::error(400, "name is required");
    const auto stored =
        store().createOrganization(made) ? store().getOrganization(made.id) : std::nullopt;
    if (!stored) return Response::error(500, "Failed to create organization");
    if (const auto session = access.getSessionFromRequest(request)) {
      store().changeUser(session->user_id, [&](User& user) { user.org_id = made.id; });
    }
    return Response::created(stored->toJson());
  }

  Response show(const Request& request) const {
    const auto found = store().getOrganization(request.getPathParam("id"));
    return found ? Response::ok(found->toJson()) : organizationNotFound();
  }

  Response update(const Context& context, const Request& request) const {
    const std::string id = request.getPathParam("id");
    if (!store().getOrganization(id)) return organizationNotFound();
    if (auto refusal = refusedBody(request, {{"name", MemberType::kText},
                                             {"description", MemberType::kText},
                                             {"max_users", MemberType::kNumber},
                                             {"plan", MemberType::kText},
                                             {"settings", MemberType::kObjectOrText},
                                             {"email_domain", MemberType::kText}})) {
      return *refusal;
    }
    const json& body = *request.json();
    if (!hasSettingsObject(body)) return invalidJsonBody();
    // Whoever has an address of the domain is admitted without being asked.
    if (body.contains("email_domain") && !access.isAdmin(context, request)) {
      return adminRoleRequired();
    }
    const auto changed = store().changeOrganization(id, [&](Organization& organization) {
      readOrganization(body, organization);
      organization.email_domain =
          platform::toLower(textOr(body, "email_domain", organization.email_domain));
      organization.updated_at = identity::crypto::nowISO8601();
    });
    return changed ? Response::ok(changed->toJson())
                   : Response::error(500, "Failed to update organization");
  }

  Response remove(const Request& request) const {
    const std::string id = request.getPathParam("id");
    if (!store().deleteOrganization(id)) return organizationNotFound();
    return Response::ok({{"status", "deleted"}, {"org_id", id}});
  }

  Response invite(const Context& context, const Request& request) const {
    if (auto refusal = refusedBody(
            request, {{"email", MemberType::kText}, {"role", MemberType::kText}}, kBodyRequired)) {
      return *refusal;
    }
    const std::string org_id = request.getPathParam("id");
    const auto organization = store().getOrganization(org_id);
    if (!organization || !organization->active) return organizationNotFound();
    const std::string email = textOr(*request.json(), "email");
    if (email.empty()) return Response::error(400, "Email required");
    const auto invited = store().findByEmail(email);
    if (!invited) return Response::error(404, "User not found with that email");
    std::string role = textOr(*request.json(), "role");
    if (role.empty()) role = "viewer";
    const ChangedUser changed = changeUserFor(access, context, request, invited->id,
                                              [&](User& user) -> std::optional<Response> {
                                                user.org_id = org_id;
                                                user.role = role;
                                                return std::nullopt;
                                              });
    if (!changed.user) return changed.refusal;
    return Response::ok(
        {{"status", "invited"}, {"user_id", invited->id}, {"org_id", org_id}, {"role", role}});
  }

  Response removeMember(const Context& context, const Request& request) const {
    const std::string org_id = request.getPathParam("id");
    auto refusal = changeMember(context, request, [](User& user) { user.org_id.clear(); });
    if (refusal) return *refusal;
    return Response::ok(
        {{"status", "removed"}, {"user_id", request.getPathParam("uid")}, {"org_id", org_id}});
  }

  Response changeRole(const Context& context, const Request& request) const {
    if (auto refusal = refusedBody(request, {{"role", MemberType::kText}}, kBodyRequired)) {
      return *refusal;
    }
    const std::string role = textOr(*request.json(), "role");
    if (role.empty()) return Response::error(400, "Role required");
    auto refusal = changeMember(context, request, [&](User& user) { user.role = role; });
    if (refusal) return *refusal;
    return Response::ok(
        {{"status", "updated"}, {"user_id", request.getPathParam("uid")}, {"role", role}});
  }

  Response members(const Request& request) const {
    const std::string org_id = request.getPathParam("id");
    json users = platform::jsonArray(membersOf(org_id));
    const std::size_t count = users.size();
    return Response::ok({{"users", std::move(users)},
                         {"count", count},
                         {"org_id", platform::replaceInvalidUtf8(org_id)}});
  }

  Response usage(const Request& request) const {
    const auto organization = store().getOrganization(request.getPathParam("id"));
    if (!organization) return organizationNotFound();
    json users = json::array();
    json user_quotas = json::object();
    for (const User& user : membersOf(organization->id)) {
      users.push_back(
          {{"user_id", user.id}, {"email", user.email}, {"name", user.name}, {"role", user.role}});
      user_quotas[user.id] = quotas("user", user.id);
    }
    const std::size_t count = users.size();
    return Response::ok({{"org",
                          {{"id", organization->id},
                           {"name", organization->name},
                           {"slug", organization->slug},
                           {"plan", organization->plan},
                           {"max_users", organization->max_users},
                           {"max_storage_bytes", organization->max_storage_bytes},
                           {"active", organization->active}}},
                         {"user_count", count},
                         {"users", std::move(users)},
                         {"quotas", {{"user", std::move(user_quotas)}}},
                         {"org_quotas", quotas("org", organization->id)}});
  }

 private:
  /// Changes a user who belongs to the organization of the request.
  std::optional<Response> changeMember(const Context& context, const Request& request,
                                       const std::function<void(User&)>& change) const {
    const std::string org_id = request.getPathParam("id");
    const std::string user_id = request.getPathParam("uid");
    if (!store().findById(user_id)) return notAMember();
    ChangedUser changed = changeUserFor(access, context, request, user_id,
                                        [&](User& user) -> std::optional<Response> {
                                          if (user.org_id != org_id) return notAMember();
                                          change(user);
                                          return std::nullopt;
                                        });
    if (changed.user) return std::nullopt;
    return std::move(changed.refusal);
  }

  std::vector<User> membersOf(const std::string& org_id) const {
    std::vector<User> users = store().listUsers();
    std::erase_if(users, [&](const User& user) { return user.org_id != org_id; });
    return users;
  }

  json quotas(const char* target_type, const std::string& target_id) const {
    return platform::jsonArray(store().getQuotas(target_type, target_id));
  }
};

}  // namespace

void addOrganizationRoutes(api::RouteBook& book, const AccountAccess& access) {
  const OrganizationRoutes h{access};
  const auto anybody = [&](api::Handler handler) {
    return guarded(access, Guard::kNone, std::move(handler));
  };
  const auto admins = [&](api::Handler handler) {
    return guarded(access, Guard::kAdmin, std::move(handler));
  };
  book.get("/api/v1/orgs", anybody([h](auto&, auto&) { return h.list(); }));
  book.post("/api/v1/orgs", anybody([h](auto&, auto& r) { return h.create(r); }));
  book.get("/api/v1/orgs/:id", anybody([h](auto&, auto& r) { return h.show(r); }));
  book.put("/api/v1/orgs/:id", anybody([h](auto& c, auto& r) { return h.update(c, r); }));
  book.del("/api/v1/orgs/:id",
           guarded(access, Guard::kClusterAdmin, [h](auto&, auto& r) { return h.remove(r); }));
  book.post("/api/v1/orgs/:id/invite", admins([h](auto& c, auto& r) { return h.invite(c, r); }));
  book.post("/api/v1/orgs/:id/remove/:uid",
            admins([h](auto& c, auto& r) { return h.removeMember(c, r); }));
  book.put("/api/v1/orgs/:id/users/:uid/role",
           admins([h](auto& c, auto& r) { return h.changeRole(c, r); }));
  book.get("/api/v1/orgs/:id/users", anybody([h](auto&, auto& r) { return h.members(r); }));
  book.get("/api/v1/orgs/:id/usage", anybody([h](auto&, auto& r) { return h.usage(r); }));
}

}  // namespace tavrel::controller
