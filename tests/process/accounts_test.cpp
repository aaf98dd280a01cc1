#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "process/controller_process.h"
#include "support/mail_server.h"
#include "support/messages.h"

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;

std::vector<std::string> fullMode(const std::string& database, std::vector<std::string> more = {}) {
  more.insert(more.end(), {"--auth-mode", "full", "--auth-db-url", database, "--api-key",
                           "root-key-0123456789"});
  return more;
}

std::vector<std::string> mailing(const MailServer& mail, const std::string& tls) {
  return {"--smtp-server", "127.0.0.1",  "--smtp-port", mail.port(),       "--smtp-user",
          "us@lab.org",    "--smtp-tls", tls,           "--smtp-password", "mail-secret"};
}

json registered(const Controller& controller, const std::string& email) {
  return jsonOf(controller.request("POST", "/api/v1/auth/register",
                                   json({{"email", email}, {"password", "password1"}}).dump()));
}

std::string console(Controller& controller) {
  controller.process().signal(SIGTERM);
  controller.process().waitForExit(20s);
  std::string all;
  for (const auto* lines :
       {&controller.process().outputLines(), &controller.process().errorLines()}) {
    for (const std::string& line : *lines) all += line + '\n';
  }
  return all;
}

TEST(AccountsProcess, AccountsOutliveTheProcess) {
  const TempDirectory directory;
  const std::string database = directory.file("users.db");
  std::string token;
  {
    Controller first(fullMode(database));
    EXPECT_TRUE(first.process().waitForLine(
        "[Controller] No users exist. First user to register will become cluster_admin.", 5s));
    EXPECT_THAT(first.get("/api/v1/auth/setup-status"), HasSubstr("true"));
    std::ifstream arguments("/proc/" + std::to_string(first.process().pid()) + "/cmdline");
    const std::string shown((std::istreambuf_iterator<char>(arguments)), {});
    EXPECT_THAT(shown, HasSubstr("--api-key")) << "what anybody on the machine sees";
    EXPECT_THAT(shown, testing::Not(HasSubstr("root-key-0123456789")));
    token = registered(first, "ada@Lab.org").at("token");
    first.process().signal(SIGKILL);
    first.process().waitForExit(10s);
  }
  Controller second(fullMode(database));
  EXPECT_THAT(second.get("/api/v1/auth/setup-status"), HasSubstr("false"));
  EXPECT_THAT(second.get("/api/v1/auth/session", "Cookie: tavrel_session=" + token + "\r\n"),
              HasSubstr("\"role\":\"cluster_admin\""));
  EXPECT_EQ(registered(second, "bob@lab.org").at("approval_status"), "approved");
  second.get("/api/v1/auth/verify-email?token=" + token);
  std::string told;
  for (const char* path : {"/api/v1/logs", "/api/v1/events", "/api/v1/auth/keys", "/metrics"}) {
    const std::string answer = second.get(path, "X-API-Key: root-key-0123456789\r\n");
    EXPECT_THAT(answer, HasSubstr("200 OK")) << path;
    told += answer;
  }
  told += console(second);
  for (const std::string& unwanted :
       {std::string("No users exist"), std::string("Set cluster_domain"), std::string("password1"),
        std::string("root-key-0123456789"), token}) {
    EXPECT_THAT(told, testing::Not(HasSubstr(unwanted)));
  }
}

TEST(AccountsProcess, MailsGoOutEncryptedThroughAServerWithItsOwnCertificate) {
  const OwnCertificate certificate;
  for (const std::string tls : {"starttls", "ssl"}) {
    const TempDirectory directory;
    MailServer mail(tls, certificate, {"--user", "us@lab.org", "--password", "mail-secret"});
    Controller controller(fullMode(directory.file("users.db"), mailing(mail, tls)),
                          {{"SSL_CERT_FILE", certificate.file()}});
    EXPECT_TRUE(controller.process().waitForLine(
        "[Controller] SMTP configured: 127.0.0.1:" + mail.port(), 5s));
    EXPECT_FALSE(registered(controller, "ada@lab.org").contains("verify_token")) << tls;
    const json sent = json::parse(mail.mailWith("Verify your"));
    EXPECT_EQ(sent["encrypted"], true) << tls;
    EXPECT_EQ(sent["to"], json({"ada@lab.org"}));
    EXPECT_EQ(sent["login"], "LOGIN us@lab.org mail-secret");
    EXPECT_THAT(sent["text"].get<std::string>(),
                HasSubstr("<a href=\"https://localhost/api/v1/auth/verify-email?token="));
    EXPECT_THAT(console(controller), testing::Not(HasSubstr("mail-secret")));
  }
}

TEST(AccountsProcess, ADeadMailServerNeitherHoldsUpOthersNorTheEnd) {
  const TempDirectory directory;
  MailServer dead({"--hang", "greeting"});
  Controller controller(fullMode(directory.file("users.db"), mailing(dead, "none")));
  const RawClient waiting(controller.port());
  waiting.send(
      postRequest("/api/v1/auth/register", R"({"email": "ada@lab.org", "password": "password1"})"));
  EXPECT_THAT(controller.getUntil("/api/v1/auth/setup-status", "false"), HasSubstr("false"));
  const auto start = std::chrono::steady_clock::now();
  controller.process().signal(SIGTERM);
  EXPECT_EQ(controller.process().waitForExit(20s), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 9s) << "the mail's own limit is 10 seconds";
}

TEST(AccountsProcess, TheLimitOfAKeyIsAnOption) {
  const TempDirectory directory;
  Controller controller(fullMode(directory.file("users.db"), {"--key-rpm", "2"}));
  const auto asked = [&] {
    return controller.get("/api/v1/auth/stats", "X-API-Key: root-key-0123456789\r\n");
  };
  EXPECT_THAT(asked(), HasSubstr("200 OK"));
  EXPECT_THAT(asked(), HasSubstr("200 OK"));
  EXPECT_THAT(asked(), testing::AllOf(HasSubstr("HTTP/1.1 429"), HasSubstr("Retry-After: ")));
}

TEST(AccountsProcess, AStoreThatCannotBeOpenedLeavesAControllerWithoutAccounts) {
  for (std::vector<std::string> arguments :
       {fullMode("/proc/no/such/users.db"), fullMode("x", {"--auth-db", "postgresql"})}) {
    Controller controller(std::move(arguments));
    EXPECT_TRUE(controller.process().waitForLine(
        "[Controller] WARNING: Failed to initialize user store!", 5s));
    EXPECT_THAT(controller.request("POST", "/api/v1/auth/login", "{}"),
                HasSubstr("503 Service Unavailable"));
    EXPECT_THAT(controller.get("/health"), HasSubstr("\"ok\""));
  }
}

}  // namespace
}  // namespace tavrel::test
