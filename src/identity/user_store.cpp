#include "identity/user_store.h"

#include <cstdlib>

#include "identity/sqlite_user_store.h"
#include "platform/console.h"
#include "platform/files.h"

namespace tavrel::identity {

// A store that has accounts only need not override what follows.

bool UserStore::createOrganization(const Organization& /*organization*/) {
  return false;
}
std::optional<Organization> UserStore::getOrganization(const std::string& /*id*/) {
  return std::nullopt;
}
std::vector<Organization> UserStore::listOrganizations() {
  return {};
}
bool UserStore::updateOrganization(const Organization& /*organization*/) {
  return false;
}
bool UserStore::deleteOrganization(const std::string& /*id*/) {
  return false;
}
std::optional<Organization> UserStore::findOrganizationByDomain(const std::string& /*domain*/) {
  return std::nullopt;
}

std::vector<User> UserStore::listPendingApprovals() {
  return {};
}
bool UserStore::approveUser(const std::string& /*user_id*/, const std::string& /*approver_id*/) {
  return false;
}
bool UserStore::rejectUser(const std::string& /*user_id*/, const std::string& /*approver_id*/) {
  return false;
}

std::vector<UserSettingEntry> UserStore::getSettings(const std::string& /*scope*/,
                                                     const std::string& /*category*/) {
  return {};
}
bool UserStore::setSetting(const std::string& /*scope*/, const std::string& /*category*/,
                           const std::string& /*key*/, const std::string& /*value*/) {
  return false;
}
bool UserStore::setSettings(const std::map<std::string, std::string>& /*values*/) {
  return false;
}
bool UserStore::setSettings(const std::string& /*scope*/, const std::string& /*category*/,
                            const std::map<std::string, std::string>& /*values*/) {
  return false;
}
bool UserStore::deleteSettingsByScope(const std::string& /*scope*/) {
  return false;
}

bool UserStore::createCredential(const Credential& /*credential*/) {
  return false;
}
std::optional<Credential> UserStore::getCredential(const std::string& /*id*/) {
  return std::nullopt;
}
std::vector<Credential> UserStore::listCredentials(const std::string& /*owner_type*/,
                                                   const std::string& /*owner_id*/) {
  return {};
}
std::vector<Credential> UserStore::listSharedCredentials(const std::string& /*org_id*/) {
  return {};
}
bool UserStore::deleteCredential(const std::string& /*id*/) {
  return false;
}

std::vector<ResourceQuota> UserStore::getQuotas(const std::string& /*target_type*/,
                                                const std::string& /*target_id*/) {
  return {};
}
bool UserStore::setQuota(const ResourceQuota& /*quota*/) {
  return false;
}
bool UserStore::incrementQuotaUsage(const std::string& /*target_type*/,
                                    const std::string& /*target_id*/, const std::string& /*metric*/,
                                    std::int64_t /*amount*/) {
  return false;
}
bool UserStore::checkQuota(const std::string& /*target_type*/, const std::string& /*target_id*/,
                           const std::string& /*metric*/) {
  return false;
}
void UserStore::resetDailyQuotas() {}

bool UserStore::createConversation(const ChatConversation& /*conversation*/) {
  return false;
}
std::optional<std::size_t> UserStore::importConversations(
    const std::vector<ChatConversation>& /*conversations*/) {
  return std::nullopt;
}
std::optional<ChatConversation> UserStore::getConversation(const std::string& /*id*/) {
  return std::nullopt;
}
std::vector<ChatConversation> UserStore::listConversations(const std::string& /*user_id*/,
                                                           bool /*include_archived*/) {
  return {};
}
bool UserStore::updateConversation(const ChatConversation& /*conversation*/) {
  return false;
}
bool UserStore::deleteConversation(const std::string& /*id*/) {
  return false;
}

FirstUser UserStore::createFirstUser(const User& /*user*/, const std::string& /*domain*/) {
  return FirstUser::kFailed;
}
std::optional<User> UserStore::changeUser(const std::string& /*id*/,
                                          const std::function<void(User&)>& /*change*/) {
  return std::nullopt;
}
std::optional<Organization> UserStore::changeOrganization(
    const std::string& /*id*/, const std::function<void(Organization&)>& /*change*/) {
  return std::nullopt;
}
std::optional<ChatConversation> UserStore::changeConversation(
    const std::string& /*id*/, const std::function<void(ChatConversation&)>& /*change*/) {
  return std::nullopt;
}

std::unique_ptr<UserStore> createUserStore(const std::string& backend, const std::string& url) {
  if (!backend.empty() && backend != "sqlite") {
    platform::printError("[Auth] Unknown user store backend: " + backend);
    return nullptr;
  }
  std::string path = url;
  if (path.empty()) {
    const char* home = std::getenv("HOME");
    path = home == nullptr || *home == '\0' ? "users.db"
                                            : platform::userConfigDirectory(home) + "/users.db";
  }
  return std::make_unique<SqliteUserStore>(path);
}

}  // namespace tavrel::identity
