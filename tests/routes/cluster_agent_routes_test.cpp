#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "cluster/agent_registry.h"
#include "cluster/llm_pool.h"
#include "cluster/router_registry.h"
#include "controller/controller_identity.h"
#include "controller/routes/families.h"
#include "inference/agent_host.h"
#include "net/http_client.h"
#include "support/json_client.h"
#include "support/mock_peer.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

std::string chatAnswer(const std::string& text) {
  return httpAnswer(200, json{{"message", {{"role", "assistant"}, {"content", text}}}}.dump());
}

struct ClusterAgentRoutes : testing::Test {
  explicit ClusterAgentRoutes(bool with_cluster = true)
      : server([&] {
          api::RouteBook book;
          controller::addClusterAgentRoutes(book, with_cluster ? &llm_pool : nullptr,
                                            with_cluster ? &agents : nullptr, host);
          controller::addStatusRoutes(book, identity, workers, routers, typed,
                                      with_cluster ? &agents : nullptr);
          return book;
        }()) {}

  void addWorker(const MockPeer& peer, const json& more) {
    json body = {{"worker_id", "w" + std::to_string(workers.size())},
                 {"worker_name", "w" + std::to_string(workers.size())},
                 {"ip_address", "127.0.0.1"},
                 {"port", peer.port()}};
    body.update(more);
    worker::WorkerInfo info = worker::workerFromRegistration(body, platform::wallNow());
    worker::applyHeartbeat(info, body, platform::wallNow());
    workers.registerWorker(std::move(info), true);
  }

  net::HttpClient http;
  cluster::HttpClusterTransport transport{http, ""};
  cluster::NodeRegistry registry;
  cluster::LoadBalancer balancer{registry, cluster::LoadBalanceStrategy::kLeastLoad};
  cluster::LLMPool llm_pool{registry, balancer, transport};
  cluster::AgentRegistry agents{registry, transport};
  controller::ControllerIdentity identity;
  worker::WorkerRegistry workers;
  cluster::RouterRegistry routers;
  worker::TypedWorkerRegistries typed;
  MockPeer local{MockPeer::answering(chatAnswer("from the local server"))};
  inference::AgentHost host{workers, http, local.url("")};
  TestServer server;
  JsonClient client{server};
};

TEST_F(ClusterAgentRoutes, AnAgentIsRegisteredListedAndInvokedOnItsNode) {
  EXPECT_EQ(client.get("/api/v1/cluster/agents").body, "[]");
  cluster::NodeInfo self;
  self.id = "self";
  self.address = "127.0.0.1";
  self.port = server.port();
  registry.registerNode(self);
  const json agent = {{"id", "a"},         {"name", "Ann"}, {"type", 1},
                      {"node_id", "self"}, {"model", "m"},  {"allowed_tools", {"t"}}};
  EXPECT_EQ(client.post("/api/v1/cluster/agents/register", agent).json,
            (json{{"success", true}, {"agent_id", "a"}}));
  EXPECT_EQ(client.get("/api/v1/cluster/agents").json, (json::array({{{"id", "a"},
                                                                      {"name", "Ann"},
                                                                      {"type", 1},
                                                                      {"agent_type_id", ""},
                                                                      {"node_id", "self"},
                                                                      {"available", true},
                                                                      {"active_tasks", 0},
                                                                      {"model", "m"}}})));
  const json result =
      client.post("/api/v1/cluster/agents/invoke", {{"preferred_type", 1}, {"prompt", "go"}}).json;
  EXPECT_EQ(result["success"], true);
  EXPECT_EQ(result["response"], "from the local server");
  EXPECT_EQ(result["agent_id"], "a");
  EXPECT_EQ(result["iterations"], 1);
  EXPECT_EQ(result["error"], "");
  EXPECT_EQ(result.size(), 7u);
  const json none = client.post("/api/v1/cluster/agents/invoke", {{"prompt", "go"}}).json;
  EXPECT_EQ(none["error"], "No available agent for type: general");
  EXPECT_EQ(client.get("/api/v1/cluster/agents/stats").json["total_invocations"], 2);
  EXPECT_EQ(client.get("/api/v1/status").json["metrics"], (json{{"active_swarms", 0},
                                                                {"online_workers", 0},
                                                                {"installed_agents", 1},
                                                                {"total_agent_invocations", 2}}));
  EXPECT_EQ(client.post("/api/v1/cluster/agents/register", json::object()).error(),
            "Agent id is required");
  for (const char* path : {"register", "invoke"}) {
    EXPECT_EQ(client.postText(std::string("/api/v1/cluster/agents/") + path, "{").error(),
              "Invalid JSON body");
  }
}

TEST_F(ClusterAgentRoutes, APromptRunsWhereTheModelIsElseOnTheLocalServer) {
  const MockPeer installed(MockPeer::answering(chatAnswer("installed")));
  const MockPeer running(MockPeer::answering(chatAnswer("running")));
  addWorker(installed, {{"capabilities", {{"installed_models", {"m", "only installed"}}}}});
  addWorker(running, {{"running_models", {{{"name", "m"}}}}});
  const json answer =
      client.post("/agent/invoke", {{"model", "m"}, {"prompt", "go"}, {"agent_type", "coder"}})
          .json;
  EXPECT_EQ(answer, (json{{"success", true},
                          {"response", "running"},
                          {"agent_type", "coder"},
                          {"model", "m"},
                          {"iterations", 1},
                          {"tool_calls", json::array()}}));
  const std::string sent = running.requests().at(0);
  EXPECT_EQ(json::parse(sent.substr(sent.find("\r\n\r\n") + 4)),
            (json{{"model", "m"},
                  {"messages", {{{"role", "user"}, {"content", "go"}}}},
                  {"stream", false}}));
  EXPECT_EQ(
      client.post("/agent/invoke", {{"model", "only installed"}, {"prompt", "x"}}).json["response"],
      "installed");
  const json local_answer = client.post("/agent/invoke", {{"prompt", "x"}}).json;
  EXPECT_EQ(local_answer["response"], "from the local server");
  EXPECT_EQ(local_answer["model"], "llama3.2:3b");
  EXPECT_EQ(local_answer["agent_type"], "general");
  EXPECT_EQ(client.post("/agent/invoke", json::object()).error(), "prompt is required");
  EXPECT_EQ(client.postText("/agent/invoke", "{").status, 400);
}

TEST_F(ClusterAgentRoutes, AFailedChatIsAnAnswerToo) {
  const MockPeer broken(MockPeer::answeringOnce(httpAnswer(200, "{\"message\":1}")));
  addWorker(broken, {{"running_models", {{{"name", "m"}}}}});
  const JsonReply reply = client.post("/agent/invoke", {{"model", "m"}, {"prompt", "go"}});
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.json["success"], false);
  EXPECT_EQ(reply.json["response"], "");
  EXPECT_NE(reply.json["error"].get<std::string>().find("Failed to parse response"),
            std::string::npos);
}

TEST_F(ClusterAgentRoutes, LanguageModelsAreListed) {
  EXPECT_EQ(client.get("/api/v1/cluster/llm/models").body, R"({"models":[]})");
  EXPECT_EQ(client.get("/api/v1/cluster/llm/stats").json["default_model"], "llama3.1:8b");
}

struct WithoutCluster : ClusterAgentRoutes {
  WithoutCluster() : ClusterAgentRoutes(false) {}
};

TEST_F(WithoutCluster, AgentsAndLanguageModelsSaySo) {
  for (const char* path : {"/api/v1/cluster/llm/stats", "/api/v1/cluster/llm/models"}) {
    EXPECT_EQ(client.get(path).status, 503);
    EXPECT_EQ(client.get(path).error(), "LLM pool not initialized");
  }
  for (const char* path : {"/api/v1/cluster/agents/stats", "/api/v1/cluster/agents"}) {
    EXPECT_EQ(client.get(path).error(), "Agent registry not initialized");
  }
  for (const char* path : {"/api/v1/cluster/agents/register", "/api/v1/cluster/agents/invoke"}) {
    EXPECT_EQ(client.postText(path, "{").status, 503);
  }
  EXPECT_EQ(client.post("/agent/invoke", {{"prompt", "x"}}).json["success"], true);
}

}  // namespace
}  // namespace tavrel::test
