#pragma once

#include <map>
#include <string>
#include <utility>

#include "identity/user_store.h"
#include "platform/mutex.h"
#include "store/database.h"

namespace tavrel::identity {

/// The user store in an SQLite file. Opening a file of an earlier version brings it up to date.
///
/// Threads: any; mu_ serialises all operations and is held while the file is read or written. Other
/// processes may read the file meanwhile.
/// Owns: the file, mode 0600, made when it is missing.
/// Files: one source per concern, sqlite_users.cpp to sqlite_conversations.cpp.
class SqliteUserStore final : public UserStore {
 public:
  explicit SqliteUserStore(std::string path) : path_(std::move(path)) {}
  ~SqliteUserStore() override { close(); }
  SqliteUserStore(const SqliteUserStore&) = delete;
  SqliteUserStore& operator=(const SqliteUserStore&) = delete;

  bool initialize() override TV_EXCLUDES(mu_);
  void shutdown() override TV_EXCLUDES(mu_) { close(); }

  bool createUser(const User& user) override TV_EXCLUDES(mu_);
  std::optional<User> findByEmail(const std::string& email) override TV_EXCLUDES(mu_);
  std::optional<User> findById(const std::string& id) override TV_EXCLUDES(mu_);
  std::optional<User> findByApiKey(const std::string& api_key) override TV_EXCLUDES(mu_);
  bool updateUser(const User& user) override TV_EXCLUDES(mu_);
  bool deleteUser(const std::string& id) override TV_EXCLUDES(mu_);
  std::vector<User> listUsers() override TV_EXCLUDES(mu_);

  bool createSession(const Session& session) override TV_EXCLUDES(mu_);
  std::optional<Session> validateSession(const std::string& token) override TV_EXCLUDES(mu_);
  bool deleteSession(const std::string& token) override TV_EXCLUDES(mu_);
  bool deleteUserSessions(const std::string& user_id) override TV_EXCLUDES(mu_);
  void cleanExpiredSessions() override TV_EXCLUDES(mu_);

  std::string getSetting(const std::string& key, const std::string& fallback) override
      TV_EXCLUDES(mu_);
  bool setSetting(const std::string& key, const std::string& value) override TV_EXCLUDES(mu_);
  bool setSettings(const std::map<std::string, std::string>& values) override TV_EXCLUDES(mu_);

  bool storeToken(const std::string& token, const std::string& user_id, const std::string& type,
                  std::int64_t ttl_seconds) override TV_EXCLUDES(mu_);
  std::optional<std::string> validateToken(const std::string& token,
                                           const std::string& type) override TV_EXCLUDES(mu_);
  bool deleteToken(const std::string& token) override TV_EXCLUDES(mu_);

  bool createOrganization(const Organization& organization) override TV_EXCLUDES(mu_);
  std::optional<Organization> getOrganization(const std::string& id) override TV_EXCLUDES(mu_);
  std::vector<Organization> listOrganizations() override TV_EXCLUDES(mu_);
  bool updateOrganization(const Organization& organization) override TV_EXCLUDES(mu_);
  bool deleteOrganization(const std::string& id) override TV_EXCLUDES(mu_);
  std::optional<Organization> findOrganizationByDomain(const std::string& domain) override
      TV_EXCLUDES(mu_);

  std::vector<User> listPendingApprovals() override TV_EXCLUDES(mu_);
  bool approveUser(const std::string& user_id, const std::string& approver_id) override
      TV_EXCLUDES(mu_);
  bool rejectUser(const std::string& user_id, const std::string& approver_id) override
      TV_EXCLUDES(mu_);

  std::vector<UserSettingEntry> getSettings(const std::string& scope,
                                            const std::string& category) override TV_EXCLUDES(mu_);
  bool setSetting(const std::string& scope, const std::string& category, const std::string& key,
                  const std::string& value) override TV_EXCLUDES(mu_);
  bool setSettings(const std::string& scope, const std::string& category,
                   const std::map<std::string, std::string>& values) override TV_EXCLUDES(mu_);
  bool deleteSettingsByScope(const std::string& scope) override TV_EXCLUDES(mu_);

  bool createCredential(const Credential& credential) override TV_EXCLUDES(mu_);
  std::optional<Credential> getCredential(const std::string& id) override TV_EXCLUDES(mu_);
  std::vector<Credential> listCredentials(const std::string& owner_type,
                                          const std::string& owner_id) override TV_EXCLUDES(mu_);
  std::vector<Credential> listSharedCredentials(const std::string& org_id) override
      TV_EXCLUDES(mu_);
  bool deleteCredential(const std::string& id) override TV_EXCLUDES(mu_);

  std::vector<ResourceQuota> getQuotas(const std::string& target_type,
                                       const std::string& target_id) override TV_EXCLUDES(mu_);
  bool setQuota(const ResourceQuota& quota) override TV_EXCLUDES(mu_);
  bool incrementQuotaUsage(const std::string& target_type, const std::string& target_id,
                           const std::string& metric, std::int64_t amount) override
      TV_EXCLUDES(mu_);
  bool checkQuota(const std::string& target_type, const std::string& target_id,
                  const std::string& metric) override TV_EXCLUDES(mu_);
  void resetDailyQuotas() override TV_EXCLUDES(mu_);

  bool createConversation(const ChatConversation& conversation) override TV_EXCLUDES(mu_);
  std::optional<std::size_t> importConversations(
      const std::vector<ChatConversation>& conversations) override TV_EXCLUDES(mu_);
  std::optional<ChatConversation> getConversation(const std::string& id) override TV_EXCLUDES(mu_);
  std::vector<ChatConversation> listConversations(const std::string& user_id,
                                                  bool include_archived) override TV_EXCLUDES(mu_);
  bool updateConversation(const ChatConversation& conversation) override TV_EXCLUDES(mu_);
  bool deleteConversation(const std::string& id) override TV_EXCLUDES(mu_);

  FirstUser createFirstUser(const User& user, const std::string& domain) override TV_EXCLUDES(mu_);
  std::optional<User> changeUser(const std::string& id,
                                 const std::function<void(User&)>& change) override
      TV_EXCLUDES(mu_);
  std::optional<Organization> changeOrganization(
      const std::string& id, const std::function<void(Organization&)>& change) override
      TV_EXCLUDES(mu_);
  std::optional<ChatConversation> changeConversation(
      const std::string& id, const std::function<void(ChatConversation&)>& change) override
      TV_EXCLUDES(mu_);

 private:
  void close() TV_EXCLUDES(mu_);

  const std::string path_;
  platform::Mutex mu_;
  store::Database db_ TV_GUARDED_BY(mu_){"[Auth] SQL error: "};
};

}  // namespace tavrel::identity
