#include "identity/user_schema.h"

#include <algorithm>

namespace tavrel::identity {
namespace {

constexpr const char* kTables = R"sql(
CREATE TABLE IF NOT EXISTS users (
    id TEXT PRIMARY KEY,
    email TEXT UNIQUE NOT NULL,
    password_hash TEXT NOT NULL,
    salt TEXT NOT NULL,
    name TEXT DEFAULT '',
    role TEXT DEFAULT 'viewer',
    api_key TEXT UNIQUE,
    created_at TEXT,
    last_login TEXT,
    active INTEGER DEFAULT 1,
    email_verified INTEGER DEFAULT 0,
    org_id TEXT DEFAULT '',
    approval_status TEXT DEFAULT 'approved',
    approved_by TEXT DEFAULT '',
    approved_at TEXT DEFAULT '',
    avatar_url TEXT DEFAULT ''
);

CREATE TABLE IF NOT EXISTS sessions (
    token TEXT PRIMARY KEY,
    user_id TEXT NOT NULL,
    email TEXT,
    role TEXT,
    org_id TEXT DEFAULT '',
    created_at TEXT,
    expires_at TEXT,
    FOREIGN KEY (user_id) REFERENCES users(id) ON DELETE CASCADE
);

CREATE TABLE IF NOT EXISTS settings (
    key TEXT PRIMARY KEY,
    value TEXT
);

CREATE TABLE IF NOT EXISTS tokens (
    token TEXT PRIMARY KEY,
    user_id TEXT NOT NULL,
    type TEXT NOT NULL,
    expires_at TEXT,
    FOREIGN KEY (user_id) REFERENCES users(id) ON DELETE CASCADE
);

CREATE TABLE IF NOT EXISTS organizations (
    id TEXT PRIMARY KEY,
    name TEXT NOT NULL,
    slug TEXT UNIQUE NOT NULL,
    description TEXT DEFAULT '',
    owner_user_id TEXT,
    max_users INTEGER DEFAULT 10,
    max_storage_bytes INTEGER DEFAULT 53687091200,
    plan TEXT DEFAULT 'free',
    settings TEXT DEFAULT '{}',
    created_at TEXT NOT NULL,
    updated_at TEXT,
    active INTEGER DEFAULT 1,
    FOREIGN KEY (owner_user_id) REFERENCES users(id)
);

CREATE TABLE IF NOT EXISTS user_settings (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    scope TEXT NOT NULL,
    category TEXT NOT NULL,
    key TEXT NOT NULL,
    value TEXT NOT NULL,
    updated_at TEXT,
    UNIQUE(scope, category, key)
);

CREATE TABLE IF NOT EXISTS credentials (
    id TEXT PRIMARY KEY,
    owner_type TEXT NOT NULL,
    owner_id TEXT NOT NULL,
    name TEXT NOT NULL,
    service TEXT NOT NULL,
    credential_data TEXT NOT NULL,
    shared INTEGER DEFAULT 0,
    created_at TEXT,
    updated_at TEXT,
    created_by TEXT
);

CREATE TABLE IF NOT EXISTS resource_quotas (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    target_type TEXT NOT NULL,
    target_id TEXT NOT NULL,
    metric TEXT NOT NULL,
    limit_value INTEGER NOT NULL,
    current_value INTEGER DEFAULT 0,
    reset_interval TEXT DEFAULT 'daily',
    last_reset TEXT,
    UNIQUE(target_type, target_id, metric)
);

CREATE TABLE IF NOT EXISTS chat_history (
    id TEXT PRIMARY KEY,
    user_id TEXT NOT NULL,
    org_id TEXT,
    title TEXT DEFAULT 'New Chat',
    model TEXT,
    messages TEXT NOT NULL,
    created_at TEXT NOT NULL,
    updated_at TEXT NOT NULL,
    pinned INTEGER DEFAULT 0,
    archived INTEGER DEFAULT 0,
    FOREIGN KEY (user_id) REFERENCES users(id) ON DELETE CASCADE
);
)sql";

// Some are on columns that a file of an earlier version gets from kLaterColumns.
constexpr const char* kIndexes = R"sql(
CREATE INDEX IF NOT EXISTS idx_users_email ON users(email);
CREATE INDEX IF NOT EXISTS idx_users_api_key ON users(api_key);
CREATE INDEX IF NOT EXISTS idx_users_org ON users(org_id);
CREATE INDEX IF NOT EXISTS idx_users_approval ON users(approval_status);
CREATE INDEX IF NOT EXISTS idx_sessions_user_id ON sessions(user_id);
CREATE INDEX IF NOT EXISTS idx_sessions_expires ON sessions(expires_at);
CREATE INDEX IF NOT EXISTS idx_tokens_type ON tokens(type);
CREATE INDEX IF NOT EXISTS idx_settings_scope ON user_settings(scope, category);
CREATE INDEX IF NOT EXISTS idx_credentials_owner ON credentials(owner_type, owner_id);
CREATE INDEX IF NOT EXISTS idx_quotas_target ON resource_quotas(target_type, target_id);
CREATE INDEX IF NOT EXISTS idx_chat_user ON chat_history(user_id, updated_at DESC);
CREATE INDEX IF NOT EXISTS idx_orgs_domain ON organizations(email_domain);
)sql";

/// A column that a table of an earlier version may lack (organizations are always made without
/// theirs), and the line that tells of its addition, if any.
struct LaterColumn {
  const char* table;
  const char* name;
  const char* statement;
  const char* message;
};

constexpr LaterColumn kLaterColumns[] = {
    {"users", "org_id", "ALTER TABLE users ADD COLUMN org_id TEXT DEFAULT ''",
     "[Auth] Migrated users table: added org_id"},
    {"users", "approval_status",
     "ALTER TABLE users ADD COLUMN approval_status TEXT DEFAULT 'approved'",
     "[Auth] Migrated users table: added approval_status"},
    {"users", "approved_by", "ALTER TABLE users ADD COLUMN approved_by TEXT DEFAULT ''", ""},
    {"users", "approved_at", "ALTER TABLE users ADD COLUMN approved_at TEXT DEFAULT ''", ""},
    {"users", "avatar_url", "ALTER TABLE users ADD COLUMN avatar_url TEXT DEFAULT ''", ""},
    {"sessions", "org_id", "ALTER TABLE sessions ADD COLUMN org_id TEXT DEFAULT ''",
     "[Auth] Migrated sessions table: added org_id"},
    {"organizations", "email_domain",
     "ALTER TABLE organizations ADD COLUMN email_domain TEXT DEFAULT ''",
     "[Auth] Migrated organizations table: added email_domain"},
};

/// From the role names of earlier versions to the four tiers.
constexpr const char* kRoleChanges[] = {
    "UPDATE users SET role='cluster_admin' WHERE role='admin'",
    "UPDATE users SET role='user' WHERE role='operator'",
    "UPDATE users SET role='user' WHERE role='developer'",
    "UPDATE users SET role='viewer' WHERE role='readonly'",
    "UPDATE sessions SET role='cluster_admin' WHERE role='admin'",
    "UPDATE sessions SET role='user' WHERE role='operator'",
    "INSERT OR REPLACE INTO settings (key, value) VALUES ('roles_migrated', 'true')",
};

std::vector<std::string> columnsOf(store::Database& database, const std::string& table) {
  const auto name = [](store::Statement& row) {
    row.nextInteger();  // the column's number comes first
    return row.nextText();
  };
  return database.findAll(name, "PRAGMA table_info(" + table + ")");
}

bool addLaterColumns(store::Database& database, std::vector<std::string>& messages) {
  for (const LaterColumn& column : kLaterColumns) {
    const std::vector<std::string> known = columnsOf(database, column.table);
    if (std::find(known.begin(), known.end(), column.name) != known.end()) continue;
    if (!database.exec(column.statement)) return false;
    if (*column.message != '\0') messages.emplace_back(column.message);
  }
  return true;
}

bool migrateRoles(store::Database& database, std::vector<std::string>& messages) {
  const auto value = [](store::Statement& row) { return row.nextText(); };
  const auto done =
      database.findOne(value, "SELECT value FROM settings WHERE key=?", "roles_migrated");
  if (done == "true") return true;
  for (const char* change : kRoleChanges) {
    if (!database.exec(change)) return false;
  }
  messages.emplace_back("[Auth] Migrated role strings to new 4-tier system");
  return true;
}

}  // namespace

bool bringUpToDate(store::Database& database, std::vector<std::string>& messages) {
  return database.atomically([&](store::Database& db) {
    return db.exec(kTables) && addLaterColumns(db, messages) && db.exec(kIndexes) &&
           migrateRoles(db, messages);
  });
}

}  // namespace tavrel::identity
