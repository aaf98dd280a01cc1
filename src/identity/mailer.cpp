#include "identity/mailer.h"

#include <chrono>

#include "platform/console.h"
#include "platform/text.h"

namespace tavrel::identity {
namespace {

constexpr net::Timeouts kTimeouts{std::chrono::seconds(10), std::chrono::seconds(30)};

/// Anything but the two other words demands encryption: a slip in the settings must not send a
/// password in the clear.
net::SmtpServer::Encryption encryptionOf(const std::string& tls) {
  const std::string word = platform::toLower(tls);
  if (word == "none") return net::SmtpServer::Encryption::kNone;
  if (word == "ssl") return net::SmtpServer::Encryption::kTls;
  return net::SmtpServer::Encryption::kStartTls;
}

bool fitsIntoHeader(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

/// A setting that is missing or empty counts as the fallback.
std::string settingOr(UserStore& store, const char* key, const std::string& fallback) {
  const std::string value = store.getSetting(key, fallback);
  return value.empty() ? fallback : value;
}

}  // namespace

MailSettings readMailSettings(UserStore& store) {
  MailSettings settings;
  settings.server = store.getSetting("smtp_server", "");
  settings.port = settingOr(store, "smtp_port", settings.port);
  settings.user = store.getSetting("smtp_user", "");
  settings.password = store.getSetting("smtp_password", "");
  settings.from = settingOr(store, "smtp_from", settings.user);
  settings.tls = settingOr(store, "smtp_tls", settings.tls);
  return settings;
}

bool Mailer::isConfigured() const {
  return !store_.getSetting("smtp_server", "").empty();
}

bool Mailer::sendSmtpEmail(const std::string& to, const std::string& subject,
                           const std::string& html_body) {
  const MailSettings settings = readMailSettings(store_);
  std::string trouble = "A line end in a header";
  if (fitsIntoHeader(to) && fitsIntoHeader(subject) && fitsIntoHeader(settings.from)) {
    const std::string head = "From: " + settings.from + "\r\nTo: " + to +
                             "\r\nSubject: " + subject + "\r\nMIME-Version: 1.0\r\n" +
                             "Content-Type: text/html; charset=UTF-8\r\n\r\n";
    trouble = smtp_.send({settings.server, settings.port, encryptionOf(settings.tls), settings.user,
                          settings.password},
                         {settings.from, to, head + html_body}, kTimeouts);
  }
  if (trouble.empty()) return true;
  platform::printError("[SMTP] Failed to send email to " + to + ": " + trouble);
  return false;
}

bool Mailer::sendVerification(const std::string& to, const std::string& token) {
  return sendSmtpEmail(to, "Verify your Tavrel account",
                       "<h2>Verify your Tavrel account</h2>"
                       "<p>Click the link below to verify your email address:</p><p><a href=\"" +
                           linkTo("/api/v1/auth/verify-email", token) +
                           "\">Verify Email</a></p><p>Or use this token: <code>" + token +
                           "</code></p><p>This link expires in 24 hours.</p>");
}

bool Mailer::sendPasswordReset(const std::string& to, const std::string& token) {
  return sendSmtpEmail(to, "Reset your Tavrel password",
                       "<h2>Reset your Tavrel password</h2>"
                       "<p>A password reset was requested for your account.</p><p><a href=\"" +
                           linkTo("/api/v1/auth/reset-password", token) +
                           "\">Reset Password</a></p><p>Or use this token: <code>" + token +
                           "</code></p><p>This link expires in 1 hour. "
                           "If you did not request this, ignore this email.</p>");
}

std::string Mailer::linkTo(const std::string& path, const std::string& token) const {
  std::string base = settingOr(store_, "base_url", "https://localhost");
  if (base.ends_with('/')) base.pop_back();
  return platform::escapeHtml(base + path + "?token=" + token);
}

}  // namespace tavrel::identity
