#include "identity/account_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "identity/account_upkeep.h"
#include "store/database.h"
#include "user_store_fixture.h"

namespace tavrel::identity {
namespace {

/// Accounts without a mail server, in a store that waits for its first user.
class AccountServiceTest : public UserStoreTest {
 protected:
  void SetUp() override {
    UserStoreTest::SetUp();
    prepareAccounts(*store_);
  }

  static RegistrationForm formFor(const std::string& email) {
    RegistrationForm form;
    form.email = email;
    form.password = "password1";
    return form;
  }
  static RegistrationForm organizationFor(const std::string& email, const std::string& name) {
    RegistrationForm form = formFor(email);
    form.kind = RegistrationForm::Kind::kOrganization;
    form.org_name = name;
    return form;
  }

  Registration registered(const RegistrationForm& form) {
    const auto outcome = accounts_.registerAccount(form);
    const auto* made = std::get_if<Registration>(&outcome);
    EXPECT_NE(made, nullptr) << form.email;
    return made == nullptr ? Registration{} : *made;
  }
  Registration registered(const std::string& email) { return registered(formFor(email)); }

  /// "role status" of the user as stored.
  std::string standing(const Registration& made) {
    const auto user = store_->findById(made.user.id);
    return user ? user->role + ' ' + user->approval_status : "missing";
  }

  net::SmtpClient smtp_;
  AccountService accounts_{*store_, smtp_};
};

template <class Value>
AccountFault faultOf(const Outcome<Value>& outcome) {
  return std::get<AccountFault>(outcome);
}

TEST(DomainOf, IsWhatFollowsTheOnlyAtSign) {
  EXPECT_EQ(domainOf("ada@Lab.ORG"), "lab.org");
  EXPECT_EQ(domainOf("ada@"), "");
  EXPECT_EQ(domainOf("ada"), "");
  EXPECT_EQ(domainOf("ada@evil.org@lab.org"), "");
}

TEST_F(AccountServiceTest, TheFirstIsAdministratorAndItsDomainIsLetIn) {
  const Registration first = registered("ada@Lab.org");
  EXPECT_EQ(first.reason, Registration::Reason::kFirst);
  EXPECT_EQ(standing(first), "cluster_admin approved");
  EXPECT_TRUE(store_->validateSession(first.session->token));
  EXPECT_EQ(store_->getSetting("cluster_domain", ""), "lab.org");
  EXPECT_EQ(store_->getSetting("first_time_setup", ""), "false");

  EXPECT_EQ(standing(registered("bob@LAB.org")), "user approved");
  for (const char* stranger : {"eve@far.org", "eve", "eve@", "eve@far.org@lab.org"}) {
    const Registration made = registered(stranger);
    EXPECT_EQ(standing(made), "user pending") << stranger;
    EXPECT_FALSE(made.session);
    EXPECT_FALSE(made.verification_token.empty());
  }
  EXPECT_EQ(faultOf(accounts_.registerAccount(formFor("bob@LAB.org"))), AccountFault::kEmailTaken);
}

TEST_F(AccountServiceTest, AnEmptyDomainLetsNobodyIn) {
  registered("root");
  EXPECT_EQ(store_->getSetting("cluster_domain", ""), "");
  registered(organizationFor("owner", "Domainless"));
  EXPECT_EQ(standing(registered("eve@")), "user pending");
}

TEST_F(AccountServiceTest, AnOrganizationHasItsFounderAsOwnerAndLetsItsDomainIn) {
  registered("ada@lab.org");
  const Registration founder = registered(organizationFor("olga@Acme.example", "Acme"));
  EXPECT_EQ(founder.reason, Registration::Reason::kOrganization);
  EXPECT_EQ(standing(founder), "org_admin approved");
  const auto acme = store_->getOrganization(founder.user.org_id);
  ASSERT_TRUE(acme);
  EXPECT_EQ(acme->owner_user_id, founder.user.id);
  EXPECT_EQ(acme->email_domain, "acme.example");

  RegistrationForm form = formFor("max@acme.example");
  form.org_id = registered(organizationFor("kim@else.example", "Else")).user.org_id;
  const Registration member = registered(form);
  EXPECT_EQ(standing(member), "user approved");
  EXPECT_EQ(member.user.org_id, acme->id) << "the domain decides, not the wish";
  EXPECT_EQ(member.org_name, "Acme");

  form = formFor("joe@far.org");
  form.org_id = acme->id;
  EXPECT_EQ(standing(registered(form)), "user pending");
  form.email = "jim@far.org";
  form.org_id = "org_none";
  EXPECT_EQ(faultOf(accounts_.registerAccount(form)), AccountFault::kNoSuchOrganization);
}

TEST_F(AccountServiceTest, OfManyAtOnceOneIsFirstAndOneGetsTheAddress) {
  std::atomic<int> firsts{0};
  std::atomic<int> taken{0};
  std::vector<std::jthread> people;
  for (int i = 0; i < 8; ++i) {
    people.emplace_back([&, i] {
      const auto own = accounts_.registerAccount(formFor(std::to_string(i) + "@lab.org"));
      if (std::get<Registration>(own).reason == Registration::Reason::kFirst) ++firsts;
      const auto shared = accounts_.registerAccount(organizationFor("same@lab.org", "Same"));
      if (const auto* fault = std::get_if<AccountFault>(&shared)) {
        EXPECT_EQ(*fault, AccountFault::kEmailTaken);
        ++taken;
      }
    });
  }
  people.clear();
  EXPECT_EQ(firsts, 1);
  EXPECT_EQ(taken, 7);
  EXPECT_EQ(store_->listOrganizations().size(), 1U) << "the losers' organizations go";
}

TEST_F(AccountServiceTest, OnlyWhoIsAllowedInSignsIn) {
  const Registration ada = registered("ada@lab.org");
  const Registration eve = registered("eve@far.org");
  const auto refused = [&](const char* email, const char* password) {
    return faultOf(accounts_.login(email, password));
  };
  EXPECT_EQ(refused("ada@lab.org", "password2"), AccountFault::kWrongCredentials);
  EXPECT_EQ(refused("nobody@lab.org", "password1"), AccountFault::kWrongCredentials);
  EXPECT_EQ(refused("eve@far.org", "password1"), AccountFault::kPending);
  store_->rejectUser(eve.user.id, "admin");
  EXPECT_EQ(refused("eve@far.org", "password1"), AccountFault::kRejected);

  const auto outcome = accounts_.login("ada@lab.org", "password1");
  const auto& login = std::get<Login>(outcome);
  EXPECT_NE(login.session.token, ada.session->token);
  EXPECT_EQ(store_->findById(ada.user.id)->last_login, login.session.created_at);
  EXPECT_EQ(login.session.expires_at.size(), 20U);
  EXPECT_GE(login.session.expires_at, crypto::futureISO8601(86390));
  EXPECT_LE(login.session.expires_at, crypto::futureISO8601(86400));

  store_->deleteUser(ada.user.id);
  EXPECT_EQ(refused("ada@lab.org", "password1"), AccountFault::kDeactivated);
}

TEST_F(AccountServiceTest, APasswordStaysWhenItsSessionsCannotBeEnded) {
  const Registration ada = registered("ada@lab.org");
  store::Database other("");
  ASSERT_TRUE(other.open(path_));
  ASSERT_TRUE(
      other.exec("CREATE TRIGGER refuse BEFORE DELETE ON sessions "
                 "BEGIN SELECT RAISE(ABORT, 'no'); END"));
  EXPECT_EQ(faultOf(accounts_.changePassword(ada.user.id, "password1", "password2")),
            AccountFault::kNotStored);
  EXPECT_EQ(store_->findById(ada.user.id)->password_hash, ada.user.password_hash);
}

TEST_F(AccountServiceTest, OfManyWhoHoldAResetTokenOneCanUseIt) {
  const Registration ada = registered("ada@lab.org");
  store_->storeToken("token", ada.user.id, "reset_password", 60);
  std::atomic<int> resets{0};
  std::vector<std::jthread> holders;
  for (int i = 0; i < 4; ++i) {
    holders.emplace_back([&] {
      const auto outcome = accounts_.resetPassword("token", "password2");
      resets += std::holds_alternative<User>(outcome) ? 1 : 0;
    });
  }
  holders.clear();
  EXPECT_EQ(resets, 1);
  EXPECT_FALSE(store_->validateSession(ada.session->token));
}

TEST_F(AccountServiceTest, NoSessionOpenedWithTheOldPasswordSurvivesItsChange) {
  const Registration ada = registered("ada@lab.org");
  const std::string slow(8'000'000, 'x');  // takes far longer to check than to replace
  for (int round = 0; round < 5; ++round) {
    const auto reset = [&](const std::string& password) {
      store_->storeToken("token", ada.user.id, "reset_password", 60);
      return std::holds_alternative<User>(accounts_.resetPassword("token", password));
    };
    ASSERT_TRUE(reset(slow));
    std::string token;
    std::atomic<bool> begun{false};
    {
      const std::jthread intruder([&] {
        begun = true;
        begun.notify_one();
        const auto outcome = accounts_.login("ada@lab.org", slow);
        if (const auto* login = std::get_if<Login>(&outcome)) token = login->session.token;
      });
      begun.wait(false);
      ASSERT_TRUE(reset("password2"));
    }
    EXPECT_FALSE(store_->validateSession(token)) << "round " << round;
  }
}

TEST_F(AccountServiceTest, AnUnknownAddressTakesAsLongAsAWrongPassword) {
  registered("ada@lab.org");
  const std::string password(400'000, 'x');  // makes the hash the greater part
  std::vector<double> known;
  std::vector<double> unknown;
  for (int i = 0; i < 25; ++i) {
    auto start = platform::steadyNow();
    accounts_.login("ada@lab.org", password);
    known.push_back(platform::millisecondsSince(start));
    start = platform::steadyNow();
    accounts_.login("bob@lab.org", password);
    unknown.push_back(platform::millisecondsSince(start));
  }
  const double fastest_known = *std::min_element(known.begin(), known.end());
  const double fastest_unknown = *std::min_element(unknown.begin(), unknown.end());
  EXPECT_GT(fastest_unknown, fastest_known / 2);
  EXPECT_LT(fastest_unknown, fastest_known * 2);
}

TEST_F(AccountServiceTest, AStoreThatFailsIsReportedNotSurvivedByHalf) {
  registered("ada@lab.org");
  store_->shutdown();
  EXPECT_EQ(faultOf(accounts_.registerAccount(formFor("bob@lab.org"))),
            AccountFault::kUserNotCreated);
  EXPECT_EQ(faultOf(accounts_.registerAccount(organizationFor("o@lab.org", "O"))),
            AccountFault::kOrganizationNotCreated);
  EXPECT_EQ(faultOf(accounts_.login("ada@lab.org", "password1")), AccountFault::kWrongCredentials);
  EXPECT_EQ(faultOf(accounts_.resetPassword("token", "password2")), AccountFault::kBadToken);
}

}  // namespace
}  // namespace tavrel::identity
