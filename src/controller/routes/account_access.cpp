#include "controller/routes/account_access.h"

#include <algorithm>
#include <string_view>

namespace tavrel::controller {
namespace {

bool isAdminRole(const std::string& role) {
  return identity::isClusterAdminRole(role) || role == "org_admin";
}

bool hasRole(const AccountAccess& access, const api::Context& context, const api::Request& request,
             bool (*fits)(const std::string& role)) {
  if (access.auth_mode == "none") return true;
  if (context.identity) {
    const auto& own = context.identity->roles;
    if (std::any_of(own.begin(), own.end(), fits)) return true;
  }
  const auto session = access.getSessionFromRequest(request);
  return session && fits(session->role);
}

}  // namespace

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
  return hasRole(*this, context, request, isAdminRole);
}

bool AccountAccess::isClusterAdmin(const api::Context& context, const api::Request& request) const {
  return hasRole(*this, context, request, identity::isClusterAdminRole);
}

}  // namespace tavrel::controller
