#pragma once

#include <string>
#include <utility>
#include <vector>

#include "controller/routes/families.h"
#include "inference/chat_proxy.h"
#include "support/messages.h"
#include "support/mock_peer.h"
#include "support/test_server.h"
#include "support/workers.h"

namespace tavrel::test {

/// The chat routes on a real server, with everything behind them; the local model server is at a
/// port where nobody listens unless a test names another. Peers stall for a fifth of a second.
struct ChatCluster {
  RefusingPort nobody;
  worker::WorkerRegistry workers;
  net::HttpClient http;
  ai::AiControl ai_control{http};
  ai::MoeRouter experts;
  cluster::RouterRegistry routers;
  std::string science_url;
  inference::LocalModelServer local;
  metrics::MetricsCollector metrics;
  inference::ChatProxy chat;
  TestServer server;

  explicit ChatCluster(const std::string& local_url = "",
                       std::chrono::milliseconds patience = std::chrono::seconds(10))
      : local(http,
              local_url.empty() ? "http://127.0.0.1:" + std::to_string(nobody.port()) : local_url),
        chat({workers, ai_control, experts, routers, [this] { return science_url; }, http, local,
              metrics},
             {patience, patience, patience, patience}),
        server([this](api::RouteBook& routes) { controller::addChatRoutes(routes, chat); }) {}

  void addWorker(const std::string& id, int port, std::vector<std::string> models = {"m"}) {
    worker::WorkerInfo info = onlineWorker(id, port, std::move(models));
    info.backend_type = "vllm";
    workers.registerWorker(std::move(info), false);
  }

  httplib::Result post(const std::string& path, const std::string& body) const {
    return server.client().Post(path.c_str(), body, "application/json");
  }
  httplib::Result ask(const std::string& body) const {
    return post("/api/v1/chat/completions", body);
  }
};

/// An answer as workers give it.
inline std::string workerSays(const std::string& text) {
  return httpAnswer(200, R"({"choices":[{"message":{"role":"assistant","content":")" + text +
                             R"("}}],"usage":{"prompt_tokens":3,"completion_tokens":4}})");
}

/// Answers each request by the first path that occurs in its first line.
inline MockPeer::Script answeringByPath(std::vector<std::pair<std::string, std::string>> answers) {
  return [answers](MockConnection& connection) {
    const std::string request = connection.readRequest();
    const std::string line = request.substr(0, request.find('\r'));
    for (const auto& [path, answer] : answers) {
      if (line.find(path) == std::string::npos) continue;
      connection.send(answer);
      break;
    }
    connection.close();
  };
}

/// The JSON body of a request that a mock peer received.
inline nlohmann::json jsonOf(const std::string& request) {
  return nlohmann::json::parse(bodyOf(request));
}

}  // namespace tavrel::test
