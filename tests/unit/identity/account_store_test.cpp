#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "identity/sqlite_user_store.h"
#include "user_store_fixture.h"

namespace tavrel::identity {
namespace {

using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Accounts = UserStoreTest;

auto named(const std::string& name) {
  return Field(&User::name, name);
}

TEST_F(Accounts, AUserIsFoundWithEveryField) {
  User user = userNamed("ada");
  user.last_login = "2026-02-01T00:00:00Z";
  user.active = false;
  user.email_verified = true;
  user.org_id = "org_1";
  user.approval_status = "pending";
  user.approved_by = "admin";
  user.approved_at = "2026-02-02T00:00:00Z";
  user.avatar_url = "/ada.png";
  ASSERT_TRUE(store_->createUser(user));
  for (const auto& found : {store_->findById(user.id), store_->findByEmail(user.email),
                            store_->findByApiKey(user.api_key)}) {
    ASSERT_TRUE(found);
    EXPECT_EQ(found->toJson(true), user.toJson(true));
    EXPECT_EQ(found->password_hash, user.password_hash);
    EXPECT_EQ(found->salt, user.salt);
    EXPECT_FALSE(found->active);
  }
  EXPECT_FALSE(store_->findById("usr_nobody"));
  EXPECT_FALSE(store_->findByEmail("' OR 1=1 --"));
}

TEST_F(Accounts, AnEmailOrKeyHasOneOwner) {
  ASSERT_TRUE(store_->createUser(userNamed("ada")));
  User second = userNamed("bob");
  second.email = "ada@example.org";
  testing::internal::CaptureStderr();
  EXPECT_FALSE(store_->createUser(second));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[Auth] createUser failed: UNIQUE constraint failed: users.email\n");
  second.email = "bob@example.org";
  second.api_key = "";
  EXPECT_TRUE(store_->createUser(second));
  User third = userNamed("eve");
  third.api_key = "";
  EXPECT_TRUE(store_->createUser(third)) << "having no key is nobody's privilege";
  EXPECT_FALSE(store_->findByApiKey(""));
  EXPECT_EQ(store_->findById(third.id)->api_key, "");
}

TEST_F(Accounts, ADeletedUserIsKeptButNeitherListedNorSignedIn) {
  const User ada = userNamed("ada");
  User bob = userNamed("bob");
  bob.created_at = "2026-01-02T00:00:00Z";
  ASSERT_TRUE(store_->createUser(ada) && store_->createUser(bob));
  ASSERT_TRUE(store_->createSession(sessionOf(ada, "ts_a")));
  EXPECT_THAT(store_->listUsers(), ElementsAre(named("bob"), named("ada")));
  EXPECT_TRUE(store_->deleteUser(ada.id));
  EXPECT_THAT(store_->listUsers(), ElementsAre(named("bob")));
  ASSERT_TRUE(store_->findByEmail(ada.email));
  EXPECT_FALSE(store_->findByEmail(ada.email)->active);
  EXPECT_FALSE(store_->validateSession("ts_a"));
  EXPECT_FALSE(store_->createSession(sessionOf(ada, "ts_late")));
  EXPECT_FALSE(store_->validateSession("ts_late"));
  EXPECT_FALSE(store_->deleteUser("usr_nobody"));
}

TEST_F(Accounts, ApprovalsAreDecidedOldestFirst) {
  for (const std::string name : {"ada", "bob", "eve"}) {
    User user = userNamed(name);
    user.approval_status = name == "eve" ? "approved" : "pending";
    user.created_at = name == "ada" ? "2026-03-01T00:00:00Z" : "2026-02-01T00:00:00Z";
    ASSERT_TRUE(store_->createUser(user));
  }
  EXPECT_THAT(store_->listPendingApprovals(), ElementsAre(named("bob"), named("ada")));
  ASSERT_TRUE(store_->createSession(sessionOf(userNamed("ada"), "ts_a")));
  EXPECT_TRUE(store_->approveUser("usr_bob", "admin"));
  EXPECT_TRUE(store_->rejectUser("usr_ada", "admin"));
  EXPECT_THAT(store_->listPendingApprovals(), IsEmpty());
  const auto bob = store_->findById("usr_bob");
  EXPECT_EQ(bob->approval_status, "approved");
  EXPECT_EQ(bob->approved_by, "admin");
  EXPECT_FALSE(crypto::isExpired(bob->approved_at, platform::wallNow() - std::chrono::minutes(1)));
  EXPECT_EQ(store_->findById("usr_ada")->approval_status, "rejected");
  EXPECT_FALSE(store_->validateSession("ts_a")) << "a rejected account is signed out";
  EXPECT_FALSE(store_->approveUser("usr_nobody", "admin"));
  EXPECT_FALSE(store_->rejectUser("usr_nobody", "admin"));
}

TEST_F(Accounts, OpenSessionsFollowTheUser) {
  User user = userNamed("ada");
  ASSERT_TRUE(store_->createUser(user) && store_->createUser(userNamed("bob")));
  ASSERT_TRUE(store_->createSession(sessionOf(user, "ts_1")));
  ASSERT_TRUE(store_->createSession(sessionOf(userNamed("bob"), "ts_bob")));
  const User stale = user;
  user.role = "org_admin";
  user.org_id = "org_1";
  user.email = "ada@example.com";
  ASSERT_TRUE(store_->updateUser(user));
  ASSERT_TRUE(store_->createSession(sessionOf(stale, "ts_2")));
  for (const std::string token : {"ts_1", "ts_2"}) {
    const auto session = store_->validateSession(token);
    ASSERT_TRUE(session) << token;
    EXPECT_EQ(session->role, "org_admin");
    EXPECT_EQ(session->org_id, "org_1");
    EXPECT_EQ(session->email, "ada@example.com");
    EXPECT_EQ(session->user_id, user.id);
  }
  EXPECT_EQ(store_->validateSession("ts_bob")->role, "user");
  user.active = false;
  ASSERT_TRUE(store_->updateUser(user));
  EXPECT_FALSE(store_->validateSession("ts_1"));
  EXPECT_TRUE(store_->validateSession("ts_bob"));
  EXPECT_FALSE(store_->updateUser(userNamed("nobody")));
}

TEST_F(Accounts, AChangeKeepsWhatOthersChangedMeanwhile) {
  ASSERT_TRUE(store_->createUser(userNamed("ada")));
  ASSERT_TRUE(store_->createSession(sessionOf(userNamed("ada"), "ts_a")));
  ASSERT_TRUE(store_->changeUser("usr_ada", [](User& user) { user.role = "viewer"; }));
  const auto changed = store_->changeUser("usr_ada", [](User& user) {
    user.last_login = "2026-02-01T00:00:00Z";
    user.id = "usr_other";
  });
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->id, "usr_ada");
  EXPECT_EQ(changed->role, "viewer");
  EXPECT_EQ(store_->validateSession("ts_a")->role, "viewer");
  EXPECT_EQ(store_->findById("usr_ada")->toJson(true), changed->toJson(true));
  ASSERT_TRUE(store_->createUser(userNamed("bob")));
  EXPECT_FALSE(store_->changeUser("usr_bob", [](User& user) { user.email = "ada@example.org"; }));
  EXPECT_FALSE(store_->changeUser("usr_nobody", [](User& /*user*/) {}));
}

TEST_F(Accounts, SessionsEndByTimeAndByCall) {
  const User ada = userNamed("ada");
  ASSERT_TRUE(store_->createUser(ada));
  for (const std::string token : {"ts_1", "ts_2", "ts_3"}) {
    ASSERT_TRUE(store_->createSession(sessionOf(ada, token)));
  }
  EXPECT_FALSE(store_->createSession(sessionOf(ada, "ts_1"))) << "a token names one session";
  const auto session = store_->validateSession("ts_1");
  ASSERT_TRUE(session);
  EXPECT_EQ(session->toJson(), sessionOf(ada, "ts_1").toJson());
  EXPECT_TRUE(store_->deleteSession("ts_1"));
  EXPECT_FALSE(store_->deleteSession("ts_1"));
  EXPECT_FALSE(store_->validateSession("ts_1"));
  EXPECT_TRUE(store_->deleteUserSessions(ada.id));
  EXPECT_TRUE(store_->deleteUserSessions(ada.id));
  EXPECT_FALSE(store_->validateSession("ts_2"));

  Session past = sessionOf(ada, "ts_past");
  past.expires_at = crypto::futureISO8601(-5);
  ASSERT_TRUE(store_->createSession(past));
  EXPECT_FALSE(store_->validateSession("ts_past"));
  EXPECT_FALSE(store_->deleteSession("ts_past")) << "looking at it should have removed it";

  ASSERT_TRUE(store_->createSession(past));
  ASSERT_TRUE(store_->createSession(sessionOf(ada, "ts_new")));
  ASSERT_TRUE(store_->storeToken("old", ada.id, "verify_email", -5));
  ASSERT_TRUE(store_->storeToken("new", ada.id, "reset_password", 3600));
  store_->cleanExpiredSessions();
  EXPECT_FALSE(store_->deleteSession("ts_past"));
  EXPECT_FALSE(store_->deleteToken("old"));
  EXPECT_TRUE(store_->validateSession("ts_new"));
  EXPECT_TRUE(store_->validateToken("new", "reset_password"));
}

TEST_F(Accounts, AUserHasOneTokenOfAType) {
  ASSERT_TRUE(store_->storeToken("first", "usr_a", "reset_password", 3600));
  ASSERT_TRUE(store_->storeToken("mail", "usr_a", "verify_email", 3600));
  ASSERT_TRUE(store_->storeToken("other", "usr_b", "reset_password", 3600));
  ASSERT_TRUE(store_->storeToken("second", "usr_a", "reset_password", 3600));
  EXPECT_FALSE(store_->validateToken("first", "reset_password"));
  EXPECT_EQ(store_->validateToken("second", "reset_password"), "usr_a");
  EXPECT_EQ(store_->validateToken("second", "reset_password"), "usr_a") << "looking uses it up";
  EXPECT_FALSE(store_->validateToken("second", "verify_email"));
  EXPECT_EQ(store_->validateToken("mail", "verify_email"), "usr_a");
  EXPECT_EQ(store_->validateToken("other", "reset_password"), "usr_b");
  EXPECT_TRUE(store_->deleteToken("second"));
  EXPECT_FALSE(store_->deleteToken("second"));
  // A token that cannot be stored leaves the one that was there.
  EXPECT_FALSE(store_->storeToken("other", "usr_a", "verify_email", 3600));
  EXPECT_EQ(store_->validateToken("mail", "verify_email"), "usr_a");
}

TEST_F(Accounts, TheFirstUserIsMadeOnceAndAsAWhole) {
  EXPECT_EQ(store_->createFirstUser(userNamed("ada"), "example.org"), FirstUser::kTaken);
  ASSERT_TRUE(store_->setSetting("first_time_setup", "true"));
  ASSERT_TRUE(store_->createUser(userNamed("bob")));
  testing::internal::CaptureStderr();
  EXPECT_EQ(store_->createFirstUser(userNamed("bob"), "example.org"), FirstUser::kFailed);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("[Auth] createUser failed: "));
  EXPECT_EQ(store_->getSetting("first_time_setup", ""), "true")
      << "the next one may still be first";
  EXPECT_EQ(store_->createFirstUser(userNamed("ada"), "example.org"), FirstUser::kCreated);
  EXPECT_EQ(store_->createFirstUser(userNamed("eve"), "example.com"), FirstUser::kTaken);
  EXPECT_TRUE(store_->findById("usr_ada"));
  EXPECT_FALSE(store_->findById("usr_eve"));
  EXPECT_EQ(store_->getSetting("first_time_setup", ""), "false");
  EXPECT_EQ(store_->getSetting("cluster_domain", ""), "example.org");
}

TEST_F(Accounts, AnAdministratorHoweverMadeEndsTheSetup) {
  const auto is_open = [&] { return store_->getSetting("first_time_setup", "none"); };
  User plain = userNamed("plain");
  plain.role = "org_admin";
  User gone = userNamed("gone");
  gone.role = "cluster_admin";
  gone.active = false;
  ASSERT_TRUE(store_->setSetting("first_time_setup", "true"));
  ASSERT_TRUE(store_->createUser(plain) && store_->createUser(gone));
  EXPECT_EQ(is_open(), "true") << "nobody governs yet";
  ASSERT_TRUE(store_->changeUser(plain.id, [](User& user) { user.role = "cluster_admin"; }));
  EXPECT_EQ(is_open(), "false");

  for (const char* role : {"cluster_admin", "admin"}) {
    ASSERT_TRUE(store_->setSetting("first_time_setup", "true"));
    User made = userNamed(role);
    made.role = role;
    ASSERT_TRUE(store_->createUser(made));
    EXPECT_EQ(is_open(), "false") << role;
    ASSERT_TRUE(store_->setSetting("first_time_setup", "true"));
    EXPECT_EQ(store_->createFirstUser(userNamed("eve"), "far.org"), FirstUser::kTaken);
  }
}

TEST(CreateUserStore, TakesTheFileFromUrlHomeOrWorkingDirectory) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(createUserStore("postgresql", "x"), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[Auth] Unknown user store backend: postgresql\n");
  const test::TempDirectory home;
  const char* old = std::getenv("HOME");
  const std::string old_home = old == nullptr ? "" : old;
  ASSERT_EQ(::setenv("HOME", home.path().c_str(), 1), 0);
  const auto store = createUserStore("", "");
  ASSERT_EQ(::setenv("HOME", old_home.c_str(), 1), 0);
  ASSERT_NE(store, nullptr);
  EXPECT_FALSE(store->createUser(userNamed("ada"))) << "not yet initialised";
  testing::internal::CaptureStdout();
  EXPECT_TRUE(store->initialize());
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              HasSubstr("[Auth] SQLite user store initialized: " + home.path() +
                        "/.config/tavrel/users.db\n"));
}

TEST(UnusableStore, SaysWhyOnce) {
  const test::TempDirectory directory;
  SqliteUserStore store(directory.path());
  testing::internal::CaptureStderr();
  EXPECT_FALSE(store.initialize());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[Auth] Failed to open database: unable to open database file\n");
}

TEST_F(Accounts, AClosedStoreAnswersNothingQuietly) {
  const User ada = userNamed("ada");
  ASSERT_TRUE(store_->createUser(ada) && store_->setSetting("key", "value"));
  store_->shutdown();
  testing::internal::CaptureStderr();
  EXPECT_FALSE(store_->findById(ada.id) || store_->createUser(userNamed("bob")) ||
               store_->updateUser(ada) || store_->storeToken("t", ada.id, "verify_email", 60));
  EXPECT_THAT(store_->listUsers(), IsEmpty());
  EXPECT_EQ(store_->getSetting("key", "fallback"), "fallback");
  EXPECT_FALSE(store_->checkQuota("user", "a", "none")) << "an unknown quota is no permission";
  EXPECT_EQ(store_->createFirstUser(ada, ""), FirstUser::kFailed);
  store_->cleanExpiredSessions();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), IsEmpty());
}

}  // namespace
}  // namespace tavrel::identity
