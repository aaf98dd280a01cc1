#include "support/mail_server.h"

#include <algorithm>
#include <stdexcept>

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;

// Debian's own Python: the module is installed for that one.
constexpr const char* kPython = "/usr/bin/python3";

std::vector<std::string> joined(std::vector<std::string> first, std::vector<std::string> more) {
  first.insert(first.end(), more.begin(), more.end());
  return first;
}

}  // namespace

OwnCertificate::OwnCertificate() {
  Process openssl("/usr/bin/openssl",
                  {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                   "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1", "-addext",
                   "subjectAltName=IP:127.0.0.1", "-keyout", key_file_, "-out", file_});
  if (openssl.waitForExit(20s) != 0) throw std::runtime_error("no certificate");
}

MailServer::MailServer(std::vector<std::string> options)
    : process_(kPython, joined({TAVREL_MAIL_SERVER}, std::move(options))) {
  const auto line = process_.waitForLine("listening ", 20s);
  if (!line) throw std::runtime_error("the mail server does not start");
  port_ = line->substr(line->find(' ') + 1);
}

MailServer::MailServer(const std::string& tls, const OwnCertificate& certificate,
                       std::vector<std::string> options)
    : MailServer(joined(
          {"--tls", tls, "--certificate", certificate.file(), "--key", certificate.keyFile()},
          std::move(options))) {}

std::string MailServer::mailWith(const std::string& text) {
  return process_.waitForLine(text, 10s).value_or("mail ").substr(5);
}

std::size_t MailServer::mailCount() {
  process_.waitForLine("never printed", 100ms);
  const auto& lines = process_.outputLines();
  return static_cast<std::size_t>(
      std::count_if(lines.begin(), lines.end(),
                    [](const std::string& line) { return line.starts_with("mail "); }));
}

}  // namespace tavrel::test
