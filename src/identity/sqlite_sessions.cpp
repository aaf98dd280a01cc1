#include "identity/crypto.h"
#include "identity/session_rules.h"
#include "identity/sqlite_user_store.h"
#include "store/store_lock.h"

namespace tavrel::identity {

using store::Database;
using store::StoreLock;

namespace {

constexpr const char* kSelectSession =
    "SELECT token, user_id, email, role, org_id, created_at, expires_at FROM sessions "
    "WHERE token=?";
constexpr const char* kDeleteSession = "DELETE FROM sessions WHERE token=?";
constexpr const char* kDeleteToken = "DELETE FROM tokens WHERE token=?";

Session readSession(store::Statement& row) {
  return {.token = row.nextText(),
          .user_id = row.nextText(),
          .email = row.nextText(),
          .role = row.nextText(),
          .org_id = row.nextText(),
          .created_at = row.nextText(),
          .expires_at = row.nextText()};
}

struct TokenOwner {
  std::string user_id;
  std::string expires_at;
};

TokenOwner readTokenOwner(store::Statement& row) {
  return {.user_id = row.nextText(), .expires_at = row.nextText()};
}

}  // namespace

bool carryIntoSessions(Database& db, const std::string& user_id) {
  return db.change(
             "UPDATE sessions SET email=u.email, role=u.role, org_id=u.org_id FROM users u "
             "WHERE u.id=sessions.user_id AND sessions.user_id=?",
             user_id) &&
         db.change(
             "DELETE FROM sessions WHERE user_id=? AND EXISTS (SELECT 1 FROM users "
             "WHERE id=sessions.user_id AND (active=0 OR approval_status='rejected'))",
             user_id);
}

bool SqliteUserStore::createSession(const Session& session) {
  const StoreLock lock(mu_);
  // The user may have changed since the caller read the record; a session that ends in the same
  // moment was not made.
  return db_.atomically([&](Database& db) {
    return db.change(
               "INSERT INTO sessions (token, user_id, email, role, org_id, created_at, "
               "expires_at) VALUES (?, ?, ?, ?, ?, ?, ?)",
               session.token, session.user_id, session.email, session.role, session.org_id,
               session.created_at, session.expires_at) &&
           carryIntoSessions(db, session.user_id) &&
           db.findOne(readSession, kSelectSession, session.token);
  });
}

std::optional<Session> SqliteUserStore::validateSession(const std::string& token) {
  const StoreLock lock(mu_);
  auto session = db_.findOne(readSession, kSelectSession, token);
  if (session && crypto::isExpired(session->expires_at)) {
    db_.change(kDeleteSession, token);
    return std::nullopt;
  }
  return session;
}

bool SqliteUserStore::deleteSession(const std::string& token) {
  const StoreLock lock(mu_);
  return db_.change(kDeleteSession, token) > 0;
}

bool SqliteUserStore::deleteUserSessions(const std::string& user_id) {
  const StoreLock lock(mu_);
  return db_.change("DELETE FROM sessions WHERE user_id=?", user_id).has_value();
}

void SqliteUserStore::cleanExpiredSessions() {
  const StoreLock lock(mu_);
  const std::string now = crypto::nowISO8601();
  db_.change("DELETE FROM sessions WHERE expires_at < ?", now);
  db_.change("DELETE FROM tokens WHERE expires_at < ?", now);
}

bool SqliteUserStore::storeToken(const std::string& token, const std::string& user_id,
                                 const std::string& type, std::int64_t ttl_seconds) {
  const StoreLock lock(mu_);
  return db_.atomically([&](Database& db) {
    return db.change("DELETE FROM tokens WHERE user_id=? AND type=?", user_id, type) &&
           db.change("INSERT INTO tokens (token, user_id, type, expires_at) VALUES (?, ?, ?, ?)",
                     token, user_id, type, crypto::futureISO8601(ttl_seconds));
  });
}

std::optional<std::string> SqliteUserStore::validateToken(const std::string& token,
                                                          const std::string& type) {
  const StoreLock lock(mu_);
  const auto owner =
      db_.findOne(readTokenOwner, "SELECT user_id, expires_at FROM tokens WHERE token=? AND type=?",
                  token, type);
  if (!owner) return std::nullopt;
  if (crypto::isExpired(owner->expires_at)) {
    db_.change(kDeleteToken, token);
    return std::nullopt;
  }
  return owner->user_id;
}

bool SqliteUserStore::deleteToken(const std::string& token) {
  const StoreLock lock(mu_);
  return db_.change(kDeleteToken, token) > 0;
}

}  // namespace tavrel::identity
