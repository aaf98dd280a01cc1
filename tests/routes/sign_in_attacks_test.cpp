#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "identity/crypto.h"
#include "routes/account_server.h"
#include "store/database.h"
#include "support/raw_client.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

const std::string kAuth = "/api/v1/auth/";

class SignInAttacks : public testing::Test {
 protected:
  SignInAttacks() { admin_token_ = server_.registerUser("ada@lab.org").json["token"]; }

  AccountServer server_;
  std::string admin_token_;
};

TEST_F(SignInAttacks, TextThatLooksLikeSqlIsText) {
  const std::string sql = "x'); DROP TABLE users; --@lab.org";
  EXPECT_EQ(server_.registerUser(sql).status, 201);
  EXPECT_EQ(server_.login(sql).json["user"]["email"], sql);
  EXPECT_EQ(server_.login("ada@lab.org' --", "x").refusal(), "401 Invalid email or password");
  for (const char* token : {"' OR ''='", "%", "_", "ts_%"}) {
    EXPECT_EQ(server_.get(kAuth + "session", server_.signedIn(token)).status, 401) << token;
    EXPECT_EQ(server_.post(kAuth + "verify-email", {{"token", token}}).status, 400) << token;
  }
  EXPECT_EQ(server_.login("ada@lab.org").status, 200);
}

TEST_F(SignInAttacks, SigningInNeverTakesOverAGivenSession) {
  const std::string planted = "ts_" + std::string(64, '0');
  const AccountReply login =
      server_.post(kAuth + "login", {{"email", "ada@lab.org"}, {"password", "password1"}},
                   {{"Cookie", "tavrel_session=" + planted}, {"X-Session-Token", planted}});
  EXPECT_NE(login.json["token"], planted);
  EXPECT_EQ(server_.get(kAuth + "session", server_.signedIn(planted)).status, 401);
}

TEST_F(SignInAttacks, ExpiredAndForeignTokensOpenNothing) {
  const auto ada = server_.store->findByEmail("ada@lab.org");
  server_.store->createSession({"ts_expired", ada->id, ada->email, ada->role, "",
                                "2026-01-01T00:00:00Z", identity::crypto::futureISO8601(-1)});
  server_.store->storeToken("late", ada->id, "reset_password", -1);
  EXPECT_EQ(server_.get(kAuth + "session", server_.signedIn("ts_expired")).status, 401);
  EXPECT_EQ(
      server_.post(kAuth + "reset-password", {{"token", "late"}, {"new_password", "password2"}})
          .refusal(),
      "400 Invalid or expired reset token");
  // Neither a session token nor a token of the other kind resets a password.
  const std::string verify = server_.registerUser("bob@lab.org").json["verify_token"];
  for (const std::string& token : {admin_token_, verify}) {
    EXPECT_EQ(
        server_.post(kAuth + "reset-password", {{"token", token}, {"new_password", "password2"}})
            .status,
        400);
  }
}

TEST_F(SignInAttacks, OddBodiesAreRefusedAndLeaveNothingBehind) {
  const std::vector<const char*> paths = {"register",        "login",          "verify-email",
                                          "forgot-password", "reset-password", "change-password"};
  const std::string deep(60'000, '[');
  const json wrong_types = {{"email", {1}},          {"password", 12345678}, {"token", true},
                            {"new_password", {}},    {"old_password", 1.5},  {"org_name", 7},
                            {"registration_type", 3}};
  for (const char* path : paths) {
    for (const std::string& body :
         {std::string("null"), std::string("[]"), std::string("\"x\""), deep,
          std::string("{\"email\":\"\xff\"}"), wrong_types.dump()}) {
      const AccountReply reply =
          server_.postText(kAuth + path, body, server_.signedIn(admin_token_));
      EXPECT_EQ(reply.status, 400) << path << ' ' << body.substr(0, 40);
    }
  }
  for (const char* member : {"email", "password", "name", "org_name", "org_description"}) {
    json body = {{"email", "x@lab.org"},
                 {"password", "password1"},
                 {"registration_type", "organization"},
                 {"org_name", "X"}};
    body[member] = std::string(5000, 'x');
    EXPECT_EQ(server_.post(kAuth + "register", body).refusal(),
              "400 " + std::string(member) + " is too long");
  }
  for (const std::string& email :
       {std::string("a@lab.org\r\nBcc: eve@far.org"), std::string("a\n@lab.org"),
        std::string("a\0@lab.org", 10), std::string("\x1b[2J@lab.org")}) {
    EXPECT_EQ(server_.registerUser(email).refusal(), "400 Invalid email address");
  }
  EXPECT_EQ(server_.store->listUsers().size(), 1U);
  EXPECT_TRUE(server_.store->listOrganizations().empty());
}

TEST_F(SignInAttacks, LongBodiesAreRefusedWhileTheyArrive) {
  for (const char* path : {"register", "login", "verify-email", "forgot-password", "reset-password",
                           "change-password", "logout"}) {
    const std::string head = "POST " + kAuth + path + " HTTP/1.1\r\nHost: c\r\n";
    const test::RawClient announcing(server_.port());
    announcing.send(head + "Content-Length: 100000000\r\n\r\n" + std::string(0x40000, ' '));
    EXPECT_THAT(announcing.readAll(), HasSubstr("HTTP/1.1 413")) << path;
    const test::RawClient chunking(server_.port());
    chunking.send(head + "Transfer-Encoding: chunked\r\n\r\n10001\r\n" + std::string(0x10001, ' '));
    EXPECT_THAT(chunking.readAll(), HasSubstr("HTTP/1.1 413")) << path;
  }
  const std::string longest(4096, 'x');
  EXPECT_EQ(server_
                .post(kAuth + "register", {{"email", "eve@lab.org"},
                                           {"password", longest},
                                           {"name", longest},
                                           {"registration_type", "organization"},
                                           {"org_name", longest},
                                           {"org_description", longest}})
                .status,
            201);
}

TEST_F(SignInAttacks, ASessionThatCouldNotBeEndedIsNotSaidToBe) {
  store::Database full_disk("");
  ASSERT_TRUE(full_disk.open(server_.directory.file("users.db")));
  ASSERT_TRUE(
      full_disk.exec("CREATE TRIGGER refuse BEFORE DELETE ON sessions "
                     "BEGIN SELECT RAISE(ABORT, 'no'); END"));
  const httplib::Headers ada = server_.signedIn(admin_token_);
  EXPECT_EQ(server_.postText(kAuth + "logout", "", ada).refusal(), "500 Failed to end session");
  ASSERT_TRUE(full_disk.exec("DROP TRIGGER refuse"));
  EXPECT_EQ(server_.postText(kAuth + "logout", "", ada).status, 200);
  EXPECT_EQ(server_.postText(kAuth + "logout", "", ada).status, 200) << "no session is no fault";
}

TEST_F(SignInAttacks, NobodyMakesHimselfMoreThanHeIs) {
  const json wish = {{"email", "eve@lab.org"},  {"password", "password1"},
                     {"role", "cluster_admin"}, {"approval_status", "approved"},
                     {"email_verified", true},  {"id", "usr_000000000000"}};
  EXPECT_EQ(server_.post(kAuth + "register", wish).json["role"], "user");
  const auto eve = server_.store->findByEmail("eve@lab.org");
  EXPECT_EQ(eve->role, "user");
  EXPECT_FALSE(eve->email_verified);
  EXPECT_NE(eve->id, "usr_000000000000");
}

TEST_F(SignInAttacks, ConsoleAndAnswersKeepSecrets) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const AccountReply login = server_.login("ada@lab.org");
  const std::string token = login.json["token"];
  server_.login("ada@lab.org", "wrong-password");
  server_.get(kAuth + "verify-email?token=" + token);
  const std::string session = server_.get(kAuth + "session", server_.signedIn(token)).body;
  server_.post(kAuth + "change-password",
               {{"old_password", "password1"}, {"new_password", "password2"}},
               server_.signedIn(token));
  const std::string console =
      testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
  for (const std::string& secret :
       {token, std::string("password1"), std::string("password2"), std::string("wrong-password")}) {
    EXPECT_THAT(console, Not(HasSubstr(secret)));
  }
  const auto ada = server_.store->findByEmail("ada@lab.org");
  for (const std::string& secret : {ada->password_hash, ada->salt, ada->api_key, token}) {
    EXPECT_THAT(session, Not(HasSubstr(secret)));
  }
}

}  // namespace
}  // namespace tavrel::controller
