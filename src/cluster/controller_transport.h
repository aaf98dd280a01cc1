#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "net/http_client.h"

namespace tavrel::cluster {

/// A call to another controller.
struct ControllerCall {
  std::string url;
  std::string body{};  ///< JSON to be posted; empty: a GET
  net::Timeouts timeouts{};
  std::vector<std::pair<std::string, std::string>> headers{};
  bool with_key = true;  ///< carries the key, if there is one
  std::size_t max_answer_bytes = std::size_t{8} << 20;
};

/// How controllers that are linked to each other call. Many threads may call at once; failures are
/// told, never thrown.
class ControllerTransport {
 public:
  virtual ~ControllerTransport() = default;
  virtual net::HttpResult send(const ControllerCall& call) = 0;
};

/// Over HTTP. The client must outlive it.
class HttpControllerTransport : public ControllerTransport {
 public:
  /// A `key` that is not empty travels as "X-API-Key".
  HttpControllerTransport(net::HttpClient& http, std::string key)
      : http_(http), key_(std::move(key)) {}

  net::HttpResult send(const ControllerCall& call) override;

 private:
  net::HttpClient& http_;
  const std::string key_;
};

}  // namespace tavrel::cluster
