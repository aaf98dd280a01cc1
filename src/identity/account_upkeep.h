#pragma once

#include <string>

#include "identity/user_store.h"
#include "platform/clock.h"

// What the store of accounts needs besides requests. No state; any thread.
namespace tavrel::identity {

struct Readiness {
  bool has_users = false;
  std::string new_cluster_domain;  ///< empty: it stays what it is
};

/// Makes a store that was just opened ready for people. With accounts: the cluster's domain, when
/// it has none, becomes that of the first administrator whose address has one, and an administrator
/// ends the first-time setup. Without accounts: whoever registers next is the first.
Readiness prepareAccounts(UserStore& store);

/// Forgets expired sessions and tokens, and starts the daily quotas anew in the first call of a day
/// (UTC), also when the last one was days and restarts ago.
void tidyAccounts(UserStore& store, platform::WallTime now);

}  // namespace tavrel::identity
