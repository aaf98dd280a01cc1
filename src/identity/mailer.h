#pragma once

#include <string>

#include "identity/user_store.h"
#include "net/smtp_client.h"

namespace tavrel::identity {

/// The mail settings as the store has them, defaults filled in.
struct MailSettings {
  std::string server;  ///< empty: no mail is sent
  std::string port = "587";
  std::string user;
  std::string password;
  std::string from;              ///< the user when none is set
  std::string tls = "starttls";  ///< or `none`, `ssl`
};

MailSettings readMailSettings(UserStore& store);

/// Sends the mails of the accounts with the settings that the store has at that moment.
///
/// Threads: any. Sending blocks, half a minute at most.
class Mailer {
 public:
  Mailer(UserStore& store, net::SmtpClient& smtp) : store_(store), smtp_(smtp) {}

  bool isConfigured() const;

  /// True when the server has taken the mail; else the reason is on standard error. Addresses and
  /// subjects with a line end are refused. What is put into the HTML must be escaped.
  bool sendSmtpEmail(const std::string& to, const std::string& subject,
                     const std::string& html_body);

  bool sendVerification(const std::string& to, const std::string& token);
  bool sendPasswordReset(const std::string& to, const std::string& token);

 private:
  /// The address of a page of this controller, as people reach it.
  std::string linkTo(const std::string& path, const std::string& token) const;

  UserStore& store_;
  net::SmtpClient& smtp_;
};

}  // namespace tavrel::identity
