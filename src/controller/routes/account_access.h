#pragma once

#include <optional>
#include <string>

#include "api/auth_middleware.h"
#include "api/context.h"
#include "api/request.h"
#include "api/response.h"
#include "identity/user_store.h"

// Who is signed in, and what that person may do: shared by the account route families.
namespace tavrel::controller {

/// What the account routes work on. `store` is null when the controller runs without user accounts;
/// it outlives the server.
struct AccountAccess {
  identity::UserStore* store = nullptr;
  std::string auth_mode;  ///< as it was asked for at start

  bool full() const { return auth_mode == "full"; }

  /// The session of the request's token: the header X-Session-Token, else a bearer token, else the
  /// session cookie.
  std::optional<identity::Session> getSessionFromRequest(const api::Request& request) const;

  /// The caller has one of the administrators' roles, by API identity or by session. Everybody has
  /// in mode "none".
  bool isAdmin(const api::Context& context, const api::Request& request) const;
  /// The same without the administrators of one organization.
  bool isClusterAdmin(const api::Context& context, const api::Request& request) const;
};

/// The token that the request carries for its session; empty when there is none.
std::string sessionTokenOf(const api::Request& request);

/// For AuthMiddleware::acceptSessions. The store of `access` must be there.
api::SessionLookup sessionLookup(const AccountAccess& access);

inline api::Response noUserStore() {
  return api::Response::error(503, "User store not initialized");
}
inline api::Response notSignedIn() {
  return api::Response::error(401, "Not authenticated");
}
inline api::Response adminRoleRequired() {
  return api::Response::error(403, "Admin role required");
}
inline api::Response clusterAdminRoleRequired() {
  return api::Response::error(403, "Cluster admin role required");
}

}  // namespace tavrel::controller
