#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "identity/records.h"

namespace tavrel::identity {

/// What became of the attempt to register the first account.
enum class FirstUser {
  kCreated,
  kTaken,  ///< somebody was first, or no first account is waited for
  kFailed,
};

/// The database of user accounts: users, sessions, one-time tokens, settings, organizations,
/// credentials, quotas and conversations.
///
/// Threads: any, once initialize has returned and until shutdown is called.
/// Failure: while the database is closed, or when it fails, operations return false, nothing or an
/// empty list. So they do when the record that they name is not there, and when a record of the
/// same id (or e-mail, API key, slug) exists. Nothing throws.
/// A change that returned true survives the process and the machine.
class UserStore {
 public:
  virtual ~UserStore() = default;

  virtual bool initialize() = 0;
  virtual void shutdown() = 0;

  /// An active cluster administrator, made so here or by a change, ends the first-time setup: the
  /// setting `first_time_setup` becomes "false".
  virtual bool createUser(const User& user) = 0;
  /// Users are found whether active or not.
  virtual std::optional<User> findByEmail(const std::string& email) = 0;
  virtual std::optional<User> findById(const std::string& id) = 0;
  /// An empty key is nobody's.
  virtual std::optional<User> findByApiKey(const std::string& api_key) = 0;
  /// Writes everything but `created_at`. Open sessions take over email, role and organization;
  /// those of an inactive or rejected user end. See changeUser.
  virtual bool updateUser(const User& user) = 0;
  /// Makes the user inactive and ends the sessions; the record stays.
  virtual bool deleteUser(const std::string& id) = 0;
  virtual std::vector<User> listUsers() = 0;  ///< the active ones, the newest first

  /// Refused for an inactive or rejected user.
  virtual bool createSession(const Session& session) = 0;
  /// Nothing for an expired session, which is removed.
  virtual std::optional<Session> validateSession(const std::string& token) = 0;
  virtual bool deleteSession(const std::string& token) = 0;
  /// True also when there were none.
  virtual bool deleteUserSessions(const std::string& user_id) = 0;
  virtual void cleanExpiredSessions() = 0;  ///< tokens too

  virtual std::string getSetting(const std::string& key, const std::string& fallback) = 0;
  virtual bool setSetting(const std::string& key, const std::string& value) = 0;
  /// Sets several: all of them or none.
  virtual bool setSettings(const std::map<std::string, std::string>& values);

  /// Replaces the token of that type that the user has. The lifetime is at most a hundred years.
  virtual bool storeToken(const std::string& token, const std::string& user_id,
                          const std::string& type, std::int64_t ttl_seconds) = 0;
  /// The id of the user, to whom the token stays; nothing for an expired one, which is removed.
  virtual std::optional<std::string> validateToken(const std::string& token,
                                                   const std::string& type) = 0;
  /// Of several callers one gets true: who acts on that uses the token once.
  virtual bool deleteToken(const std::string& token) = 0;

  /// An empty slug is made from the name, unlike all others.
  virtual bool createOrganization(const Organization& organization);
  virtual std::optional<Organization> getOrganization(const std::string& id);  ///< active or not
  virtual std::vector<Organization> listOrganizations();  ///< the active ones, the newest first
  /// Writes everything but `created_at`. See changeOrganization.
  virtual bool updateOrganization(const Organization& organization);
  /// Makes the organization inactive; the record stays.
  virtual bool deleteOrganization(const std::string& id);
  /// The active organization of that e-mail domain; an empty domain is nobody's.
  virtual std::optional<Organization> findOrganizationByDomain(const std::string& domain);

  virtual std::vector<User> listPendingApprovals();  ///< the oldest first
  virtual bool approveUser(const std::string& user_id, const std::string& approver_id);
  /// Ends the user's sessions as well.
  virtual bool rejectUser(const std::string& user_id, const std::string& approver_id);

  /// In order of category and key; of all categories when `category` is empty.
  virtual std::vector<UserSettingEntry> getSettings(const std::string& scope,
                                                    const std::string& category);
  virtual bool setSetting(const std::string& scope, const std::string& category,
                          const std::string& key, const std::string& value);
  /// Sets values of one category by their keys: all of them or none.
  virtual bool setSettings(const std::string& scope, const std::string& category,
                           const std::map<std::string, std::string>& values);
  /// True also when there were none.
  virtual bool deleteSettingsByScope(const std::string& scope);

  virtual bool createCredential(const Credential& credential);
  virtual std::optional<Credential> getCredential(const std::string& id);
  virtual std::vector<Credential> listCredentials(const std::string& owner_type,
                                                  const std::string& owner_id);
  /// The empty organization shares nothing.
  virtual std::vector<Credential> listSharedCredentials(const std::string& org_id);
  virtual bool deleteCredential(const std::string& id);

  virtual std::vector<ResourceQuota> getQuotas(const std::string& target_type,
                                               const std::string& target_id);
  /// Adds the quota or replaces that of the same target and metric; the store chooses its id.
  virtual bool setQuota(const ResourceQuota& quota);
  /// True also when there is no such quota.
  virtual bool incrementQuotaUsage(const std::string& target_type, const std::string& target_id,
                                   const std::string& metric, std::int64_t amount);
  /// True while usage is below the limit, and when there is no such quota.
  virtual bool checkQuota(const std::string& target_type, const std::string& target_id,
                          const std::string& metric);
  virtual void resetDailyQuotas();

  virtual bool createConversation(const ChatConversation& conversation);
  /// Stores those whose ids are not taken, all of them or, when the database fails, none; how many
  /// they are.
  virtual std::optional<std::size_t> importConversations(
      const std::vector<ChatConversation>& conversations);
  virtual std::optional<ChatConversation> getConversation(const std::string& id);
  /// Pinned ones first, then the last changed. Their messages are left out: they are empty.
  virtual std::vector<ChatConversation> listConversations(const std::string& user_id,
                                                          bool include_archived);
  /// Writes title, model, messages, `updated_at`, pinned and archived. See changeConversation.
  virtual bool updateConversation(const ChatConversation& conversation);
  virtual bool deleteConversation(const std::string& id);

  /// Decides who is first: when the setting `first_time_setup` is "true" and there is no active
  /// cluster administrator, creates the user as given, makes the setting "false" and, unless
  /// `domain` is empty, sets `cluster_domain` to it.
  /// All of this happens or nothing, and for one caller only.
  virtual FirstUser createFirstUser(const User& user, const std::string& domain);

  /// Read, change, write as one step, so that of two callers neither undoes what the other one
  /// changed; then as the update operation. Return the record as it is now, nothing when there is
  /// none or the write failed. `change` must not call the store or wait: the store is locked.
  /// With a new password hash all sessions of the user end.
  virtual std::optional<User> changeUser(const std::string& id,
                                         const std::function<void(User&)>& change);
  virtual std::optional<Organization> changeOrganization(
      const std::string& id, const std::function<void(Organization&)>& change);
  virtual std::optional<ChatConversation> changeConversation(
      const std::string& id, const std::function<void(ChatConversation&)>& change);
};

/// A store that is not yet initialised. `backend` is "sqlite" or empty; `url` is the file, when
/// empty `$HOME/.config/tavrel/users.db`, or users.db in the working directory without a HOME.
/// Null, and a line on standard error, for any other backend.
std::unique_ptr<UserStore> createUserStore(const std::string& backend, const std::string& url);

}  // namespace tavrel::identity
