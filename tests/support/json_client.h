#pragma once

#include <httplib.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "support/test_server.h"

namespace tavrel::test {

/// What a route answered. `json` is discarded when the body is not JSON.
struct JsonReply {
  int status = 0;
  std::string body;
  nlohmann::json json;

  std::string error() const { return json.is_object() ? json.value("error", "") : ""; }
};

/// Speaks JSON with a TestServer over one connection.
class JsonClient {
 public:
  explicit JsonClient(const TestServer& server) : client_(server.client()) {
    client_.set_tcp_nodelay(true);  // head and body leave in two writes
  }

  JsonReply get(const std::string& path) { return replyOf(client_.Get(path.c_str())); }
  JsonReply del(const std::string& path) { return replyOf(client_.Delete(path.c_str())); }
  JsonReply post(const std::string& path, const nlohmann::json& body) {
    return postText(path, body.dump());
  }
  JsonReply postText(const std::string& path, const std::string& body) {
    return replyOf(client_.Post(path.c_str(), body, "application/json"));
  }

 private:
  static JsonReply replyOf(const httplib::Result& result) {
    if (!result) throw std::runtime_error("no answer: " + httplib::to_string(result.error()));
    return {result->status, result->body, nlohmann::json::parse(result->body, nullptr, false)};
  }

  httplib::Client client_;
};

}  // namespace tavrel::test
