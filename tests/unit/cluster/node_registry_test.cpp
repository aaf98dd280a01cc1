#include "cluster/node_registry.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cluster/node_reader.h"
#include "platform/json_text.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

const platform::SteadyTime kNow{std::chrono::hours{1}};
constexpr milliseconds kMaxAge{30'000};

NodeInfo aNode(const std::string& id, platform::SteadyTime heard = kNow) {
  NodeInfo node;
  node.id = id;
  node.status = NodeStatus::kHealthy;
  node.last_heartbeat = heard;
  return node;
}

std::string idsOf(const std::vector<NodePtr>& nodes) {
  std::string ids;
  for (const NodePtr& node : nodes) ids += node->id + " ";
  return ids;
}

TEST(NodeRegistry, CallbacksTellWhatChangedAndMayUseTheRegistry) {
  NodeRegistry registry;
  std::string log;
  const auto note = [&](const char* what) {
    return [&log, &registry, what](const NodeInfo& node) {
      log += what + node.id + std::to_string(registry.nodeCount()) + " ";
    };
  };
  registry.onNodeAdded(note("+"));
  registry.onNodeRemoved(note("-"));
  registry.onNodeStatusChanged(note("~"));
  EXPECT_TRUE(registry.registerNode(aNode("a")));
  EXPECT_TRUE(registry.registerNode(aNode("a")));
  EXPECT_TRUE(registry.registerNode(aNode("b", kNow - kMaxAge - milliseconds(1))));
  EXPECT_TRUE(registry.updateNodeStatus("a", NodeStatus::kOffline));
  EXPECT_TRUE(registry.updateNodeStatus("a", NodeStatus::kOffline));
  EXPECT_FALSE(registry.updateNodeStatus("x", NodeStatus::kOffline));
  registry.updateNode(aNode("x"));
  registry.removeStaleNodes(kMaxAge, kNow, registry.version());
  EXPECT_TRUE(registry.unregisterNode("a"));
  EXPECT_FALSE(registry.unregisterNode("a"));
  EXPECT_EQ(log, "+a1 +b2 ~a2 -b1 -a0 ");
}

TEST(NodeRegistry, FiltersAndCounts) {
  NodeRegistry registry;
  NodeInfo worker = aNode("w");
  worker.type = NodeType::kWorker;
  worker.status = NodeStatus::kDegraded;
  worker.capabilities = {"gpu"};
  worker.models = {"llama"};
  worker.max_concurrent_jobs = 4;
  registry.registerNode(worker);
  NodeInfo odd = aNode("o");
  odd.status = NodeStatus::kUnhealthy;
  odd.models = {"llama2"};
  registry.registerNode(odd);
  registry.registerNode(aNode("c"));
  EXPECT_EQ(idsOf(registry.getHealthyNodes()), "c w ");
  EXPECT_EQ(registry.healthyNodeCount(), 2u);
  EXPECT_EQ(idsOf(registry.getNodesByType(NodeType::kController)), "c o ");
  EXPECT_EQ(idsOf(registry.getNodesByStatus(NodeStatus::kUnhealthy)), "o ");
  EXPECT_EQ(idsOf(registry.getNodesWithCapability("gpu")), "w ");
  EXPECT_EQ(idsOf(registry.getNodesWithModel("llama")), "w ");
  EXPECT_EQ(registry.nodeCountByType().at(NodeType::kController), 2);
  EXPECT_FALSE(registry.nodeCountByStatus().contains(NodeStatus::kOffline));

  registry.updateNodeMetrics("w", 50, 20, 2, kNow + milliseconds(5));
  const NodePtr now = registry.getNode("w");
  EXPECT_DOUBLE_EQ(now->load_factor, 0.4 * 50 + 0.3 * 20 + 0.3 * 0.5);
  EXPECT_EQ(now->last_heartbeat, kNow + milliseconds(5));
}

TEST(NodeRegistry, SilenceIsJudgedInWholeMilliseconds) {
  NodeRegistry registry;
  registry.registerNode(aNode("just", kNow - kMaxAge - std::chrono::microseconds(999)));
  registry.registerNode(aNode("over", kNow - kMaxAge - milliseconds(1)));
  registry.registerNode(aNode("future", kNow + std::chrono::hours(5)));
  registry.removeStaleNodes(kMaxAge, kNow, registry.version());
  EXPECT_EQ(idsOf(registry.getAllNodes()), "future just ");
}

TEST(NodeRegistry, HearsayGetsOneChanceAndIsNotRepeatedAboutTheDead) {
  NodeRegistry registry;
  registry.registerNode(aNode("early", {}));
  const auto version = registry.version();
  registry.registerNode(aNode("meanwhile", {}));
  EXPECT_EQ(idsOf(registry.nodesToPassOn()), "early meanwhile ");
  registry.removeStaleNodes(kMaxAge, kNow, version);
  EXPECT_EQ(idsOf(registry.getAllNodes()), "meanwhile ");

  registry.registerNode(aNode("early", {}));
  EXPECT_EQ(idsOf(registry.getAllNodes()), "early meanwhile ");
  EXPECT_EQ(idsOf(registry.nodesToPassOn()), "meanwhile ");
  registry.update("early", [](NodeInfo& node) { node.last_heartbeat = kNow; });
  EXPECT_EQ(idsOf(registry.nodesToPassOn()), "early meanwhile ");
}

TEST(NodeRegistry, AProcessHasOneRecord) {
  NodeRegistry registry;
  const auto process = [](const std::string& id, platform::SteadyTime heard) {
    NodeInfo node = aNode(id, heard);
    node.address = "10.0.0.1";
    node.api_port = node.port = 8080;
    return node;
  };
  registry.registerNode(process("former", kNow));
  EXPECT_FALSE(registry.registerNode(process("rumour", {})));
  EXPECT_TRUE(registry.registerNode(process("successor", kNow)));
  EXPECT_EQ(idsOf(registry.getAllNodes()), "successor ");

  // It moves away; then the place is free.
  registry.update("successor", [](NodeInfo& node) { node.address = "10.0.0.2"; });
  EXPECT_TRUE(registry.registerNode(process("next", {})));
  EXPECT_EQ(registry.nodeCount(), 2u);
  registry.unregisterNode("next");
  EXPECT_TRUE(registry.registerNode(process("another", {})));

  registry.setOwnNode(process("self", kNow));
  EXPECT_TRUE(registry.isOwnNode(aNode("self")));
  EXPECT_TRUE(registry.isOwnNode(process("my former id", kNow)));
  EXPECT_FALSE(registry.isOwnNode(aNode("other")));
}

TEST(NodeRegistry, IsBoundedSoThatAllOfItCanBeReadByAnother) {
  NodeRegistry registry;
  std::string all = "[";
  for (std::size_t i = 0; i < NodeRegistry::kMaxNodes; ++i) {
    NodeInfo node = aNode(std::to_string(i));
    node.api_port = static_cast<std::int32_t>(i + 1);
    all += (i == 0 ? "" : ",") + node.toJson().dump();
    registry.registerNode(std::move(node));
  }
  EXPECT_TRUE(platform::jsonWithinLimits(all + "]", platform::kMaxForeignJsonDepth));
  EXPECT_FALSE(registry.registerNode(aNode("more")));
  EXPECT_TRUE(registry.registerNode(aNode("7")));
  EXPECT_EQ(registry.nodeCount(), NodeRegistry::kMaxNodes);
}

TEST(NodeReader, TheHttpPortStandsInForAMissingOne) {
  EXPECT_EQ(joinedNode({{"id", "a"}}, kNow)->port, 8080);
  EXPECT_EQ(joinedNode({{"id", "a"}, {"port", 0}, {"api_port", 9000}}, kNow)->port, 9000);
  EXPECT_EQ(joinedNode({{"id", "a"}, {"port", 7}, {"api_port", 9000}}, kNow)->port, 7);
  EXPECT_EQ(gossipedNode({{"id", "a"}, {"api_port", 9000}}, NodeDetail::kPlace)->port, 9000);
  EXPECT_EQ(gossipedNode({{"id", "a"}}, NodeDetail::kFull)->port, 0);
  EXPECT_EQ(gossipedNode({{"id", "a"}}, NodeDetail::kFull)->weight, 100);
}

TEST(NodeReader, AnAnnouncementKeepsWhatItDoesNotCarry) {
  NodeInfo known = aNode("a", {});
  known.version = "4.1.0";
  known.models = {"m"};
  known.status = NodeStatus::kUnhealthy;
  known.consecutive_failures = 9;
  const auto node = announcedNode({{"id", "a"}, {"address", "h"}, {"port", 1}}, &known, kNow);
  EXPECT_EQ(node->version, "4.1.0");
  EXPECT_EQ(node->models.size(), 1u);
  EXPECT_EQ(node->address, "h");
  EXPECT_EQ(node->status, NodeStatus::kHealthy);
  EXPECT_EQ(node->consecutive_failures, 0);
  EXPECT_EQ(node->last_heartbeat, kNow);
}

TEST(NodeReader, ImpossibleRecordsAreRefused) {
  EXPECT_FALSE(joinedNode({{"hostname", "h"}}, kNow));
  EXPECT_FALSE(joinedNode({{"id", std::string(257, 'x')}}, kNow));
  EXPECT_FALSE(gossipedNode({{"id", "a"}, {"models", json(1001, "m")}}, NodeDetail::kFull));
  EXPECT_FALSE(gossipedNode({{"id", "a"}, {"capabilities", json(150, std::string(250, 'x'))}},
                            NodeDetail::kFull));
  EXPECT_THROW(joinedNode({{"id", "a"}, {"port", "80"}}, kNow), json::exception);
  EXPECT_THROW(joinedNode(json::array(), kNow), json::exception);
  EXPECT_EQ(joinedNode({{"id", "a"}, {"port", 1e300}}, kNow)->port,
            std::numeric_limits<std::int32_t>::max());
}

}  // namespace
}  // namespace tavrel::cluster
