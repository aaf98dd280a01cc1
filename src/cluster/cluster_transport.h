#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavrel::net {
class HttpClient;
}

namespace tavrel::cluster {

/// How long a connection to another node may take.
constexpr std::chrono::milliseconds kConnectTimeout{5000};

/// Where a node listens: a host name or numeric address, and a port.
struct Endpoint {
  std::string host;
  std::int32_t port = 0;

  bool operator==(const Endpoint&) const = default;
  /// As parseEndpoint reads it: an IPv6 address stands in brackets.
  std::string text() const;
};

/// Reads "host", "host:port" or "[IPv6]:port". Throws std::invalid_argument when the host is empty
/// or the port is not a number from 1 to 65535.
Endpoint parseEndpoint(std::string_view text, std::int32_t default_port);

/// "http://host:port" + path; empty when the host could not be one (it came from the network).
std::string endpointUrl(const Endpoint& endpoint, std::string_view path);

/// A call to another node.
struct ClusterCall {
  Endpoint to;
  std::string path;
  std::string body{};                   ///< JSON to be posted; empty: a GET
  bool with_key = true;                 ///< carries the cluster's key, if there is one
  std::chrono::milliseconds connect{};  ///< time for the connection
  std::chrono::milliseconds total{};    ///< time for everything
  std::size_t max_answer_bytes = std::size_t{64} << 20;
};

struct ClusterAnswer {
  std::string error;  ///< why there is no answer; empty when there is one
  int status = 0;
  std::string body;

  bool ok() const { return error.empty() && status == 200; }
};

/// How nodes reach each other. Many threads may call at once; failures are told, never thrown.
class ClusterTransport {
 public:
  virtual ~ClusterTransport() = default;
  virtual ClusterAnswer send(const ClusterCall& call) = 0;
};

/// Over HTTP. The client must outlive it.
class HttpClusterTransport : public ClusterTransport {
 public:
  /// A `cluster_key` that is not empty travels as "X-API-Key".
  HttpClusterTransport(net::HttpClient& http, std::string cluster_key)
      : http_(http), cluster_key_(std::move(cluster_key)) {}

  ClusterAnswer send(const ClusterCall& call) override;

 private:
  net::HttpClient& http_;
  const std::string cluster_key_;
};

}  // namespace tavrel::cluster
