#include "routes/account_routes_fixture.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;

class OrganizationRoutesTest : public AccountRoutesTest {
 protected:
  OrganizationRoutesTest() {
    addUser("root", "cluster_admin");
    addUser("manager", "org_admin");
    addUser("ann");
  }
};

TEST_F(OrganizationRoutesTest, AnybodyMakesReadsAndChangesOne) {
  const auto made =
      send("", "POST", "/api/v1/orgs", json::parse(R"({"name": "Acme", "max_users": 1e300,
                             "settings": {"theme": "dark"}, "email_domain": "example.org",
                             "owner_user_id": "usr_root"})"));
  ASSERT_EQ(made.status, 201) << made.body;
  const std::string id = made.json.at("id");
  EXPECT_EQ(id.size(), 16U);
  EXPECT_EQ(made.json, store_->getOrganization(id)->toJson());
  EXPECT_EQ(made.json.at("slug"), "acme");
  EXPECT_EQ(made.json.at("max_users"), 2147483647);
  EXPECT_EQ(made.json.at("settings"), R"({"theme":"dark"})");
  EXPECT_EQ(made.json.at("plan"), "free");
  EXPECT_EQ(made.json.at("email_domain"), "");
  EXPECT_EQ(made.json.at("owner_user_id"), "");
  EXPECT_EQ(send("", "POST", "/api/v1/orgs", R"({"name": "Acme"})").status, 201);

  json wanted = made.json;  // what was read can be sent back
  wanted.erase("email_domain");
  wanted["description"] = "Anvils";
  wanted["owner_user_id"] = "usr_ann";
  wanted["slug"] = "other";
  const json changed = send("", "PUT", "/api/v1/orgs/" + id, wanted).json;
  EXPECT_EQ(changed.at("description"), "Anvils");
  EXPECT_EQ(changed.at("settings"), R"({"theme":"dark"})");
  EXPECT_EQ(changed.at("owner_user_id"), "");
  EXPECT_EQ(changed.at("slug"), "acme");
  EXPECT_EQ(send("", "GET", "/api/v1/orgs/" + id).json, changed);

  EXPECT_EQ(send("", "GET", "/api/v1/orgs").json.at("count"), 2);
  EXPECT_EQ(send("root", "DELETE", "/api/v1/orgs/" + id).json,
            json({{"status", "deleted"}, {"org_id", id}}));
  EXPECT_EQ(send("", "GET", "/api/v1/orgs").json.at("count"), 1);
}

TEST_F(OrganizationRoutesTest, WhoMakesOneWhileSignedInBelongsToIt) {
  const json made = send("ann", "POST", "/api/v1/orgs", R"({"name": "Acme"})").json;
  const auto session = store_->validateSession("ts_ann");
  EXPECT_EQ(session->org_id, made.at("id"));
  EXPECT_EQ(session->role, "user");
  EXPECT_EQ(store_->findById("usr_ann")->org_id, made.at("id"));
}

TEST_F(OrganizationRoutesTest, WhoeverSetsTheDomainAdmitsStrangers) {
  addOrganization("acme");
  const json body = {{"email_domain", "Evil.Example"}, {"name", "x"}};
  for (const std::string caller : {"", "ann"}) {
    EXPECT_EQ(refusal(send(caller, "PUT", "/api/v1/orgs/org_acme", body)),
              "403 Admin role required");
  }
  EXPECT_FALSE(store_->findOrganizationByDomain("evil.example"));
  EXPECT_EQ(store_->getOrganization("org_acme")->name, "acme");
  EXPECT_EQ(send("manager", "PUT", "/api/v1/orgs/org_acme", body).json.at("email_domain"),
            "evil.example");
}

TEST_F(OrganizationRoutesTest, RefusalsNameWhatIsMissing) {
  addOrganization("acme");
  EXPECT_EQ(refusal(send("", "POST", "/api/v1/orgs", "{}")), "400 name is required");
  EXPECT_EQ(refusal(send("", "POST", "/api/v1/orgs", R"({"name": "x", "slug": "acme"})")),
            "500 Failed to create organization");
  EXPECT_EQ(refusal(send("", "GET", "/api/v1/orgs/org_x")), "404 Organization not found");
  EXPECT_EQ(refusal(send("", "PUT", "/api/v1/orgs/org_x", "{")), "404 Organization not found");
  for (const char* body : {"{", R"({"settings": "dark"})", R"({"settings": "[]"})"}) {
    EXPECT_EQ(refusal(send("", "PUT", "/api/v1/orgs/org_acme", body)), "400 Invalid JSON body");
  }
  EXPECT_EQ(refusal(send("", "GET", "/api/v1/orgs/org_x/usage")), "404 Organization not found");
  EXPECT_EQ(refusal(send("root", "DELETE", "/api/v1/orgs/org_x")), "404 Organization not found");

  const auto asManager = [&](const char* method, const char* path, const char* body) {
    return refusal(send("manager", method, path, body));
  };
  const char* invite = "/api/v1/orgs/org_acme/invite";
  EXPECT_EQ(asManager("POST", invite, ""), "400 JSON body required");
  EXPECT_EQ(asManager("POST", "/api/v1/orgs/org_x/invite", "{}"), "404 Organization not found");
  EXPECT_EQ(asManager("POST", invite, "{}"), "400 Email required");
  addOrganization("closed");
  ASSERT_TRUE(store_->deleteOrganization("org_closed"));
  EXPECT_EQ(asManager("POST", "/api/v1/orgs/org_closed/invite", R"({"email": "ann@example.org"})"),
            "404 Organization not found");
  EXPECT_EQ(asManager("POST", invite, R"({"email": "nobody"})"),
            "404 User not found with that email");
  const char* role = "/api/v1/orgs/org_acme/users/usr_ann/role";
  EXPECT_EQ(asManager("PUT", role, ""), "400 JSON body required");
  EXPECT_EQ(asManager("PUT", role, "{}"), "400 Role required");
  EXPECT_EQ(asManager("PUT", role, R"({"role": "user"})"), "404 User not in this organization");
  EXPECT_EQ(asManager("POST", "/api/v1/orgs/org_acme/remove/usr_ann", ""),
            "404 User not in this organization");
  EXPECT_EQ(asManager("POST", "/api/v1/orgs/org_acme/remove/usr_none", ""),
            "404 User not in this organization");
}

TEST_F(OrganizationRoutesTest, MembershipFollowsIntoOpenSessions) {
  addOrganization("acme");
  addOrganization("other");
  const auto session = [&] { return store_->validateSession("ts_ann").value(); };
  EXPECT_EQ(
      send("manager", "POST", "/api/v1/orgs/org_acme/invite", R"({"email": "ann@example.org"})")
          .json,
      json::parse(R"({"status": "invited", "user_id": "usr_ann", "org_id": "org_acme",
          "role": "viewer"})"));
  EXPECT_EQ(session().org_id, "org_acme");
  EXPECT_EQ(session().role, "viewer");

  EXPECT_EQ(
      send("manager", "PUT", "/api/v1/orgs/org_acme/users/usr_ann/role", R"({"role": "org_admin"})")
          .json,
      json({{"status", "updated"}, {"user_id", "usr_ann"}, {"role", "org_admin"}}));
  EXPECT_EQ(session().role, "org_admin");

  EXPECT_EQ(refusal(send("manager", "POST", "/api/v1/orgs/org_other/remove/usr_ann")),
            "404 User not in this organization");
  EXPECT_EQ(send("manager", "POST", "/api/v1/orgs/org_acme/remove/usr_ann").json,
            json({{"status", "removed"}, {"user_id", "usr_ann"}, {"org_id", "org_acme"}}));
  EXPECT_EQ(session().org_id, "");
}

TEST_F(OrganizationRoutesTest, UsageTellsMembersAndQuotas) {
  addOrganization("acme");
  addUser("bob", "viewer", "org_acme");
  addUser("gone", "viewer", "org_acme");
  ASSERT_TRUE(store_->deleteUser("usr_gone"));
  identity::ResourceQuota quota;
  quota.target_type = "user";
  quota.target_id = "usr_bob";
  quota.metric = "calls";
  ASSERT_TRUE(store_->setQuota(quota));
  quota.target_type = "org";
  quota.target_id = "org_acme";
  quota.metric = "bytes";
  ASSERT_TRUE(store_->setQuota(quota));

  const auto members = send("", "GET", "/api/v1/orgs/org_acme/users");
  EXPECT_EQ(members.json, json({{"users", {store_->findById("usr_bob")->toJson()}},
                                {"count", 1},
                                {"org_id", "org_acme"}}));
  const json usage = send("", "GET", "/api/v1/orgs/org_acme/usage").json;
  EXPECT_EQ(usage.at("org").at("max_users"), 10);
  EXPECT_EQ(usage.at("user_count"), 1);
  EXPECT_EQ(usage.at("users"), json::array({{{"user_id", "usr_bob"},
                                             {"email", "bob@example.org"},
                                             {"name", "bob"},
                                             {"role", "viewer"}}}));
  EXPECT_EQ(usage.at("quotas").at("user").at("usr_bob")[0].at("metric"), "calls");
  EXPECT_EQ(usage.at("org_quotas")[0].at("metric"), "bytes");
}

}  // namespace
}  // namespace tavrel::controller
