#include "cluster/load_balancer.h"

#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>

namespace tavrel::cluster {
namespace {

using nlohmann::json;

NodeInfo aNode(const std::string& id, double load = 0, std::int32_t weight = 1) {
  NodeInfo node;
  node.id = id;
  node.type = NodeType::kWorker;
  node.status = NodeStatus::kHealthy;
  node.load_factor = load;
  node.weight = weight;
  return node;
}

struct LoadBalancerTest : testing::Test {
  std::string pick() {
    const NodePtr node = balancer.selectNode(NodeType::kWorker);
    return node == nullptr ? "" : node->id;
  }
  void threeNodes(std::int32_t weight = 1) {
    for (const char* id : {"n0", "n1", "n2"}) registry.registerNode(aNode(id, 0, weight));
  }

  NodeRegistry registry;
  LoadBalancer balancer{registry, LoadBalanceStrategy::kLeastLoad, 7};
};

TEST_F(LoadBalancerTest, RoundRobinBeginsWithTheSecondAndHasAPositionPerType) {
  threeNodes();
  NodeInfo router = aNode("r");
  router.type = NodeType::kRouter;
  registry.registerNode(router);
  balancer.setStrategy(LoadBalanceStrategy::kRoundRobin);
  EXPECT_EQ(pick(), "n1");
  EXPECT_EQ(balancer.selectNode(NodeType::kRouter)->id, "r");
  EXPECT_EQ(pick(), "n2");
  EXPECT_EQ(pick(), "n0");
  EXPECT_EQ(pick(), "n1");
}

TEST_F(LoadBalancerTest, LeastLoadTakesTheFirstOfEqualsAmongTheAvailable) {
  EXPECT_EQ(pick(), "");
  NodeInfo idle = aNode("a", 0);
  for (const NodeStatus status : {NodeStatus::kUnknown, NodeStatus::kStarting,
                                  NodeStatus::kUnhealthy, NodeStatus::kOffline}) {
    idle.status = status;
    registry.registerNode(idle);
    EXPECT_EQ(pick(), "");
  }
  registry.registerNode(aNode("b", 0.5));
  registry.registerNode(aNode("c", 0.2));
  registry.registerNode(aNode("d", 0.2));
  EXPECT_EQ(pick(), "c");
  balancer.setStrategy(static_cast<LoadBalanceStrategy>(99));
  EXPECT_EQ(pick(), "c");
  idle.status = NodeStatus::kDegraded;
  registry.registerNode(idle);
  EXPECT_EQ(pick(), "a");
}

TEST_F(LoadBalancerTest, LeastConnectionsCountsTheUnlistedAsIdle) {
  threeNodes();
  balancer.setStrategy(LoadBalanceStrategy::kLeastConnections);
  EXPECT_EQ(pick(), "n0");
  balancer.incrementConnections("another");
  balancer.incrementConnections("n0");
  balancer.incrementConnections("n2");
  EXPECT_EQ(pick(), "n1");
  balancer.incrementConnections("n1");
  balancer.incrementConnections("n0");
  EXPECT_EQ(pick(), "n1");
  balancer.decrementConnections("n2");
  balancer.decrementConnections("n2");
  EXPECT_EQ(pick(), "n2");
  EXPECT_EQ(balancer.getStats(),
            (json{{"strategy", 1},
                  {"sticky_sessions_enabled", false},
                  {"active_sessions", 0},
                  {"connection_counts", {{"another", 1}, {"n0", 2}, {"n1", 1}, {"n2", 0}}}}));
}

TEST_F(LoadBalancerTest, WeightsShareOutTheWork) {
  registry.registerNode(aNode("light", 0, 1));
  registry.registerNode(aNode("heavy", 0, 3));
  registry.registerNode(aNode("broken", 0, -5));
  balancer.setStrategy(LoadBalanceStrategy::kWeighted);
  std::map<std::string, int> picks;
  for (int i = 0; i < 4000; ++i) ++picks[pick()];
  EXPECT_EQ(picks["broken"], 0);
  EXPECT_NEAR(picks["heavy"], 3000, 200);
  registry.clear();
  threeNodes(0);
  EXPECT_EQ(pick(), "n1");
  EXPECT_EQ(pick(), "n2");
  EXPECT_EQ(pick(), "n0");
  balancer.setStrategy(LoadBalanceStrategy::kRandom);
  picks.clear();
  for (int i = 0; i < 3000; ++i) ++picks[pick()];
  for (const char* id : {"n0", "n1", "n2"}) EXPECT_NEAR(picks[id], 1000, 150) << id;
}

TEST_F(LoadBalancerTest, RequirementsAreAllMet) {
  NodeInfo node = aNode("a");
  node.capabilities = {"gpu", "bash"};
  node.models = {"m"};
  registry.registerNode(node);
  node.id = "b";
  node.capabilities = {"bash"};
  node.type = NodeType::kLlm;
  registry.registerNode(node);
  EXPECT_EQ(balancer.selectNode({"bash", "gpu"}, "m")->id, "a");
  EXPECT_EQ(balancer.selectNode({"bash"}, "", NodeType::kLlm)->id, "b");
  EXPECT_EQ(balancer.selectNodeWithCapability("gpu")->id, "a");
  EXPECT_EQ(balancer.selectNodeWithModel("m")->id, "a");
  EXPECT_EQ(balancer.selectNodeWithModel("M"), nullptr);
  EXPECT_EQ(balancer.selectNode({"gpu"}, "m", NodeType::kLlm), nullptr);
}

TEST_F(LoadBalancerTest, SessionsStickToTheirNodeWhileItIsAvailable) {
  threeNodes();
  const auto pickFor = [&](const char* session) {
    return balancer.selectNodeForSession(session, NodeType::kWorker)->id;
  };
  balancer.setStrategy(LoadBalanceStrategy::kRoundRobin);
  EXPECT_NE(pickFor("s"), pickFor("s"));
  balancer.setStickySessions(true);
  const std::string first = pickFor("s");
  EXPECT_EQ(pickFor("s"), first);
  EXPECT_NE(pickFor("t"), first);
  EXPECT_EQ(balancer.getStats()["active_sessions"], 2);
  registry.updateNodeStatus(first, NodeStatus::kUnhealthy);
  const std::string second = pickFor("s");
  EXPECT_NE(second, first);
  registry.updateNodeStatus(first, NodeStatus::kHealthy);
  EXPECT_EQ(pickFor("s"), second);
  balancer.clearSession("s");
  EXPECT_EQ(balancer.getStats()["active_sessions"], 1);
}

}  // namespace
}  // namespace tavrel::cluster
