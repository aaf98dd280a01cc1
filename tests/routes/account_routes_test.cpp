#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "routes/account_server.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using testing::HasSubstr;

const std::string kAuthPath = "/api/v1/auth/";

class OwnAccountRoutesTest : public testing::Test {
 protected:
  AccountServer server_;
};

TEST_F(OwnAccountRoutesTest, TheFirstAccountEndsTheSetup) {
  EXPECT_EQ(server_.get(kAuthPath + "setup-status").body, R"({"first_time_setup":true})");
  const AccountReply made = server_.registerUser("ada@lab.org");
  EXPECT_EQ(made.status, 201);
  EXPECT_EQ(made.json["message"], "Cluster administrator account created.");
  EXPECT_EQ(made.json["role"], "cluster_admin");
  for (const char* member : {"user_id", "token", "api_key", "verify_token"}) {
    EXPECT_FALSE(made.json.value(member, "").empty()) << member;
  }
  EXPECT_FALSE(made.json.contains("org_id"));
  EXPECT_EQ(server_.get(kAuthPath + "setup-status").body, R"({"first_time_setup":false})");

  const AccountReply second = server_.registerUser("bob@lab.org");
  EXPECT_EQ(second.json["message"], "Account created and approved.");
  const AccountReply stranger = server_.registerUser("eve@far.org");
  EXPECT_EQ(stranger.json["message"], "Account created. Awaiting admin approval.");
  EXPECT_EQ(stranger.json["approval_status"], "pending");
  EXPECT_FALSE(stranger.json.contains("token"));
  EXPECT_FALSE(stranger.json.contains("api_key"));
  EXPECT_TRUE(stranger.json.contains("verify_token"));
  const AccountReply founder =
      server_.post(kAuthPath + "register", json::parse(R"({"email": "olga@acme.org",
          "password": "password1", "registration_type": "user_organization",
          "org_name": "Acme"})"));
  EXPECT_EQ(founder.json["message"], "Organization and administrator account created.");
  EXPECT_EQ(founder.json["registration_type"], "user_organization");
  EXPECT_EQ(founder.json["org_name"], "Acme");
  EXPECT_TRUE(founder.json.contains("org_id"));
}

TEST_F(OwnAccountRoutesTest, RefusalsNameWhatIsMissing) {
  server_.registerUser("ada@lab.org");
  struct Case {
    const char* path;
    json body;
    const char* refusal;
  };
  const std::string token = server_.login("ada@lab.org").json["token"];
  const json registration = {{"email", "x@y.org"}, {"password", "password1"}};
  const auto with = [&](const char* name, const json& value) {
    json body = registration;
    body[name] = value;
    return body;
  };
  const std::vector<Case> cases = {
      {"register", json::array(), "400 Invalid JSON body"},
      {"register", {{"email", "x@y.org"}}, "400 email and password are required"},
      {"register", with("password", "s\u00e9ven77"), "400 Password must be at least 8 characters"},
      {"register", with("registration_type", "root"),
       "400 registration_type must be 'user', 'organization', or 'user_organization'"},
      {"register", with("registration_type", "organization"),
       "400 org_name is required for organization registration"},
      {"register", with("email", "ada@lab.org"), "409 Email already registered"},
      {"register", with("org_id", "org_none"), "404 Organization not found"},
      {"login", 5, "400 Invalid JSON body"},
      {"login", {{"email", "ada@lab.org"}}, "400 email and password are required"},
      {"login", {{"email", "x@y.org"}, {"password", "p"}}, "401 Invalid email or password"},
      {"login", {{"email", "ada@lab.org"}, {"password", "p"}}, "401 Invalid email or password"},
      {"verify-email", json::object(), "400 token is required"},
      {"verify-email", {{"token", "t"}}, "400 Invalid or expired verification token"},
      {"forgot-password", json::object(), "400 email is required"},
      {"reset-password", {{"token", "t"}}, "400 token and new_password are required"},
      {"reset-password",
       {{"token", "t"}, {"new_password", "short"}},
       "400 Password must be at least 8 characters"},
      {"reset-password",
       {{"token", "t"}, {"new_password", "long enough"}},
       "400 Invalid or expired reset token"},
      {"change-password", json::object(), "400 old_password and new_password are required"},
      {"change-password",
       {{"old_password", "password1"}, {"new_password", "short"}},
       "400 New password must be at least 8 characters"},
      {"change-password",
       {{"old_password", "wrong"}, {"new_password", "password2"}},
       "401 Current password is incorrect"},
  };
  for (const Case& one : cases) {
    EXPECT_EQ(server_.post(kAuthPath + one.path, one.body, server_.signedIn(token)).refusal(),
              one.refusal)
        << one.path << ' ' << one.body;
  }
  EXPECT_EQ(server_.post(kAuthPath + "change-password", json::object()).refusal(),
            "401 Not authenticated");
  EXPECT_EQ(server_.get(kAuthPath + "session").refusal(), "401 Invalid or expired session");
  EXPECT_EQ(server_.get(kAuthPath + "me").status, 401);
}

TEST_F(OwnAccountRoutesTest, ASessionLastsUntilLogout) {
  server_.registerUser("ada@lab.org");
  const AccountReply login = server_.login("ada@lab.org");
  const std::string token = login.json["token"];
  EXPECT_EQ(login.header("Set-Cookie"),
            "tavrel_session=" + token + "; Path=/; HttpOnly; SameSite=Lax; Max-Age=86400");
  EXPECT_FALSE(login.json["user"].contains("api_key"));
  EXPECT_FALSE(login.json["user"]["last_login"].get<std::string>().empty());
  EXPECT_FALSE(login.json["expires_at"].get<std::string>().empty());

  const std::string bearer = "Bearer " + token;
  const std::string cookie = "theme=dark; tavrel_session=" + token + "; x=y";
  for (const httplib::Headers& headers :
       {httplib::Headers{{"X-Session-Token", token}}, httplib::Headers{{"Authorization", bearer}},
        httplib::Headers{{"Cookie", cookie}}}) {
    const AccountReply session = server_.get(kAuthPath + "session", headers);
    EXPECT_EQ(session.json["valid"], true);
    EXPECT_EQ(session.json["session"]["email"], "ada@lab.org");
    EXPECT_EQ(session.json["user"]["id"], session.json["session"]["user_id"]);
    EXPECT_EQ(server_.get(kAuthPath + "me", headers).json["email"], "ada@lab.org");
    const json info = server_.get(kAuthPath + "info", headers).json;
    EXPECT_EQ(info["user"]["role"], "cluster_admin");
    EXPECT_EQ(info["authenticated"], true);
  }
  const json by_key = server_.get(kAuthPath + "me", {{"X-API-Key", AccountServer::kAdminKey}}).json;
  EXPECT_EQ(by_key["id"], "Admin Key");

  const AccountReply logout = server_.postText(kAuthPath + "logout", "", {{"Cookie", cookie}});
  EXPECT_EQ(logout.status, 200);
  EXPECT_EQ(logout.header("Set-Cookie"), "tavrel_session=; Path=/; HttpOnly; Max-Age=0");
  EXPECT_EQ(server_.get(kAuthPath + "session", {{"Cookie", cookie}}).status, 401);
  EXPECT_EQ(server_.postText(kAuthPath + "logout", "").status, 200);
}

TEST_F(OwnAccountRoutesTest, ASessionAloneOpensWhatIsForPeople) {
  const std::string admin = server_.registerUser("ada@lab.org").json["token"];
  const json bob = server_.registerUser("bob@lab.org").json;
  const std::string token = bob["token"];
  const std::string quotas = "/api/v1/quotas/" + bob["user_id"].get<std::string>();
  for (const httplib::Headers& way :
       {server_.signedIn(token), httplib::Headers{{"Authorization", "Bearer " + token}},
        httplib::Headers{{"Cookie", "tavrel_session=" + token}}}) {
    EXPECT_EQ(server_.get("/api/v1/credentials", way).status, 200);
    EXPECT_EQ(server_.get(quotas, way).status, 200);
    EXPECT_EQ(server_.get("/api/v1/admin/dashboard", way).refusal(), "403 Admin role required");
  }
  EXPECT_EQ(server_.get("/api/v1/admin/dashboard", server_.signedIn(admin)).json["total_users"], 2);
  server_.post("/api/v1/auth/logout", json::object(), server_.signedIn(token));
  EXPECT_EQ(server_.get("/api/v1/credentials", server_.signedIn(token)).refusal(),
            "401 Authentication required. Provide X-API-Key header or Bearer token.");
  EXPECT_EQ(server_.get(quotas, {{"Authorization", "Bearer " + token}}).refusal(),
            "401 Invalid or expired token");
}

TEST_F(OwnAccountRoutesTest, AChangedPasswordSignsOutEverywhere) {
  server_.registerUser("ada@lab.org");
  const std::string one = server_.login("ada@lab.org").json["token"];
  const std::string two = server_.login("ada@lab.org").json["token"];
  const std::string bob = server_.registerUser("bob@lab.org").json["token"];
  EXPECT_EQ(server_
                .post(kAuthPath + "change-password",
                      {{"old_password", "password1"}, {"new_password", "password2"}},
                      server_.signedIn(one))
                .body,
            R"({"status":"password_changed"})");
  EXPECT_EQ(server_.get(kAuthPath + "session", server_.signedIn(one)).status, 401);
  EXPECT_EQ(server_.get(kAuthPath + "session", server_.signedIn(two)).status, 401);
  EXPECT_EQ(server_.get(kAuthPath + "session", server_.signedIn(bob)).status, 200);
  EXPECT_EQ(server_.login("ada@lab.org").status, 401);
  EXPECT_EQ(server_.login("ada@lab.org", "password2").status, 200);
}

TEST_F(OwnAccountRoutesTest, ALinkVerifiesOnceAndItsPageRunsNothingThatWasTyped) {
  server_.registerUser("ada@lab.org");
  const std::string evil = "<script>alert(1)</script>\"'&@far.org";
  const std::string path = kAuthPath + "verify-email?token=" +
                           server_.registerUser(evil).json["verify_token"].get<std::string>();
  const AccountReply page = server_.get(path);
  EXPECT_EQ(page.header("Content-Type"), "text/html");
  EXPECT_THAT(page.header("Content-Security-Policy"), HasSubstr("default-src 'none'"));
  EXPECT_THAT(page.body, HasSubstr("Your email <strong>&lt;script&gt;alert(1)&lt;/script&gt;&quot;"
                                   "&#39;&amp;@far.org</strong> has been verified."));
  EXPECT_THAT(page.body,
              HasSubstr("Your email is verified. Your account is pending admin approval."));
  EXPECT_THAT(page.body, testing::Not(HasSubstr("<script")));
  EXPECT_THAT(server_.get(path).body,
              HasSubstr("This verification link has expired or was already used."));
  EXPECT_THAT(server_.get(kAuthPath + "verify-email").body, HasSubstr("Missing Token</h1>"));
  server_.store->storeToken("orphan", "usr_gone", "verify_email", 60);
  EXPECT_THAT(server_.get(kAuthPath + "verify-email?token=orphan").body,
              HasSubstr("User Not Found"));

  const std::string token = server_.registerUser("bob@lab.org").json["verify_token"];
  EXPECT_EQ(server_.post(kAuthPath + "verify-email", {{"token", token}}).body,
            R"({"email":"bob@lab.org","status":"verified"})");
  EXPECT_TRUE(server_.store->findByEmail("bob@lab.org")->email_verified);
}

TEST_F(OwnAccountRoutesTest, AForgottenPasswordIsResetThroughThePage) {
  server_.registerUser("ada@lab.org");
  const auto forgotten = [&](const char* email) {
    testing::internal::CaptureStdout();
    const AccountReply reply = server_.post(kAuthPath + "forgot-password", {{"email", email}});
    return std::pair(testing::internal::GetCapturedStdout(), reply.body);
  };
  const std::string first = forgotten("ada@lab.org").first;
  const auto [line, answer] = forgotten("ada@lab.org");
  EXPECT_EQ(answer, R"({"status":"If the email exists, a reset link has been sent."})");
  EXPECT_EQ(forgotten("nobody@lab.org"), std::pair(std::string(), answer));
  const std::string intro = "[Auth] Password reset token for ada@lab.org: ";
  ASSERT_EQ(line.size(), intro.size() + 65);
  const std::string token = line.substr(intro.size(), 64);
  EXPECT_THAT(
      server_.get(kAuthPath + "reset-password?token=" + first.substr(intro.size(), 64)).body,
      HasSubstr("This reset link has expired or was already used."));

  const AccountReply form = server_.get(kAuthPath + "reset-password?token=" + token);
  EXPECT_THAT(form.body, HasSubstr("<title>Reset Password - Tavrel</title>"));
  EXPECT_THAT(form.body, HasSubstr("data-token=\"" + token + "\""));
  EXPECT_THAT(server_.get(kAuthPath + "reset-password").body,
              HasSubstr("No reset token provided."));
  EXPECT_EQ(
      server_.post(kAuthPath + "reset-password", {{"token", token}, {"new_password", "password2"}})
          .body,
      R"({"status":"password_reset"})");
  EXPECT_THAT(server_.get(kAuthPath + "reset-password?token=" + token).body,
              HasSubstr("This reset link has expired or was already used."));
  EXPECT_EQ(server_.login("ada@lab.org", "password2").status, 200);
}

TEST(OwnAccountRoutesWithoutAccounts, SayThatThereAreNone) {
  const AccountServer off("admin", false);
  EXPECT_EQ(off.registerUser("a@b.org").refusal(), "403 Registration requires --auth-mode full");
  EXPECT_EQ(off.login("a@b.org").refusal(), "403 Login requires --auth-mode full");
  EXPECT_EQ(off.get(kAuthPath + "setup-status").body, R"({"first_time_setup":false})");
  EXPECT_EQ(off.get(kAuthPath + "info").body, R"({"auth_mode":"admin","authenticated":false})");
  EXPECT_EQ(off.get(kAuthPath + "me", {{"X-API-Key", AccountServer::kAdminKey}}).json["type"],
            "admin");

  const AccountServer broken("full", false);
  const std::string missing = "503 User store not initialized";
  EXPECT_EQ(broken.registerUser("a@b.org").refusal(), missing);
  EXPECT_EQ(broken.login("a@b.org").refusal(), missing);
  for (const char* path : {"verify-email", "reset-password", "change-password"}) {
    EXPECT_EQ(broken.post(kAuthPath + path, json::object()).refusal(), missing) << path;
  }
  EXPECT_EQ(broken.get(kAuthPath + "verify-email?token=t").refusal(), missing);
  EXPECT_EQ(broken.get(kAuthPath + "reset-password?token=t").refusal(), missing);
  EXPECT_EQ(broken.post(kAuthPath + "forgot-password", json::object()).refusal(),
            "503 Not available");
  EXPECT_EQ(broken.get("/api/v1/settings/smtp").refusal(), missing);
  EXPECT_EQ(broken.get(kAuthPath + "session", broken.signedIn("t")).refusal(),
            "401 Invalid or expired session");
  EXPECT_EQ(broken.postText(kAuthPath + "logout", "").status, 200);
}

}  // namespace
}  // namespace tavrel::controller
