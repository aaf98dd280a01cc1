#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "api/route_book.h"
#include "controller/routes/account_access.h"

// What stands before the handlers of the account routes.
namespace tavrel::controller {

enum class Guard : std::uint8_t { kNone, kAdmin, kClusterAdmin };

/// `handler` behind its guard: 503 without a user store, then 403 for a caller without the role.
api::Handler guarded(const AccountAccess& access, Guard guard, api::Handler handler);

using SignedInHandler =
    std::function<api::Response(const identity::Session&, api::Context&, const api::Request&)>;

/// `handler` for the caller's session: 503 without a user store, 401 without a session.
api::Handler signedIn(const AccountAccess& access, SignedInHandler handler);

/// Reads and changes a user; an answer says why the user stays as before. The store is locked:
/// it must not be called.
using UserChange = std::function<std::optional<api::Response>(identity::User&)>;

struct ChangedUser {
  std::optional<identity::User> user;  ///< as it is now; nothing when it was refused
  api::Response refusal;
};

/// Changes a user on behalf of the caller. Giving somebody a cluster administrator's role, and
/// changing somebody who has one, takes a cluster administrator: 403 for others. 500 when the store
/// fails.
ChangedUser changeUserFor(const AccountAccess& access, const api::Context& context,
                          const api::Request& request, const std::string& user_id,
                          const UserChange& change);

}  // namespace tavrel::controller
