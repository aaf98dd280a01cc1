#pragma once

#include <memory>
#include <string>

#include "net/timeouts.h"

namespace tavrel::net {

/// A server that takes mail for delivery, and how to speak to it.
struct SmtpServer {
  enum class Encryption {
    kNone,
    kStartTls,  ///< demanded: a server without it gets nothing
    kTls,       ///< from the first byte
  };

  std::string host;  ///< a name or an address
  std::string port;
  Encryption encryption = Encryption::kStartTls;
  std::string user;  ///< empty: no login
  std::string password;
};

struct SmtpMessage {
  std::string sender;     ///< one address, alone or as "Name <address>"
  std::string recipient;  ///< likewise
  std::string text;       ///< header lines, an empty line and the body; lines end with CR LF
};

/// Hands mails to a server (libcurl). A server that encrypts must show a certificate that names it
/// and that the system trusts; the environment's SSL_CERT_FILE names other authorities to trust, as
/// for a server with a certificate of one's own making.
///
/// Threads: any number may call at once. Calls block (they announce it through
/// platform::BlockingScope) and are never made with a lock held.
/// Stopping: `cancelAll` makes running calls end within about a second and later ones fail at once.
class SmtpClient {
 public:
  SmtpClient();
  ~SmtpClient();
  SmtpClient(const SmtpClient&) = delete;
  SmtpClient& operator=(const SmtpClient&) = delete;

  /// Empty when the server has taken the mail, else what went wrong. Control characters
  /// in an address, and a host or port that is none, are refused without asking the server.
  std::string send(const SmtpServer& server, const SmtpMessage& message, Timeouts timeouts);

  void cancelAll();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavrel::net
