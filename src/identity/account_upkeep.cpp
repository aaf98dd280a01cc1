#include "identity/account_upkeep.h"

#include "identity/account_service.h"

namespace tavrel::identity {
namespace {

constexpr const char* kQuotaDay = "daily_quotas_reset";

std::string domainOfFirstAdministrator(const std::vector<User>& users) {
  for (const User& user : users) {
    if (user.role != "cluster_admin" && user.role != "admin") continue;
    if (std::string domain = domainOf(user.email); !domain.empty()) return domain;
  }
  return "";
}

}  // namespace

Readiness prepareAccounts(UserStore& store) {
  Readiness found;
  const std::vector<User> users = store.listUsers();
  found.has_users = !users.empty();
  if (!found.has_users) {
    store.setSetting("first_time_setup", "true");
  } else if (store.getSetting("cluster_domain", "").empty()) {
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
