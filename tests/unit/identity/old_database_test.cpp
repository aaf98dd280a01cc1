#include "old_database.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/database.h"
#include "user_store_fixture.h"

namespace tavrel::identity {

void writeOldDatabase(const std::string& path) {
  store::Database old("[Test] ");
  ASSERT_TRUE(old.open(path));
  ASSERT_TRUE(old.exec(R"sql(
    CREATE TABLE users (id TEXT PRIMARY KEY, email TEXT UNIQUE NOT NULL,
      password_hash TEXT NOT NULL, salt TEXT NOT NULL, name TEXT DEFAULT '',
      role TEXT DEFAULT 'viewer', api_key TEXT UNIQUE, created_at TEXT, last_login TEXT,
      active INTEGER DEFAULT 1, email_verified INTEGER DEFAULT 0);
    CREATE TABLE sessions (token TEXT PRIMARY KEY, user_id TEXT NOT NULL, email TEXT, role TEXT,
      created_at TEXT, expires_at TEXT);
    CREATE TABLE settings (key TEXT PRIMARY KEY, value TEXT);
    CREATE TABLE organizations (id TEXT PRIMARY KEY, name TEXT NOT NULL, slug TEXT UNIQUE NOT NULL,
      description TEXT DEFAULT '', owner_user_id TEXT, max_users INTEGER DEFAULT 10,
      max_storage_bytes INTEGER DEFAULT 53687091200, plan TEXT DEFAULT 'free',
      settings TEXT DEFAULT '{}', created_at TEXT NOT NULL, updated_at TEXT,
      active INTEGER DEFAULT 1);
    INSERT INTO organizations (id, name, slug, created_at)
      VALUES ('org_1', 'Acme', 'acme', '2024-01-01T00:00:00Z');
    INSERT INTO settings VALUES ('base_url', 'https://old.example');
  )sql"));
  for (const std::string role : {"admin", "operator", "developer", "readonly", "user"}) {
    ASSERT_TRUE(
        old.change("INSERT INTO users (id, email, password_hash, salt, name, role) "
                   "VALUES (?, ?, 'hash', 'salt', ?, ?)",
                   "usr_" + role, role + "@example.org", role, role));
    ASSERT_TRUE(old.change("INSERT INTO sessions VALUES (?, ?, '', ?, '', '2999-01-01T00:00:00Z')",
                           "ts_" + role, "usr_" + role, role));
  }
}

namespace {

std::string initialize(UserStore& store) {
  testing::internal::CaptureStdout();
  const bool initialized = store.initialize();
  const std::string lines = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(initialized);
  return lines;
}

TEST(OldDatabase, IsBroughtUpToDateOnce) {
  const test::TempDirectory directory;
  const std::string path = directory.file("users.db");
  ASSERT_NO_FATAL_FAILURE(writeOldDatabase(path));
  const std::string last = "[Auth] SQLite user store initialized: " + path + "\n";
  const auto store = createUserStore("sqlite", path);
  EXPECT_EQ(initialize(*store),
            "[Auth] Migrated users table: added org_id\n"
            "[Auth] Migrated users table: added approval_status\n"
            "[Auth] Migrated sessions table: added org_id\n"
            "[Auth] Migrated organizations table: added email_domain\n"
            "[Auth] Migrated role strings to new 4-tier system\n" +
                last);

  for (const auto& [was, is] : {std::pair{"admin", "cluster_admin"}, std::pair{"operator", "user"},
                                std::pair{"developer", "user"}, std::pair{"readonly", "viewer"},
                                std::pair{"user", "user"}}) {
    const auto user = store->findById(std::string("usr_") + was);
    ASSERT_TRUE(user) << was;
    EXPECT_EQ(user->role, is);
    EXPECT_EQ(user->approval_status, "approved");
    EXPECT_EQ(user->password_hash, "hash");
  }
  EXPECT_EQ(store->validateSession("ts_admin")->role, "cluster_admin");
  EXPECT_EQ(store->validateSession("ts_operator")->role, "user");
  EXPECT_EQ(store->getOrganization("org_1")->name, "Acme");
  EXPECT_EQ(store->getSetting("base_url", ""), "https://old.example");

  // What has come since is usable, and a role that happens to have an old name is left alone.
  Organization organization = *store->getOrganization("org_1");
  organization.email_domain = "example.org";
  EXPECT_TRUE(store->updateOrganization(organization));
  User late = userNamed("late");
  late.role = "operator";
  late.org_id = "org_1";
  EXPECT_TRUE(store->createUser(late));
  EXPECT_TRUE(store->createSession(sessionOf(late, "ts_late")));
  store->shutdown();
  EXPECT_EQ(initialize(*store), last);
  EXPECT_EQ(store->findById(late.id)->role, "operator");
  EXPECT_EQ(store->validateSession("ts_late")->org_id, "org_1");
}

TEST(OldDatabase, IsLeftAsItWasWhenItCannotBeBroughtUpToDate) {
  const test::TempDirectory directory;
  const std::string path = directory.file("users.db");
  ASSERT_NO_FATAL_FAILURE(writeOldDatabase(path));
  store::Database file("[Test] ");
  ASSERT_TRUE(file.open(path));
  // A view in the place of a table lets the indexes fail, which come after the columns.
  ASSERT_TRUE(file.exec("CREATE VIEW tokens AS SELECT id AS type FROM users"));
  const auto store = createUserStore("sqlite", path);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(store->initialize());
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::EndsWith("[Auth] Failed to create schema\n"));
  EXPECT_FALSE(store->findById("usr_admin"));
  const auto text = [](store::Statement& row) { return row.nextText(); };
  EXPECT_EQ(file.findOne(text, "SELECT role FROM users WHERE id=?", "usr_admin"), "admin");
  EXPECT_EQ(
      file.findOne(text, "SELECT count(*) FROM pragma_table_info('users') WHERE name='org_id'"),
      "0");
}

}  // namespace
}  // namespace tavrel::identity
