#include <map>

#include "routes/account_routes_fixture.h"

namespace tavrel::controller {
namespace {

using identity::User;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class UserRoutesTest : public AccountRoutesTest {
 protected:
  UserRoutesTest() {
    addUser("root", "cluster_admin");
    addUser("manager", "org_admin");
    addUser("reader", "viewer");
  }

  User stored(const std::string& name) { return store_->findById("usr_" + name).value(); }

  void expectUnchanged(const User& before) {
    const User now = store_->findById(before.id).value();
    EXPECT_EQ(now.toJson(true), before.toJson(true));
    EXPECT_EQ(now.password_hash, before.password_hash);
    EXPECT_TRUE(isSignedIn(before.name));
  }
};

TEST_F(UserRoutesTest, AnAdministratorMakesAnAccountThatCanSignIn) {
  addOrganization("acme");
  const auto made =
      send("manager", "POST", "/api/v1/users", json::parse(R"({"email": "new@example.org",
                             "password": "long enough", "name": "New", "org_id": "org_acme"})"));
  ASSERT_EQ(made.status, 201) << made.body;
  const User user = store_->findByEmail("new@example.org").value();
  EXPECT_EQ(made.json, user.toJson());
  EXPECT_EQ(user.role, "viewer");
  EXPECT_EQ(user.org_id, "org_acme");
  EXPECT_EQ(user.approval_status, "approved");
  EXPECT_TRUE(identity::crypto::verifyPassword("long enough", user.salt, user.password_hash));
  EXPECT_TRUE(user.api_key.starts_with("tk_"));
  EXPECT_THAT(made.body, Not(HasSubstr(user.password_hash)));
  EXPECT_THAT(made.body, Not(HasSubstr(user.api_key)));

  const json listed = send("reader", "GET", "/api/v1/users").json;
  EXPECT_EQ(listed.at("error"), "Admin role required");
  const json users = send("manager", "GET", "/api/v1/users").json;
  EXPECT_EQ(users.at("count"), 4);
  std::map<std::string, std::string> organizations;
  for (const json& one : users.at("users")) organizations[one.at("email")] = one.at("org_name");
  EXPECT_EQ(organizations["new@example.org"], "acme");
  EXPECT_EQ(organizations["root@example.org"], "");
}

TEST_F(UserRoutesTest, AnAccountMayComeWithItsOrganization) {
  const auto made = send("root", "POST", "/api/v1/users",
                         json::parse(R"({"email": "owner@acme.org", "password": "long enough",
                             "role": "cluster_admin", "registration_type": "organization",
                             "org_name": "Acme & Sons"})"));
  ASSERT_EQ(made.status, 201) << made.body;
  EXPECT_EQ(made.json.at("role"), "org_admin");
  const auto organization = store_->getOrganization(made.json.at("org_id"));
  ASSERT_TRUE(organization);
  EXPECT_EQ(organization->owner_user_id, made.json.at("id"));
  EXPECT_EQ(organization->slug, "acme-sons");
  EXPECT_EQ(organization->email_domain, "");
}

TEST_F(UserRoutesTest, RefusalsOfANewAccountNameTheReason) {
  const auto refused = [&](const json& body) {
    return refusal(send("manager", "POST", "/api/v1/users", body));
  };
  json body = {{"email", "a@b.c"}};
  EXPECT_EQ(refused(body), "400 email and password are required");
  body["password"] = "s\u00e9ven77";
  EXPECT_EQ(refused(body), "400 Password must be at least 8 characters");
  body["password"] = "12345678";
  body["registration_type"] = "robot";
  EXPECT_EQ(refused(body),
            "400 registration_type must be 'user', 'organization', or 'user_organization'");
  body["registration_type"] = "organization";
  EXPECT_EQ(refused(body), "400 org_name is required for organization registration");
  body["registration_type"] = "user";
  body["org_id"] = "org_none";
  EXPECT_EQ(refused(body), "404 Organization not found");
  addOrganization("closed");
  ASSERT_TRUE(store_->deleteOrganization("org_closed"));
  body["org_id"] = "org_closed";
  EXPECT_EQ(refused(body), "404 Organization not found");
  body["email"] = "a@b.c\r\nBcc: all@example.org";
  EXPECT_EQ(refused(body), "400 Invalid email address");
  body["email"] = "reader@example.org";
  EXPECT_EQ(refused(body), "409 Email already registered");
  EXPECT_EQ(store_->listUsers().size(), 3U);
  EXPECT_TRUE(store_->listOrganizations().empty());
}

TEST_F(UserRoutesTest, AChangedUserSignsInAgain) {
  const auto changed =
      send("manager", "PUT", "/api/v1/users/usr_reader",
           json{{"role", "user"}, {"email_verified", true}, {"password", "the new one"}});
  ASSERT_EQ(changed.status, 200) << changed.body;
  const User user = stored("reader");
  EXPECT_EQ(changed.json, user.toJson());
  EXPECT_EQ(user.role, "user");
  EXPECT_EQ(user.name, "reader");
  EXPECT_TRUE(user.email_verified);
  EXPECT_TRUE(identity::crypto::verifyPassword("the new one", user.salt, user.password_hash));
  EXPECT_FALSE(isSignedIn("reader"));

  EXPECT_EQ(refusal(send("root", "PUT", "/api/v1/users/usr_none", "{")), "404 User not found");
  EXPECT_EQ(refusal(send("root", "PUT", "/api/v1/users/usr_reader", "{")), "400 Invalid JSON body");
  EXPECT_EQ(refusal(send("root", "PUT", "/api/v1/users/usr_reader", R"({"password": "short"})")),
            "400 Password must be at least 8 characters");
}

TEST_F(UserRoutesTest, OnlyAClusterAdministratorHandsOutPower) {
  addOrganization("acme");
  const User reader = stored("reader");
  const User manager = stored("manager");
  for (const std::string role : {"cluster_admin", "admin"}) {
    const json body = {
        {"role", role}, {"email", "reader@example.org"}, {"password", "long enough"}};
    json fresh = body;
    fresh["email"] = "fresh@example.org";
    EXPECT_EQ(refusal(send("manager", "POST", "/api/v1/users", fresh)),
              "403 Cluster admin role required");
    EXPECT_FALSE(store_->findByEmail("fresh@example.org"));
    EXPECT_EQ(refusal(send("manager", "PUT", "/api/v1/users/usr_reader", body)),
              "403 Cluster admin role required");
    EXPECT_EQ(refusal(send("manager", "PUT", "/api/v1/users/usr_manager", body)),
              "403 Cluster admin role required");
    EXPECT_EQ(refusal(send("manager", "POST", "/api/v1/orgs/org_acme/invite", body)),
              "403 Cluster admin role required");
  }
  expectUnchanged(reader);
  expectUnchanged(manager);

  ASSERT_EQ(send("root", "PUT", "/api/v1/users/usr_reader", R"({"role": "cluster_admin"})").status,
            200);
  EXPECT_EQ(stored("reader").role, "cluster_admin");
}

TEST_F(UserRoutesTest, OnlyAClusterAdministratorTouchesOne) {
  addOrganization("acme");
  addUser("legacy", "admin", "org_acme");
  addUser("chief", "cluster_admin", "org_acme");
  for (const std::string name : {"legacy", "chief"}) {
    const User before = stored(name);
    const std::string id = before.id;
    for (const json& body : {json{{"active", false}}, json{{"password", "taken over"}},
                             json{{"role", "viewer"}}, json{{"name", "x"}}, json::object()}) {
      EXPECT_EQ(refusal(send("manager", "PUT", "/api/v1/users/" + id, body)),
                "403 Cluster admin role required");
    }
    EXPECT_EQ(refusal(send("manager", "DELETE", "/api/v1/users/" + id)),
              "403 Cluster admin role required");
    EXPECT_EQ(refusal(send("manager", "POST", "/api/v1/orgs/org_acme/invite",
                           json{{"email", before.email}})),
              "403 Cluster admin role required");
    EXPECT_EQ(refusal(send("manager", "POST", "/api/v1/orgs/org_acme/remove/" + id)),
              "403 Cluster admin role required");
    EXPECT_EQ(refusal(send("manager", "PUT", "/api/v1/orgs/org_acme/users/" + id + "/role",
                           R"({"role": "viewer"})")),
              "403 Cluster admin role required");
    expectUnchanged(before);
    EXPECT_EQ(send("root", "POST", "/api/v1/orgs/org_acme/remove/" + id).status, 200);
    EXPECT_EQ(stored(name).org_id, "");
  }
}

TEST_F(UserRoutesTest, WhoHasNoRoleGetsNothing) {
  addOrganization("acme");
  addUser("member", "user", "org_acme");
  const User before = stored("member");
  const json body = {{"role", "org_admin"}, {"email", "reader@example.org"}};
  for (const std::string caller : {"reader", "member", ""}) {
    for (const auto& [method, path] : std::multimap<std::string, std::string>{
             {"GET", "/api/v1/users"},
             {"POST", "/api/v1/users"},
             {"PUT", "/api/v1/users/usr_member"},
             {"GET", "/api/v1/admin/dashboard"},
             {"POST", "/api/v1/orgs/org_acme/invite"},
             {"POST", "/api/v1/orgs/org_acme/remove/usr_member"},
             {"PUT", "/api/v1/orgs/org_acme/users/usr_member/role"},
             {"PUT", "/api/v1/quotas/usr_member"}}) {
      EXPECT_EQ(refusal(send(caller, method, path, body)), "403 Admin role required") << path;
    }
  }
  for (const std::string caller : {"manager", "reader", ""}) {
    for (const auto& [method, path] :
         std::multimap<std::string, std::string>{{"DELETE", "/api/v1/users/usr_member"},
                                                 {"GET", "/api/v1/auth/pending"},
                                                 {"POST", "/api/v1/auth/approve/usr_member"},
                                                 {"POST", "/api/v1/auth/reject/usr_member"},
                                                 {"DELETE", "/api/v1/orgs/org_acme"}}) {
      EXPECT_EQ(refusal(send(caller, method, path)), "403 Cluster admin role required") << path;
    }
  }
  expectUnchanged(before);
  EXPECT_TRUE(store_->getOrganization("org_acme")->active);
}

TEST_F(UserRoutesTest, APowerThatWasTakenAwayIsGoneAtOnce) {
  addUser("former", "org_admin");
  ASSERT_TRUE(store_->changeUser("usr_former", [](User& user) { user.role = "viewer"; }));
  EXPECT_EQ(send("former", "GET", "/api/v1/users").status, 403);
  EXPECT_EQ(send("root", "DELETE", "/api/v1/users/usr_former").json,
            json({{"status", "deleted"}, {"user_id", "usr_former"}}));
  EXPECT_FALSE(isSignedIn("former"));
  EXPECT_FALSE(stored("former").active);
  EXPECT_EQ(refusal(send("root", "DELETE", "/api/v1/users/usr_none")), "404 User not found");
}

TEST_F(UserRoutesTest, RegistrationsAreDecided) {
  addUser("good");
  addUser("bad");
  for (const char* id : {"usr_good", "usr_bad"}) {
    ASSERT_TRUE(store_->changeUser(id, [](User& user) { user.approval_status = "pending"; }));
  }
  EXPECT_EQ(send("root", "GET", "/api/v1/auth/pending").json.at("count"), 2);
  const json overview = send("manager", "GET", "/api/v1/admin/dashboard").json;
  EXPECT_EQ(overview.at("pending_approvals"), 2);
  EXPECT_EQ(overview.at("pending").size(), 2U);
  EXPECT_EQ(overview.at("total_users"), overview.at("users").size());
  EXPECT_EQ(overview.at("total_orgs"), 0);
  EXPECT_EQ(overview.at("organizations"), json::array());

  EXPECT_EQ(send("root", "POST", "/api/v1/auth/approve/usr_good").json,
            json({{"status", "approved"}, {"user_id", "usr_good"}}));
  EXPECT_EQ(send("root", "POST", "/api/v1/auth/reject/usr_bad").json,
            json({{"status", "rejected"}, {"user_id", "usr_bad"}}));
  EXPECT_EQ(stored("good").approval_status, "approved");
  EXPECT_EQ(stored("good").approved_by, "admin");
  EXPECT_EQ(stored("bad").approved_by, "admin");
  EXPECT_TRUE(isSignedIn("good"));
  EXPECT_FALSE(isSignedIn("bad"));
  for (const char* path : {"/api/v1/auth/approve/usr_none", "/api/v1/auth/reject/usr_none"}) {
    EXPECT_EQ(refusal(send("root", "POST", path)), "404 User not found");
  }
}

class WithoutAccountsTest : public AccountRoutesTest {
 protected:
  explicit WithoutAccountsTest(const std::string& mode = "admin") : AccountRoutesTest(mode) {}
};

TEST_F(WithoutAccountsTest, TheUsersAreTheKeys) {
  const httplib::Headers key = {{"X-API-Key", "root-key-0123456789"}};
  EXPECT_EQ(server_.send(key, "GET", "/api/v1/users").json,
            json::parse(R"({"count": 1, "users": [{"name": "Admin Key", "type": "admin",
                "roles": ["admin", "operator", "viewer"], "key_prefix": "root-key-012..."}]})"));
  EXPECT_EQ(send("", "GET", "/api/v1/users").status, 403);
  for (const auto& [method, path] : std::map<std::string, std::string>{
           {"POST", "/api/v1/users"}, {"PUT", "/api/v1/users/usr_x"}}) {
    EXPECT_EQ(refusal(server_.send(key, method, path, "{}")),
              "403 User management requires --auth-mode full");
  }
}

TEST_F(WithoutAccountsTest, EverythingElseNeedsTheStore) {
  for (const api::Route& route : book_.routes()) {
    const bool own_answer = route.pattern.starts_with("/api/v1/users") && route.method != "DELETE";
    if (own_answer) continue;
    EXPECT_EQ(refusal(send("", route.method, route.pattern)), "503 User store not initialized")
        << route.pattern;
  }
}

class OpenModeTest : public WithoutAccountsTest {
 protected:
  OpenModeTest() : WithoutAccountsTest("none") {}
};

TEST_F(OpenModeTest, EverybodyIsAnAdministrator) {
  EXPECT_EQ(send("", "GET", "/api/v1/users").status, 200);
}

}  // namespace
}  // namespace tavrel::controller
