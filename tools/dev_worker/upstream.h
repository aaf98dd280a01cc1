#pragma once

#include <optional>
#include <string>
#include <vector>

#include "api/context.h"
#include "api/request.h"
#include "api/response.h"
#include "dev_worker/client_watch.h"
#include "net/http_client.h"
#include "net/worker_address.h"

namespace tavrel::dev_worker {

/// Passes requests on to a server that speaks the same interface, and its answers back, bytes as
/// they are, streams piece by piece. A client that leaves ends the exchange.
/// Threads: any. Failure: 502 with an error object; a stream that breaks off ends early.
class Upstream {
 public:
  /// Nothing when the URL has no host or no valid port.
  static std::optional<Upstream> fromUrl(const std::string& url, const std::string& key);

  api::Response forwardPost(ClientWatch watch, const api::Request& request) const;
  api::Response forwardGet(net::HttpClient& client, const std::string& path) const;

  /// The models the server lists; none when it cannot be asked.
  std::vector<std::string> models(net::HttpClient& client) const;

 private:
  Upstream() = default;

  net::HttpResult get(net::HttpClient& client, const std::string& path) const;
  std::string postHead(const api::Request& request) const;

  net::WorkerAddress address_;
  std::string base_url_;
  std::string base_path_;
  std::string key_;
};

}  // namespace tavrel::dev_worker
