#include "cluster/cluster_transport.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <system_error>

#include "net/http_client.h"

namespace tavrel::cluster {
namespace {

/// Letters, digits and what else names and numeric addresses consist of: nothing that would end the
/// host part of a URL.
bool isHost(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '-' || c == '_' || c == ':' || c == '[' || c == ']' || c >= 0x80;
  });
}

}  // namespace

std::string Endpoint::text() const {
  const bool bare_ipv6 = host.find(':') != std::string::npos && host[0] != '[';
  return (bare_ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

Endpoint parseEndpoint(std::string_view text, std::int32_t default_port) {
  const bool bracketed = text.starts_with('[') && text.find(']') != std::string_view::npos;
  const std::size_t colon = text.find(':', bracketed ? text.find(']') : 0);
  Endpoint endpoint{std::string(text.substr(0, colon)), default_port};
  bool good = isHost(endpoint.host);
  if (colon != std::string_view::npos) {
    const char* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data() + colon + 1, end, endpoint.port);
    good = good && read.ec == std::errc() && read.ptr == end && endpoint.port > 0 &&
           endpoint.port <= 65535;
  }
  if (!good) throw std::invalid_argument("not a host and port: " + std::string(text));
  return endpoint;
}

std::string endpointUrl(const Endpoint& endpoint, std::string_view path) {
  if (!isHost(endpoint.host) || endpoint.port <= 0 || endpoint.port > 65535) return "";
  std::string url = "http://" + endpoint.text();
  url += path;
  return url;
}

ClusterAnswer HttpClusterTransport::send(const ClusterCall& call) {
  net::HttpCall request;
  request.url = endpointUrl(call.to, call.path);
  if (request.url.empty()) return {"Not a usable address", 0, {}};
  if (!call.body.empty()) {
    request.method = "POST";
    request.headers.emplace_back("Content-Type", "application/json");
    request.body = call.body;
  }
  if (call.with_key && !cluster_key_.empty())
    request.headers.emplace_back("X-API-Key", cluster_key_);
  request.max_answer_bytes = call.max_answer_bytes;
  net::HttpResult result = http_.send(request, {call.connect, call.total});
  return {std::move(result.transport_error), result.status, std::move(result.body)};
}

}  // namespace tavrel::cluster
