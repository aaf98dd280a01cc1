#include <algorithm>

#include "identity/crypto.h"
#include "identity/session_rules.h"
#include "identity/sqlite_user_store.h"
#include "platform/console.h"
#include "store/store_lock.h"

namespace tavrel::identity {

using store::Database;
using store::StoreLock;

namespace {

constexpr const char* kInsertUser =
    "INSERT INTO users (id, email, password_hash, salt, name, role, api_key, created_at, "
    "last_login, active, email_verified, org_id, approval_status, approved_by, approved_at, "
    "avatar_url) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";

constexpr const char* kUpdateUser =
    "UPDATE users SET email=?, password_hash=?, salt=?, name=?, role=?, api_key=?, last_login=?, "
    "active=?, email_verified=?, org_id=?, approval_status=?, approved_by=?, approved_at=?, "
    "avatar_url=? WHERE id=?";

const std::string kSelectUsers =
    "SELECT id, email, password_hash, salt, name, role, api_key, created_at, last_login, active, "
    "email_verified, org_id, approval_status, approved_by, approved_at, avatar_url FROM users";
const std::string kUserByEmail = kSelectUsers + " WHERE email=?";
const std::string kUserById = kSelectUsers + " WHERE id=?";
const std::string kUserByApiKey = kSelectUsers + " WHERE api_key=?";
const std::string kActiveUsers = kSelectUsers + " WHERE active=1 ORDER BY created_at DESC";
const std::string kPendingUsers =
    kSelectUsers + " WHERE approval_status='pending' ORDER BY created_at ASC";

constexpr const char* kCountAdministrators =
    "SELECT COUNT(*) FROM users WHERE active=1 AND role IN ('cluster_admin', 'admin')";
constexpr const char* kDeleteSessionsOfUser = "DELETE FROM sessions WHERE user_id=?";
constexpr const char* kSelectSetting = "SELECT value FROM settings WHERE key=?";
constexpr const char* kPutSetting = "INSERT OR REPLACE INTO settings (key, value) VALUES (?, ?)";

User readUser(store::Statement& row) {
  User user{.id = row.nextText(),
            .email = row.nextText(),
            .password_hash = row.nextText(),
            .salt = row.nextText(),
            .name = row.nextText(),
            .role = row.nextText(),
            .api_key = row.nextText(),
            .created_at = row.nextText(),
            .last_login = row.nextText(),
            .active = row.nextFlag(),
            .email_verified = row.nextFlag(),
            .org_id = row.nextText(),
            .approval_status = row.nextText(),
            .approved_by = row.nextText(),
            .approved_at = row.nextText(),
            .avatar_url = row.nextText()};
  if (user.approval_status.empty()) user.approval_status = "approved";
  return user;
}

std::string readText(store::Statement& row) {
  return row.nextText();
}

std::int64_t readInteger(store::Statement& row) {
  return row.nextInteger();
}

bool insertUser(Database& db, const User& user) {
  if (db.change(kInsertUser, user.id, user.email, user.password_hash, user.salt, user.name,
                user.role, store::NullIfEmpty{user.api_key}, user.created_at, user.last_login,
                user.active, user.email_verified, user.org_id, user.approval_status,
                user.approved_by, user.approved_at, user.avatar_url)) {
    return true;
  }
  if (db.isOpen()) platform::printError("[Auth] createUser failed: " + db.lastError());
  return false;
}

/// With an administrator the cluster is set up: whoever registers next is not the first any more.
bool endSetup(Database& db, const User& user) {
  if (!user.active || !isClusterAdminRole(user.role)) return true;
  return db
      .change("UPDATE settings SET value='false' WHERE key='first_time_setup' AND value='true'")
      .has_value();
}

bool writeUser(Database& db, const User& user) {
  return db.change(kUpdateUser, user.email, user.password_hash, user.salt, user.name, user.role,
                   store::NullIfEmpty{user.api_key}, user.last_login, user.active,
                   user.email_verified, user.org_id, user.approval_status, user.approved_by,
                   user.approved_at, user.avatar_url, user.id) > 0 &&
         carryIntoSessions(db, user.id) && endSetup(db, user);
}

}  // namespace

bool SqliteUserStore::createUser(const User& user) {
  const StoreLock lock(mu_);
  return db_.atomically([&](Database& db) { return insertUser(db, user) && endSetup(db, user); });
}

FirstUser SqliteUserStore::createFirstUser(const User& user, const std::string& domain) {
  const StoreLock lock(mu_);
  FirstUser outcome = FirstUser::kFailed;
  const bool stored = db_.atomically([&](Database& db) {
    // The setting alone does not decide: it is made from what could be read at start.
    const auto administrators = db.findOne(readInteger, kCountAdministrators);
    if (!administrators) return false;
    if (*administrators > 0 || db.findOne(readText, kSelectSetting, "first_time_setup") != "true") {
      outcome = FirstUser::kTaken;
      return false;
    }
    return insertUser(db, user) &&
           (domain.empty() || db.change(kPutSetting, "cluster_domain", domain)) &&
           db.change(kPutSetting, "first_time_setup", "false");
  });
  return stored ? FirstUser::kCreated : outcome;
}

std::optional<User> SqliteUserStore::findByEmail(const std::string& email) {
  const StoreLock lock(mu_);
  return db_.findOne(readUser, kUserByEmail, email);
}

std::optional<User> SqliteUserStore::findById(const std::string& id) {
  const StoreLock lock(mu_);
  return db_.findOne(readUser, kUserById, id);
}

std::optional<User> SqliteUserStore::findByApiKey(const std::string& api_key) {
  if (api_key.empty()) return std::nullopt;
  const StoreLock lock(mu_);
  return db_.findOne(readUser, kUserByApiKey, api_key);
}

bool SqliteUserStore::updateUser(const User& user) {
  const StoreLock lock(mu_);
  return db_.atomically([&](Database& db) { return writeUser(db, user); });
}

std::optional<User> SqliteUserStore::changeUser(const std::string& id,
                                                const std::function<void(User&)>& change) {
  const StoreLock lock(mu_);
  std::optional<User> user;
  const bool stored = db_.atomically([&](Database& db) {
    user = db.findOne(readUser, kUserById, id);
    if (!user) return false;
    const std::string old_hash = user->password_hash;
    change(*user);
    user->id = id;
    return writeUser(db, *user) &&
           (user->password_hash == old_hash || db.change(kDeleteSessionsOfUser, id));
  });
  return stored ? user : std::nullopt;
}

bool SqliteUserStore::deleteUser(const std::string& id) {
  const StoreLock lock(mu_);
  return db_.atomically([&](Database& db) {
    return db.change("UPDATE users SET active=0 WHERE id=?", id) > 0 &&
           db.change(kDeleteSessionsOfUser, id);
  });
}

std::vector<User> SqliteUserStore::listUsers() {
  const StoreLock lock(mu_);
  return db_.findAll(readUser, kActiveUsers);
}

std::vector<User> SqliteUserStore::listPendingApprovals() {
  const StoreLock lock(mu_);
  return db_.findAll(readUser, kPendingUsers);
}

bool SqliteUserStore::approveUser(const std::string& user_id, const std::string& approver_id) {
  const StoreLock lock(mu_);
  return db_.change(
             "UPDATE users SET approval_status='approved', approved_by=?, approved_at=? WHERE id=?",
             approver_id, crypto::nowISO8601(), user_id) > 0;
}

bool SqliteUserStore::rejectUser(const std::string& user_id, const std::string& approver_id) {
  const StoreLock lock(mu_);
  return db_.atomically([&](Database& db) {
    return db.change(
               "UPDATE users SET approval_status='rejected', approved_by=?, approved_at=? "
               "WHERE id=?",
               approver_id, crypto::nowISO8601(), user_id) > 0 &&
           carryIntoSessions(db, user_id);
  });
}

std::string SqliteUserStore::getSetting(const std::string& key, const std::string& fallback) {
  const StoreLock lock(mu_);
  return db_.findOne(readText, kSelectSetting, key).value_or(fallback);
}

bool SqliteUserStore::setSetting(const std::string& key, const std::string& value) {
  const StoreLock lock(mu_);
  return db_.change(kPutSetting, key, value).has_value();
}

bool SqliteUserStore::setSettings(const std::map<std::string, std::string>& values) {
  const StoreLock lock(mu_);
  return db_.atomically([&](Database& db) {
    return std::all_of(values.begin(), values.end(), [&](const auto& item) {
      return db.change(kPutSetting, item.first, item.second).has_value();
    });
  });
}

}  // namespace tavrel::identity
