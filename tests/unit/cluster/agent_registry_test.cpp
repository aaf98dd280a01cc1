#include "cluster/agent_registry.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "cluster/llm_pool.h"
#include "support/mock_peer.h"
#include "unit/cluster/fake_transport.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;

RemoteAgent anAgent(const std::string& id, AgentType type = AgentType::kGeneral, int max = 2) {
  RemoteAgent agent;
  agent.id = agent.name = id;
  agent.type = type;
  agent.node_id = "host";
  agent.max_concurrent_tasks = max;
  return agent;
}

NodeInfo aNode(const std::string& id, NodeType type, std::vector<std::string> models = {}) {
  NodeInfo node;
  node.id = node.address = id;
  node.port = 80;
  node.type = type;
  node.status = NodeStatus::kHealthy;
  node.models = std::move(models);
  return node;
}

struct AgentRegistryTest : testing::Test {
  AgentRegistryTest() { registry.registerNode(aNode("host", NodeType::kAgent)); }

  NodeRegistry registry;
  test::FakeTransport transport;
  AgentRegistry agents{registry, transport};
};

TEST_F(AgentRegistryTest, TheLeastLoadedAvailableOneOfTheTypeIsSelected) {
  agents.registerAgent(anAgent("a"));
  agents.registerAgent(anAgent("b"));
  agents.registerAgent(anAgent("coder", AgentType::kCoder));
  EXPECT_EQ(agents.selectAgent(AgentType::kGeneral)->id, "a");
  agents.updateAgentStatus("a", true, 1);
  EXPECT_EQ(agents.selectAgent(AgentType::kGeneral)->id, "b");
  agents.updateAgentStatus("b", false, 0);
  EXPECT_EQ(agents.selectAgent(AgentType::kGeneral)->id, "a");
  agents.updateAgentStatus("a", true, 2);
  EXPECT_FALSE(agents.selectAgent(AgentType::kGeneral));
  EXPECT_EQ(agents.getAvailableAgentCount(), 1u);
  EXPECT_EQ(agents.getAgentsByType(AgentType::kCoder).size(), 1u);
  EXPECT_EQ(agents.getAgentsByNode("host").size(), 3u);
  EXPECT_EQ(agents.getStats()["agents_by_type"], (json{{"coder", 1}, {"general", 2}}));
}

TEST_F(AgentRegistryTest, ASessionKeepsItsAgentWhileThatIsAvailable) {
  agents.registerAgent(anAgent("a"));
  agents.registerAgent(anAgent("b"));
  const auto pick = [&] { return agents.selectAgentForSession("s", AgentType::kGeneral)->id; };
  EXPECT_EQ(pick(), "a");
  agents.updateAgentStatus("a", true, 1);
  EXPECT_EQ(pick(), "a");
  agents.updateAgentStatus("a", true, 2);
  EXPECT_EQ(pick(), "b");
  agents.updateAgentStatus("a", true, 0);
  EXPECT_EQ(pick(), "b");
  EXPECT_TRUE(agents.unregisterAgent("b"));
  EXPECT_FALSE(agents.unregisterAgent("b"));
  EXPECT_EQ(agents.getStats()["active_sessions"], 0);
  EXPECT_EQ(pick(), "a");
}

TEST_F(AgentRegistryTest, LoadAndAvailabilityFollowTheInvocationsInFlight) {
  test::Gate gate;
  transport.answerWith([&](const ClusterCall&) {
    gate.waitUntilOpen();
    return ClusterAnswer{"", 200, R"({"success":true,"response":"yes","iterations":3})"};
  });
  agents.registerAgent(anAgent("a", AgentType::kGeneral, 1));
  AgentInvocation invocation;
  invocation.prompt = "p";
  AgentResult result;
  std::jthread caller([&] { result = agents.invoke(invocation); });
  while (agents.getAgent("a")->available) std::this_thread::yield();
  EXPECT_EQ(agents.getAgent("a")->active_tasks, 1);
  EXPECT_EQ(agents.getAgent("a")->load, 1);
  EXPECT_EQ(agents.invoke(invocation).error, "No available agent for type: general");
  agents.registerAgent(anAgent("a", AgentType::kGeneral, 1));  // replaced meanwhile: still busy
  EXPECT_FALSE(agents.getAgent("a")->available);
  gate.open();
  caller.join();
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.response, "yes");
  EXPECT_EQ(result.iterations, 3);
  EXPECT_EQ(result.agent_id, "a");
  EXPECT_TRUE(agents.getAgent("a")->available);
  EXPECT_EQ(agents.getAgent("a")->active_tasks, 0);
  EXPECT_EQ(agents.getStats()["total_invocations"], 2);
  EXPECT_EQ(agents.getStats()["successful_invocations"], 1);
}

TEST_F(AgentRegistryTest, FailuresAreToldByTheResult) {
  AgentInvocation invocation;
  invocation.preferred_type = AgentType::kCoder;
  invocation.timeout_ms = 1500;
  agents.registerAgent(anAgent("general"));
  EXPECT_EQ(agents.invoke(invocation).error, "No available agent for type: coder");
  invocation.preferred_type = static_cast<AgentType>(77);
  EXPECT_EQ(agents.invoke(invocation).error, "No available agent for type: unknown");
  invocation.agent_id = "nobody";
  EXPECT_EQ(agents.invoke(invocation).error, "No available agent for type: unknown");

  invocation.agent_id = "general";
  EXPECT_EQ(agents.invoke(invocation).error, "Couldn't connect to server");
  const ClusterCall call = transport.take().at(0);
  EXPECT_EQ(call.path, "/agent/invoke");
  EXPECT_EQ(call.total, std::chrono::milliseconds(1500));
  ClusterAnswer answer{"", 200, "<html>"};
  transport.answerWith([&](const ClusterCall&) { return answer; });
  EXPECT_TRUE(agents.invoke(invocation).error.starts_with("Failed to parse response: "));
  answer = {"", 401, R"({"code":401,"error":"Unauthorized","success":true})"};
  EXPECT_EQ(agents.invoke(invocation).error, "Unauthorized");
  EXPECT_FALSE(agents.invoke(invocation).success);
  registry.unregisterNode("host");
  EXPECT_EQ(agents.invoke(invocation).error, "Agent node not found: host");
  EXPECT_EQ(agents.getAgent("general")->active_tasks, 0);
  EXPECT_EQ(agents.getStats()["successful_invocations"], 0);
}

TEST_F(AgentRegistryTest, WhatCallersSendIsKeptWithinBounds) {
  RemoteAgent endless = anAgent("a");
  endless.allowed_tools.assign(1000, "tool");
  EXPECT_FALSE(agents.registerAgent(endless));
  EXPECT_TRUE(agents.registerAgent(anAgent("a")));
  const std::string session(AgentRegistry::kMaxIdBytes + 1, 's');
  EXPECT_TRUE(agents.selectAgentForSession(session, AgentType::kGeneral));
  EXPECT_EQ(agents.getStats()["active_sessions"], 0);
}

TEST(LlmPool, OffersTheModelsOfLanguageModelNodesAndFailsOver) {
  NodeRegistry registry;
  LoadBalancer balancer{registry, LoadBalanceStrategy::kLeastLoad};
  test::FakeTransport transport;
  LLMPool pool{registry, balancer, transport};
  EXPECT_TRUE(pool.getAvailableModels().empty());
  registry.registerNode(aNode("l1", NodeType::kLlm, {"b", "a"}));
  registry.registerNode(aNode("l2", NodeType::kLlm, {"a", "c", LLMPool::kDefaultModel}));
  registry.registerNode(aNode("w", NodeType::kWorker, {"d"}));
  EXPECT_EQ(pool.getAvailableModels(),
            (std::vector<std::string>{"b", "a", "c", LLMPool::kDefaultModel}));
  EXPECT_TRUE(pool.isModelAvailable("c"));
  EXPECT_FALSE(pool.isModelAvailable("d"));
  EXPECT_EQ(pool.getNodesForModel("a").size(), 2u);

  transport.answerWith([](const ClusterCall& call) {
    return call.to.host == "l1" ? ClusterAnswer{"", 500, ""} : ClusterAnswer{"", 200, "{}"};
  });
  EXPECT_TRUE(pool.chat({{"model", "a"}}).ok());
  EXPECT_EQ(transport.take().size(), 2u);
  EXPECT_FALSE(pool.chat({{"model", "b"}}).ok());
  EXPECT_EQ(transport.take().size(), 1u);
  EXPECT_TRUE(pool.chat(json::object()).ok());
  pool.setFailover(false);
  EXPECT_FALSE(pool.chat({{"model", "a"}}).ok());
  EXPECT_EQ(pool.chat({{"model", "d"}}).error, "No node for model: d");
  EXPECT_EQ(pool.getStats(), (json{{"total_requests", 5},
                                   {"failed_requests", 3},
                                   {"pending_requests", 0},
                                   {"active_requests", 0},
                                   {"default_model", "llama3.1:8b"},
                                   {"failover_enabled", false}}));
}

}  // namespace
}  // namespace tavrel::cluster
