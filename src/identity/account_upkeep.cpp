#include "identity/account_upkeep.h"

#include <algorithm>

#include "identity/account_service.h"

namespace tavrel::identity {
namespace {

constexpr const char* kQuotaDay = "daily_quotas_reset";
constexpr const char* kSetup = "first_time_setup";

std::string domainOfFirstAdministrator(const std::vector<User>& users) {
  for (const User& user : users) {
    if (!isClusterAdminRole(user.role)) continue;
    if (std::string domain = domainOf(user.email); !domain.empty()) return domain;
  }
  return "";
}

}  // namespace

Readiness prepareAccounts(UserStore& store) {
  const std::vector<User> users = store.listUsers();
  if (users.empty()) {
    store.setSetting(kSetup, "true");
    return {};
  }
  const bool governed = std::any_of(users.begin(), users.end(),
                                    [](const User& user) { return isClusterAdminRole(user.role); });
  // Earlier versions left it open when an operator made the first administrator.
  if (governed && store.getSetting(kSetup, "") == "true") store.setSetting(kSetup, "false");

  Readiness found{.has_users = true, .new_cluster_domain = ""};
  if (store.getSetting("cluster_domain", "").empty()) {
    found.new_cluster_domain = domainOfFirstAdministrator(users);
    if (!found.new_cluster_domain.empty()) {
      store.setSetting("cluster_domain", found.new_cluster_domain);
    }
  }
  return found;
}

void tidyAccounts(UserStore& store, platform::WallTime now) {
  store.cleanExpiredSessions();
  const std::string today = platform::toUtcText(now).substr(0, 10);
  if (store.getSetting(kQuotaDay, "") == today) return;
  store.resetDailyQuotas();
  store.setSetting(kQuotaDay, today);
}

}  // namespace tavrel::identity
