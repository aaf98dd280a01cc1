#include "worker/worker_url.h"

#include <algorithm>
#include <charconv>

#include "platform/text.h"
#include "worker/worker_info.h"

namespace tavrel::worker {
namespace {

constexpr std::string_view kHostCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
constexpr std::string_view kIpv6Characters = "0123456789abcdefABCDEF:.";

struct Authority {
  std::string host;  ///< without brackets
  std::string port;  ///< with its colon; empty when there is none
};

bool isPort(std::string_view text) {
  unsigned port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc{} && end == text.data() + text.size() && port >= 1 && port <= 65535;
}

bool consistsOf(std::string_view text, std::string_view alphabet) {
  return !text.empty() && text.find_first_not_of(alphabet) == std::string_view::npos;
}

std::optional<Authority> parseAuthority(std::string_view text) {
  const bool bracketed = text.starts_with('[');
  const std::size_t host_end = bracketed ? text.find(']') : text.find(':');
  if (bracketed && host_end == std::string_view::npos) return std::nullopt;
  const std::string_view host = bracketed ? text.substr(1, host_end - 1) : text.substr(0, host_end);
  if (!consistsOf(host, bracketed ? kIpv6Characters : kHostCharacters)) return std::nullopt;
  std::string_view port;
  if (host_end != std::string_view::npos) port = text.substr(host_end + (bracketed ? 1 : 0));
  if (!port.empty() && (!port.starts_with(':') || !isPort(port.substr(1)))) return std::nullopt;
  return Authority{std::string(host), std::string(port)};
}

bool isUnspecified(const std::string& host) {
  return host == "0.0.0.0" || host == "::" || host == "0";
}

bool isLoopback(const std::string& host) {
  return platform::toLower(host) == "localhost" || host.starts_with("127.") || host == "::1" ||
         host == "::ffff:127.0.0.1";
}

std::string bracketed(const std::string& host) {
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

std::string reachableHost(const std::string& host, const std::string& hostname,
                          const std::string& remote_address) {
  const bool remote = !remote_address.empty() && !isLoopback(remote_address);
  if (isUnspecified(host)) {
    if (!remote_address.empty()) return remote_address;
    return isHost(hostname) ? hostname : host;
  }
  return isLoopback(host) && remote ? remote_address : host;
}

}  // namespace

bool isHost(std::string_view text) {
  return consistsOf(text, kHostCharacters) ||
         (consistsOf(text, kIpv6Characters) && text.find(':') != std::string_view::npos);
}

std::string httpUrl(const std::string& host, std::int64_t port) {
  return "http://" + bracketed(host) + ":" + std::to_string(port);
}

std::string httpUrlIfValid(const std::string& host, std::int64_t port) {
  return isHost(host) && port >= 1 && port <= 65535 ? httpUrl(host, port) : "";
}

std::string baseUrlOf(const WorkerInfo& worker) {
  return httpUrlIfValid(worker.ip_address, worker.port);
}

std::optional<std::string> ensureResolvableURL(std::string_view url, const std::string& hostname,
                                               const std::string& remote_address) {
  const std::size_t scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) return std::nullopt;
  const std::string scheme = platform::toLower(url.substr(0, scheme_end));
  if (scheme != "http" && scheme != "https") return std::nullopt;
  std::string_view rest = url.substr(scheme_end + 3);
  const bool plain = std::all_of(rest.begin(), rest.end(), [](char c) {
    return c > ' ' && c < 0x7f && std::string_view("?#@\\\"<>").find(c) == std::string_view::npos;
  });
  if (!plain) return std::nullopt;
  while (rest.ends_with('/')) rest.remove_suffix(1);
  const std::size_t authority_end = std::min(rest.find('/'), rest.size());
  const auto authority = parseAuthority(rest.substr(0, authority_end));
  if (!authority) return std::nullopt;
  const std::string host = reachableHost(authority->host, hostname, remote_address);
  return scheme + "://" + bracketed(host) + authority->port +
         std::string(rest.substr(authority_end));
}

}  // namespace tavrel::worker
