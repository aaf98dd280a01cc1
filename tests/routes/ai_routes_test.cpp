#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ai/ai_control.h"
#include "cluster/router_registry.h"
#include "controller/controller_identity.h"
#include "controller/routes/families.h"
#include "support/json_client.h"
#include "support/messages.h"
#include "support/mock_peer.h"
#include "worker/worker_registry.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

struct AiServer {
  net::HttpClient http;
  ai::AiControl control{http};
  controller::ControllerIdentity self{"node-1", "host-1"};
  cluster::RouterRegistry routers;
  worker::WorkerRegistry workers;
  TestServer server{[this](api::RouteBook& routes) {
    controller::addAiRoutes(routes, self, control, routers, workers);
  }};

  JsonClient client{server};
};

TEST(AiRoutes, TheServiceExistsOnceTheModeIsNotNone) {
  AiServer server;
  EXPECT_EQ(server.client.post("/api/v1/ai/configure", {{"mode", "none"}}).body,
            R"({"ai_mode":"none","llm_model":"llama3.2:1b","success":true})");
  EXPECT_EQ(server.control.service(), nullptr);
  EXPECT_EQ(server.client
                .post("/api/v1/ai/configure",
                      {{"mode", "autonomous"}, {"llm_model", "x"}, {"decision_timeout_ms", 1e99}})
                .body,
            R"({"ai_mode":"autonomous","llm_model":"x","success":true})");
  EXPECT_NE(server.control.service(), nullptr);
  EXPECT_TRUE(server.control.decidesAlone());
  EXPECT_EQ(server.control.config().decision_timeout_ms, 2147483647);
  server.client.post("/api/v1/ai/configure", {{"mode", "advisory"}});
  EXPECT_FALSE(server.control.decidesAlone());
  EXPECT_EQ(server.control.config().model, "llama3.2:1b") << "absent: the default, not the old one";
}

TEST(AiRoutes, BadRequestsAreRefused) {
  AiServer server;
  const auto expect = [&](const char* path, const char* body, const std::string& text) {
    EXPECT_EQ(server.client.postText(path, body).refusal(), "400 " + text) << body;
  };
  for (const char* mode : {R"({"mode":"off"})", "{}"}) {
    expect("/api/v1/ai/configure", mode, "Invalid mode. Use: none, advisory, or autonomous");
  }
  expect("/api/v1/ai/configure", "x", "Invalid JSON body");
  expect("/api/v1/ai/test-decision", "x", "Invalid JSON body");
  expect("/api/v1/ai/test-decision", "{}", "prompt is required");
}

TEST(AiRoutes, ATestAsksTheConfiguredModel) {
  MockPeer model(MockPeer::answeringOnce(httpAnswer(200, "{\"response\":\"sure \xff\"}")));
  AiServer server;
  server.client.post("/api/v1/ai/configure",
                     {{"mode", "none"}, {"llm_model", "x"}, {"ollama_url", model.url("/")}});
  const JsonReply answer = server.client.post("/api/v1/ai/test-decision", {{"prompt", "who?"}});
  EXPECT_EQ(answer.status, 200);
  json reply = answer.json;
  EXPECT_GE(reply["latency_ms"], 0);
  reply.erase("latency_ms");
  EXPECT_EQ(reply.dump(),
            "{\"model\":\"x\",\"response\":\"sure \xef\xbf\xbd\",\"success\":true,"
            "\"type\":\"routing\"}");
  const std::string request = model.requests().at(0);
  EXPECT_EQ(request.substr(0, request.find(" HTTP")), "POST /api/generate");
  const json asked = json::parse(bodyOf(request));
  EXPECT_EQ(asked["prompt"], "who?");
  EXPECT_EQ(asked["options"]["num_predict"], 256);

  for (const std::string& bad :
       {httpAnswer(404, "{}"), httpAnswer(200, "{}"), httpAnswer(200, "no JSON")}) {
    MockPeer failing(MockPeer::answeringOnce(bad));
    server.client.post("/api/v1/ai/configure", {{"mode", "none"}, {"ollama_url", failing.url("")}});
    const JsonReply failed = server.client.post("/api/v1/ai/test-decision", {{"prompt", "?"}});
    EXPECT_EQ(failed.status, 500);
    EXPECT_NE(failed.error(), "");
  }
}

TEST(AiRoutes, TheStatusTellsHowEverybodyUsesItsModel) {
  AiServer server;
  cluster::RouterInfo router;
  router.hostname = "edge";
  router.ai_control.mode = cluster::AIControlMode::kAdvisory;
  router = *server.routers.add(router);
  worker::WorkerInfo worker;
  worker.worker_id = "w";
  worker.hostname = "gpu-box";
  server.workers.registerWorker(worker, false);
  EXPECT_EQ(server.client.get("/api/v1/ai/status").json, json::parse(R"({
      "controller":{"hostname":"host-1","ai_mode":"none","llm_model":"llama3.2:1b",
                    "ollama_url":"http://localhost:11434","decision_timeout_ms":0},
      "routers":[{"id":")" + router.id + R"(","hostname":"edge","ai_mode":"advisory",
                  "llm_mode":"llama3.2:1b"}],
      "workers_with_ai":[{"id":"w","hostname":"gpu-box","ai_mode":"unknown",
                          "llm_mode":"unknown"}]})"));
}

}  // namespace
}  // namespace tavrel::test
