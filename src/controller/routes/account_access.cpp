#include "controller/routes/account_access.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

namespace tavrel::controller {
namespace {

using Roles = std::span<const std::string_view>;

constexpr std::array<std::string_view, 3> kAdminRoles = {"cluster_admin", "admin", "org_admin"};
constexpr std::array<std::string_view, 2> kClusterAdminRoles = {"cluster_admin", "admin"};

bool isOneOf(const std::string& role, Roles roles) {
  return std::find(roles.begin(), roles.end(), role) != roles.end();
}

bool hasRole(const AccountAccess& access, const api::Context& context, const api::Request& request,
             Roles roles) {
  if (access.auth_mode == "none") return true;
  if (context.identity) {
    const auto& own = context.identity->roles;
    if (std::any_of(own.begin(), own.end(),
                    [&](const std::string& role) { return isOneOf(role, roles); })) {
      return true;
    }
  }
  const auto session = access.getSessionFromRequest(request);
  return session && isOneOf(session->role, roles);
}

}  // namespace

bool isClusterAdminRole(const std::string& role) {
  return isOneOf(role, kClusterAdminRoles);
}

std::string sessionTokenOf(const api::Request& request) {
  std::string token = request.getHeader("X-Session-Token");
  if (!token.empty()) return token;
  constexpr std::string_view kBearer = "Bearer ";
  const std::string authorization = request.getHeader("Authorization");
  if (authorization.starts_with(kBearer)) return authorization.substr(kBearer.size());
  const std::string cookies = request.getHeader("Cookie");
  std::size_t begin = 0;
  while (begin < cookies.size()) {
    std::size_t end = cookies.find(';', begin);
    if (end == std::string::npos) end = cookies.size();
    std::string_view cookie = std::string_view(cookies).substr(begin, end - begin);
    while (cookie.starts_with(' ')) cookie.remove_prefix(1);
    constexpr std::string_view kName = "tavrel_session=";
    if (cookie.starts_with(kName)) return std::string(cookie.substr(kName.size()));
    begin = end + 1;
  }
  return "";
}

std::optional<identity::Session> AccountAccess::getSessionFromRequest(
    const api::Request& request) const {
  if (store == nullptr) return std::nullopt;
  const std::string token = sessionTokenOf(request);
  return token.empty() ? std::nullopt : store->validateSession(token);
}

api::SessionLookup sessionLookup(const AccountAccess& access) {
  return [access](const api::Request& request) -> std::optional<std::string> {
    if (!access.getSessionFromRequest(request)) return std::nullopt;
    return sessionTokenOf(request);
  };
}

bool AccountAccess::isAdmin(const api::Context& context, const api::Request& request) const {
  return hasRole(*this, context, request, kAdminRoles);
}

bool AccountAccess::isClusterAdmin(const api::Context& context, const api::Request& request) const {
  return hasRole(*this, context, request, kClusterAdminRoles);
}

}  // namespace tavrel::controller
