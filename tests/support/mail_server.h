#pragma once

#include <string>
#include <vector>

#include "support/process.h"

namespace tavrel::test {

/// A certificate for 127.0.0.1 that nobody but itself vouches for.
class OwnCertificate {
 public:
  OwnCertificate();

  const std::string& file() const { return file_; }
  const std::string& keyFile() const { return key_file_; }

 private:
  TempDirectory directory_;
  const std::string file_ = directory_.file("certificate.pem");
  const std::string key_file_ = directory_.file("key.pem");
};

/// A mail server on a port of the loopback interface, with the options of mail_server.py. Belongs
/// to the thread that made it.
class MailServer {
 public:
  explicit MailServer(std::vector<std::string> options = {});
  /// With encryption: `tls` is "starttls" or "ssl".
  MailServer(const std::string& tls, const OwnCertificate& certificate,
             std::vector<std::string> options = {});

  std::string port() const { return port_; }

  /// The first mail, of those so far, whose JSON contains the text: {"from", "to", "text", "login",
  /// "encrypted"}. Empty when none came in time.
  std::string mailWith(const std::string& text);
  std::size_t mailCount();

 private:
  Process process_;
  std::string port_;
};

}  // namespace tavrel::test
