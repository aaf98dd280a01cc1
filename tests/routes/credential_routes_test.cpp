#include "routes/account_routes_fixture.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kCredentials = "/api/v1/credentials";

class CredentialRoutesTest : public AccountRoutesTest {
 protected:
  CredentialRoutesTest() {
    addUser("ann", "user", "org_acme");
    addUser("amy", "user", "org_acme");
    addUser("loner");
    addUser("hermit");
    addUser("manager", "org_admin");
    addUser("root", "cluster_admin");
    addUser("legacy", "admin");
  }

  std::string store(const std::string& caller, const json& more) {
    json body = {{"name", "n"}, {"service", "s"}};
    body.update(more);
    const auto made = send(caller, "POST", kCredentials, body);
    EXPECT_EQ(made.status, 201) << made.body;
    EXPECT_THAT(made.body, Not(HasSubstr("secret")));
    return made.json.value("id", "");
  }
  std::size_t listed(const std::string& caller) {
    const auto list = send(caller, "GET", kCredentials);
    EXPECT_THAT(list.body, Not(HasSubstr("secret")));
    return list.json.at("count");
  }
};

TEST_F(CredentialRoutesTest, ACredentialIsSeenByItsOwnerAndSharedByItsOrganization) {
  const std::string own =
      store("ann", {{"credential_data", {{"token", "secret"}}}, {"shared", true}});
  store("ann", {{"owner_type", "org"}, {"credential_data", "secret"}, {"shared", true}});
  store("ann", {{"owner_type", "org"}, {"credential_data", "secret"}});
  EXPECT_EQ(listed("ann"), 2U);
  EXPECT_EQ(listed("amy"), 1U);
  EXPECT_EQ(listed("loner"), 0U);
  EXPECT_EQ(listed("root"), 0U);
  EXPECT_EQ(store_->getCredential(own)->credential_data, R"({"token":"secret"})");
  EXPECT_TRUE(own.starts_with("cred_"));
}

TEST_F(CredentialRoutesTest, WhoHasNoOrganizationSharesWithNobody) {
  EXPECT_EQ(refusal(send("loner", "POST", kCredentials,
                         R"({"name": "n", "service": "s", "owner_type": "org", "shared": true})")),
            "400 No organization");
  identity::Credential ownerless;
  ownerless.id = "cred_old";
  ownerless.owner_type = "org";
  ownerless.shared = true;
  ASSERT_TRUE(store_->createCredential(ownerless));
  EXPECT_EQ(listed("hermit"), 0U);
  for (const char* body : {"{}", R"({"name": "n"})", R"({"service": "s", "name": ""})"}) {
    EXPECT_EQ(refusal(send("loner", "POST", kCredentials, body)),
              "400 name and service are required");
  }
  EXPECT_EQ(send("loner", "POST", kCredentials,
                 R"({"name": "n", "service": "s", "owner_type": "cluster"})")
                .status,
            400);
}

TEST_F(CredentialRoutesTest, OnlyItsCreatorOrALegacyAdministratorDeletesOne) {
  const std::string path = std::string(kCredentials) + "/" + store("ann", {{"owner_type", "org"}});
  for (const std::string caller : {"amy", "loner", "manager", "root"}) {
    EXPECT_EQ(refusal(send(caller, "DELETE", path)), "403 Access denied");
  }
  EXPECT_EQ(send("legacy", "DELETE", path).json.at("status"), "deleted");
  EXPECT_EQ(refusal(send("ann", "DELETE", path)), "404 Credential not found");
  const std::string own = store("ann", json::object());
  EXPECT_EQ(send("ann", "DELETE", std::string(kCredentials) + "/" + own).json,
            json({{"status", "deleted"}, {"credential_id", own}}));
}

TEST_F(CredentialRoutesTest, QuotasAreSetByAdministratorsAndReadByTheirUser) {
  const char* anns = "/api/v1/quotas/usr_ann";
  EXPECT_EQ(send("manager", "PUT", anns, R"({"metric": "calls", "limit_value": 5})").json,
            json({{"status", "quota_set"}, {"user_id", "usr_ann"}, {"metric", "calls"}}));
  send("manager", "PUT", anns,
       R"({"metric": "bytes", "limit_value": 1e30, "reset_interval": "never"})");
  const json quotas = send("ann", "GET", anns).json.at("quotas");
  ASSERT_EQ(quotas.size(), 2U);
  EXPECT_EQ(quotas[0].at("limit_value"), 5);
  EXPECT_EQ(quotas[0].at("reset_interval"), "daily");
  EXPECT_EQ(quotas[1].at("limit_value"), INT64_MAX);
  EXPECT_EQ(send("root", "GET", anns).json.at("quotas"), quotas);
  EXPECT_EQ(refusal(send("amy", "GET", anns)), "403 Access denied");
  EXPECT_EQ(refusal(send("manager", "PUT", anns, "{}")), "400 metric is required");
}

}  // namespace
}  // namespace tavrel::controller
