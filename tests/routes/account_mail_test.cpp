#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "routes/account_server.h"
#include "support/mail_server.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using testing::HasSubstr;

const std::string kAuth = "/api/v1/auth/";
const std::string kSmtp = "/api/v1/settings/smtp";

/// Accounts with an administrator, and a mail server that wants a login.
class AccountMailTest : public testing::Test {
 protected:
  AccountMailTest() {
    admin_ = server_.signedIn(server_.registerUser("ada@lab.org").json["token"]);
  }

  AccountReply configure(const json& settings) { return server_.post(kSmtp, settings, admin_); }
  void configureMail() {
    EXPECT_EQ(configure({{"smtp_server", "127.0.0.1"},
                         {"smtp_port", std::stoi(mail_.port())},
                         {"smtp_user", "us@lab.org"},
                         {"smtp_password", "a b:c"},
                         {"smtp_tls", "none"},
                         {"base_url", "https://hub.lab.org/?a=1&b=\"/"}})
                  .body,
              R"({"status":"smtp_updated"})");
  }

  AccountServer server_;
  httplib::Headers admin_;
  test::MailServer mail_{{"--user", "us@lab.org", "--password", "a b:c"}};
};

TEST_F(AccountMailTest, OnlyAClusterAdministratorSeesTheSettingsAndNobodyThePassword) {
  const std::string user = server_.registerUser("bob@lab.org").json["token"];
  for (const httplib::Headers& headers :
       {httplib::Headers{}, server_.signedIn(user), server_.signedIn("ts_forged"),
        httplib::Headers{{"X-API-Key", AccountServer::kAdminKey}}}) {
    for (const AccountReply& reply :
         {server_.get(kSmtp, headers), server_.post(kSmtp, json::object(), headers),
          server_.post(kSmtp + "/test", json::object(), headers)}) {
      EXPECT_EQ(reply.refusal(), "403 Cluster admin role required");
    }
  }
  EXPECT_EQ(server_.get(kSmtp, admin_).json, json::parse(R"({"smtp_server": "",
      "smtp_port": "587", "smtp_user": "", "smtp_password": "", "smtp_from": "",
      "smtp_tls": "starttls", "base_url": ""})"));
  configureMail();
  EXPECT_EQ(configure({{"smtp_from", "Hub <hub@lab.org>"}, {"unknown", 1}}).status, 200);
  const AccountReply shown = server_.get(kSmtp, admin_);
  EXPECT_EQ(shown.json["smtp_password"], "********");
  EXPECT_EQ(shown.json["smtp_port"], mail_.port());
  EXPECT_EQ(shown.json["smtp_from"], "Hub <hub@lab.org>");
  EXPECT_EQ(configure(json::array()).refusal(), "400 Invalid JSON body");
  EXPECT_EQ(configure({{"smtp_user", "x"}, {"smtp_tls", {"ssl"}}}).status, 400);
  EXPECT_EQ(configure({{"smtp_from", "a@b.org\r\nBcc: eve@b.org"}}).status, 400);
  EXPECT_EQ(server_.get(kSmtp, admin_).json, shown.json);
}

TEST_F(AccountMailTest, TheTestMailTellsWhetherTheSettingsWork) {
  const auto tested = [&] { return server_.post(kSmtp + "/test", json::object(), admin_); };
  EXPECT_EQ(tested().refusal(), "400 SMTP server not configured. Save SMTP settings first.");
  configure({{"smtp_server", "127.0.0.1"}});
  EXPECT_EQ(tested().refusal(), "400 SMTP from address not configured");
  configureMail();
  EXPECT_EQ(tested().json, json({{"success", true}, {"message", "Test email sent to us@lab.org"}}));
  const json mail = json::parse(mail_.mailWith("Test"));
  EXPECT_EQ(mail["login"], "LOGIN us@lab.org a b:c");
  EXPECT_EQ(mail["text"],
            "From: us@lab.org\r\nTo: us@lab.org\r\nSubject: Tavrel SMTP Test\r\n"
            "MIME-Version: 1.0\r\nContent-Type: text/html; charset=UTF-8\r\n\r\n"
            "<h2>SMTP Test Successful</h2><p>Your Tavrel controller SMTP settings are working "
            "correctly.</p>\r\n");

  configure({{"smtp_password", "wrong"}});
  testing::internal::CaptureStderr();
  EXPECT_EQ(tested().refusal(),
            "500 SMTP connection failed. Check server, port, credentials, and TLS settings.");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[SMTP] Failed to send email to us@lab.org: Login denied\n");
}

TEST_F(AccountMailTest, MailsCarryWorkingLinks) {
  configureMail();
  const AccountReply made = server_.registerUser("bob@lab.org");
  EXPECT_FALSE(made.json.contains("verify_token"));
  json mail = json::parse(mail_.mailWith("Verify your"));
  EXPECT_EQ(mail["to"], json({"bob@lab.org"}));
  std::string text = mail["text"];
  const std::string link = "<a href=\"https://hub.lab.org/?a=1&amp;b=&quot;" + kAuth;
  ASSERT_THAT(text, HasSubstr(link + "verify-email?token="));
  std::string token = text.substr(text.find("<code>") + 6, 64);
  EXPECT_THAT(server_.get(kAuth + "verify-email?token=" + token).body,
              HasSubstr("Your account is active. You can now log in."));

  server_.post(kAuth + "forgot-password", {{"email", "bob@lab.org"}});
  mail = json::parse(mail_.mailWith("Reset your"));
  text = mail["text"];
  ASSERT_THAT(text, HasSubstr(link + "reset-password?token="));
  token = text.substr(text.find("<code>") + 6, 64);
  EXPECT_EQ(
      server_.post(kAuth + "reset-password", {{"token", token}, {"new_password", "password2"}})
          .status,
      200);

  EXPECT_EQ(server_.registerUser("eve@far.org").json.contains("verify_token"), true);
  server_.post(kAuth + "forgot-password", {{"email", "nobody@lab.org"}});
  EXPECT_EQ(mail_.mailCount(), 2U) << "neither pending nor unknown people are mailed";
}

TEST_F(AccountMailTest, AMailThatFailsFailsNothingElse) {
  configureMail();
  configure({{"smtp_port", 1}});
  testing::internal::CaptureStderr();
  const AccountReply made = server_.registerUser("bob@lab.org");
  EXPECT_EQ(made.status, 201);
  EXPECT_TRUE(made.json.contains("verify_token"));
  testing::internal::CaptureStdout();
  EXPECT_EQ(server_.post(kAuth + "forgot-password", {{"email", "bob@lab.org"}}).status, 200);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "no token where mails are sent";
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("[SMTP] Failed to send email to bob@lab.org: "));
}

}  // namespace
}  // namespace tavrel::controller
