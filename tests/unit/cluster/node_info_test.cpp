#include "cluster/node_info.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tavrel::cluster {
namespace {

TEST(NodeInfo, OnlyItsOwnKindOfMembersIsWritten) {
  const char* const extra[] = {"controller_tier", "controller_info", "worker_tier", "worker_info",
                               "router_config"};
  const auto written = [&extra](NodeType type) {
    NodeInfo node;
    node.type = type;
    const auto record = node.toJson();
    std::string keys;
    for (const char* key : extra) keys += record.contains(key) ? std::string(key) + " " : "";
    return keys;
  };
  EXPECT_EQ(written(NodeType::kController), "controller_tier controller_info ");
  EXPECT_EQ(written(NodeType::kWorker), "worker_tier worker_info ");
  EXPECT_EQ(written(NodeType::kRouter), "router_config ");
  EXPECT_EQ(written(NodeType::kLlm), "");

  NodeInfo node;
  node.type = NodeType::kLlm;
  node.status = NodeStatus::kDegraded;
  EXPECT_EQ(node.toJson().size(), 19u);
  EXPECT_EQ(node.toJson()["type"], 3);
  EXPECT_EQ(node.toJson()["status"], 3);
  node.api_port = 8080;
  EXPECT_EQ(node.toJson()["api_port"], 8080);
}

TEST(NodeInfo, TextsOfTheEnumerations) {
  EXPECT_EQ(nodeTypeToString(NodeType::kInference), "inference");
  EXPECT_EQ(nodeTypeToString(static_cast<NodeType>(12)), "unknown");
  EXPECT_EQ(nodeStatusToString(NodeStatus::kOffline), "offline");
  EXPECT_EQ(nodeStatusToString(static_cast<NodeStatus>(-1)), "unknown");
  EXPECT_EQ(aiControlModeFromString("autonomous"), AIControlMode::kAutonomous);
  EXPECT_EQ(aiControlModeFromString("Autonomous"), std::nullopt);
  EXPECT_TRUE(isAvailable(NodeStatus::kDegraded));
  EXPECT_FALSE(isAvailable(NodeStatus::kUnhealthy));
}

}  // namespace
}  // namespace tavrel::cluster
