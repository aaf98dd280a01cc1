#include "controller/routes/account_guards.h"

#include <utility>

namespace tavrel::controller {

using api::Context;
using api::Request;
using api::Response;

api::Handler guarded(const AccountAccess& access, Guard guard, api::Handler handler) {
  return [access, guard, handler = std::move(handler)](Context& c, const Request& r) {
    if (access.store == nullptr) return noUserStore();
    if (guard == Guard::kAdmin && !access.isAdmin(c, r)) return adminRoleRequired();
    if (guard == Guard::kClusterAdmin && !access.isClusterAdmin(c, r)) {
      return clusterAdminRoleRequired();
    }
    return handler(c, r);
  };
}

api::Handler signedIn(const AccountAccess& access, SignedInHandler handler) {
  return [access, handler = std::move(handler)](Context& c, const Request& r) {
    if (access.store == nullptr) return noUserStore();
    const auto session = access.getSessionFromRequest(r);
    return session ? handler(*session, c, r) : notSignedIn();
  };
}

ChangedUser changeUserFor(const AccountAccess& access, const Context& context,
                          const Request& request, const std::string& user_id,
                          const UserChange& change) {
  // Asked before: the store cannot be while it is locked.
  const bool may_hand_out_power = access.isClusterAdmin(context, request);
  std::optional<Response> refusal;
  auto user = access.store->changeUser(user_id, [&](identity::User& changed) {
    const identity::User before = changed;
    refusal = change(changed);
    const bool power =
        identity::isClusterAdminRole(before.role) || identity::isClusterAdminRole(changed.role);
    if (!refusal && power && !may_hand_out_power) refusal = clusterAdminRoleRequired();
    if (refusal) changed = before;
  });
  if (refusal) return {std::nullopt, std::move(*refusal)};
  if (!user) return {std::nullopt, Response::error(500, "Failed to update user")};
  return {std::move(user), {}};
}

}  // namespace tavrel::controller
