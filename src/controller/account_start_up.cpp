#include "controller/account_start_up.h"

#include <string>

#include "identity/account_upkeep.h"
#include "platform/console.h"

namespace tavrel::controller {
namespace {

using platform::printLine;

void storeMailSettings(identity::UserStore& store, const Options& options) {
  const std::string port = std::to_string(options.smtp_port);
  store.setSettings({{"smtp_server", options.smtp_server},
                     {"smtp_port", port},
                     {"smtp_user", options.smtp_user},
                     {"smtp_password", options.smtp_password},
                     {"smtp_from", options.smtp_from},
                     {"smtp_tls", options.smtp_tls}});
  printLine("[Controller] SMTP configured: " + options.smtp_server + ":" + port);
}

}  // namespace

void startAccounts(Services& services, const Options& options) {
  if (!services.accounts.full()) return;
  services.user_store = identity::createUserStore(options.auth_db, options.auth_db_url);
  if (services.user_store == nullptr || !services.user_store->initialize()) {
    services.user_store.reset();
    platform::printError("[Controller] WARNING: Failed to initialize user store!");
    return;
  }
  identity::UserStore& store = *services.user_store;
  services.accounts.store = &store;
  services.auth.acceptSessions(sessionLookup(services.accounts));
  services.loops.tendAccounts(store);
  if (!options.smtp_server.empty()) storeMailSettings(store, options);

  const identity::Readiness accounts = identity::prepareAccounts(store);
  if (!accounts.has_users) {
    printLine("[Controller] No users exist. First user to register will become cluster_admin.");
  } else if (!accounts.new_cluster_domain.empty()) {
    printLine("[Controller] Set cluster_domain to: " + accounts.new_cluster_domain);
  }
}

}  // namespace tavrel::controller
