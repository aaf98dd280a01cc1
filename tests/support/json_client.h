#pragma once

#include <httplib.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/test_server.h"

namespace tavrel::test {

/// What a route answered. `json` is discarded when the body is not JSON.
struct JsonReply {
  int status = 0;
  std::string body;
  nlohmann::json json;
  httplib::Headers headers;

  std::string error() const { return json.is_object() ? json.value("error", "") : ""; }
  /// "status error" of a refusal.
  std::string refusal() const { return std::to_string(status) + ' ' + error(); }
  std::string header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? "" : found->second;
  }
};

/// Speaks JSON with a TestServer over one connection.
class JsonClient {
 public:
  explicit JsonClient(const TestServer& server) : client_(server.client()) {
    client_.set_tcp_nodelay(true);  // head and body leave in two writes
  }

  JsonReply get(const std::string& path) { return send("GET", path); }
  JsonReply del(const std::string& path) { return send("DELETE", path); }
  JsonReply post(const std::string& path, const nlohmann::json& body) {
    return send("POST", path, body.dump());
  }
  JsonReply postText(const std::string& path, const std::string& body) {
    return send("POST", path, body);
  }
  JsonReply send(const std::string& method, const std::string& path, const std::string& body = "",
                 httplib::Headers headers = {}) {
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.headers = std::move(headers);
    request.body = body;
    if (method != "GET") request.headers.emplace("Content-Type", "application/json");
    const httplib::Result result = client_.send(request);
    if (!result) throw std::runtime_error("no answer: " + httplib::to_string(result.error()));
    return {result->status, result->body, nlohmann::json::parse(result->body, nullptr, false),
            result->headers};
  }

 private:
  httplib::Client client_;
};

}  // namespace tavrel::test
