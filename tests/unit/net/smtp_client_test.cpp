#include "net/smtp_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "platform/clock.h"
#include "support/mail_server.h"

namespace tavrel::net {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr Timeouts kMailTimeouts{10s, 20s};

SmtpMessage aMail() {
  return {"us@example.org", "Ada <ada@example.org>",
          "Subject: hello\r\n\r\n.dot\r\n<p>h\u00e9</p>"};
}

SmtpServer plain(const test::MailServer& server) {
  return {"127.0.0.1", server.port(), SmtpServer::Encryption::kNone, "", ""};
}

TEST(SmtpClient, AMailArrivesAsItWasWritten) {
  test::MailServer server;
  SmtpClient client;
  EXPECT_EQ(client.send(plain(server), aMail(), kMailTimeouts), "");
  const std::string mail = server.mailWith("hello");
  EXPECT_THAT(mail, HasSubstr(R"("from": "us@example.org", "to": ["ada@example.org"])"));
  EXPECT_THAT(mail, HasSubstr(R"(Subject: hello\r\n\r\n.dot\r\n<p>h\u00e9</p>)"));
}

TEST(SmtpClient, NothingIsSentUnencryptedOrToAStrangerWhenEncryptionIsDemanded) {
  test::MailServer unencrypted;
  SmtpClient client;
  SmtpServer server = plain(unencrypted);
  server.encryption = SmtpServer::Encryption::kStartTls;
  EXPECT_EQ(client.send(server, aMail(), kMailTimeouts), "Requested SSL level failed");
  EXPECT_EQ(unencrypted.mailCount(), 0U);

  server.encryption = SmtpServer::Encryption::kTls;
  const test::OwnCertificate certificate;
  for (const char* tls : {"ssl", "starttls"}) {
    test::MailServer stranger(tls, certificate);
    server.port = stranger.port();
    EXPECT_THAT(client.send(server, aMail(), kMailTimeouts), HasSubstr("certificate")) << tls;
    EXPECT_EQ(stranger.mailCount(), 0U);
    server.encryption = SmtpServer::Encryption::kStartTls;
  }
}

TEST(SmtpClient, NoAddressOrHostCarriesACommand) {
  test::MailServer server;
  SmtpClient client;
  for (const std::string address :
       {"", "a@b.org\r\nRCPT TO:<eve@b.org>", "a@b.org>\nDATA", "a@b.org> SIZE=1", "a@b.org\x7F"}) {
    SmtpMessage mail = aMail();
    mail.recipient = address;
    EXPECT_NE(client.send(plain(server), mail, kMailTimeouts), "") << address;
    mail = aMail();
    mail.sender = address;
    EXPECT_NE(client.send(plain(server), mail, kMailTimeouts), "") << address;
  }
  for (const std::string host :
       {"", "127.0.0.1/x", "u@127.0.0.1", "127.0.0.1\r\n", "127.0.0.1?a", "127.0.0.1#"}) {
    SmtpServer odd = plain(server);
    odd.host = host;
    EXPECT_NE(client.send(odd, aMail(), kMailTimeouts), "") << host;
  }
  for (const std::string port : {"", "25/x", "0x19", "-1", "99999"}) {
    SmtpServer odd = plain(server);
    odd.port = port;
    EXPECT_NE(client.send(odd, aMail(), kMailTimeouts), "") << port;
  }
  EXPECT_EQ(server.mailCount(), 0U);
}

TEST(SmtpClient, AServerThatHangsCostsNoMoreThanTheTimeout) {
  test::MailServer deaf({"--hang", "greeting"});
  SmtpClient client;
  auto start = platform::steadyNow();
  EXPECT_EQ(client.send(plain(deaf), aMail(), {300ms, 20s}), "Timeout was reached");
  EXPECT_LT(platform::steadyNow() - start, 5s);

  // The mail has been taken: what hangs is only the farewell.
  test::MailServer rude({"--hang", "farewell"});
  start = platform::steadyNow();
  EXPECT_EQ(client.send(plain(rude), aMail(), {1s, 2s}), "");
  EXPECT_LT(platform::steadyNow() - start, 6s);
}

}  // namespace
}  // namespace tavrel::net
