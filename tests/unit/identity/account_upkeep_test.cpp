#include "identity/account_upkeep.h"

#include <gtest/gtest.h>

#include "user_store_fixture.h"

namespace tavrel::identity {
namespace {

using namespace std::chrono_literals;
using AccountUpkeep = UserStoreTest;

User administrator(const std::string& name, const std::string& email) {
  User user = userNamed(name);
  user.role = "cluster_admin";
  user.email = email;
  return user;
}

TEST_F(AccountUpkeep, AnEmptyStoreWaitsForItsFirstUser) {
  EXPECT_FALSE(prepareAccounts(*store_).has_users);
  EXPECT_EQ(store_->getSetting("first_time_setup", ""), "true");
  EXPECT_EQ(store_->getSetting("cluster_domain", "none"), "none");
}

TEST_F(AccountUpkeep, ASetupThatAnAdministratorShouldHaveEndedEnds) {
  store_->createUser(userNamed("plain"));
  store_->setSetting("first_time_setup", "true");
  prepareAccounts(*store_);
  EXPECT_EQ(store_->getSetting("first_time_setup", ""), "true") << "somebody has to govern";
  store_->createUser(administrator("ada", "ada@lab.example"));
  store_->setSetting("first_time_setup", "true");
  prepareAccounts(*store_);
  EXPECT_EQ(store_->getSetting("first_time_setup", ""), "false");
}

TEST_F(AccountUpkeep, TheClusterTakesTheDomainOfAnAdministratorAndKeepsIt) {
  store_->createUser(userNamed("plain"));
  store_->createUser(administrator("local", "root"));
  EXPECT_TRUE(prepareAccounts(*store_).has_users);
  EXPECT_EQ(store_->getSetting("cluster_domain", ""), "");

  store_->createUser(administrator("ada", "Ada@Lab.Example"));
  EXPECT_EQ(prepareAccounts(*store_).new_cluster_domain, "lab.example");
  EXPECT_EQ(store_->getSetting("cluster_domain", ""), "lab.example");
  EXPECT_EQ(store_->getSetting("first_time_setup", "none"), "none");

  store_->deleteUser("usr_ada");
  EXPECT_EQ(prepareAccounts(*store_).new_cluster_domain, "");
  EXPECT_EQ(store_->getSetting("cluster_domain", ""), "lab.example");
}

TEST_F(AccountUpkeep, DailyQuotasStartAnewOnceADayAcrossRestarts) {
  const platform::WallTime evening{std::chrono::seconds(1'767'311'940)};  // 23:59 UTC
  ResourceQuota quota;
  quota.target_type = "user";
  quota.target_id = "usr_ada";
  quota.metric = "requests";
  quota.limit_value = 10;
  ASSERT_TRUE(store_->setQuota(quota));
  const auto used = [&] { return store_->getQuotas("user", "usr_ada").at(0).current_value; };

  store_->storeToken("spent", "usr_ada", "verify_email", -60);
  tidyAccounts(*store_, evening);
  EXPECT_FALSE(store_->deleteToken("spent")) << "what has expired is forgotten every time";
  store_->incrementQuotaUsage("user", "usr_ada", "requests", 7);
  tidyAccounts(*store_, evening + 30s);
  EXPECT_EQ(used(), 7);

  const auto reopened = createUserStore("sqlite", path_);
  testing::internal::CaptureStdout();
  ASSERT_TRUE(reopened->initialize());
  testing::internal::GetCapturedStdout();
  tidyAccounts(*reopened, evening + 45s);
  EXPECT_EQ(used(), 7);
  tidyAccounts(*reopened, evening + 61s);
  EXPECT_EQ(used(), 0);
}

}  // namespace
}  // namespace tavrel::identity
