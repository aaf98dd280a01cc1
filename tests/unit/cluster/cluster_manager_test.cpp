#include "cluster/cluster_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "cluster/cluster_event.h"
#include "fake_transport.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;
using std::chrono::seconds;
using test::FakeTransport;
using testing::ElementsAre;

ClusterConfig aConfig() {
  ClusterConfig config;
  config.node_id = "self";
  config.advertise_address = "10.0.0.1";
  config.discovery_port = 8081;
  return config;
}

json member(const std::string& id, int port = 8080) {
  return {{"id", id}, {"hostname", "host-" + id}, {"address", "10.0.0.9"}, {"port", port}};
}

struct ManagerTest : testing::Test {
  test::FakeWorld world;
  NodeRegistry registry;
  ClusterConfig config = aConfig();

  ClusterAnswer answerTo(const ClusterCall& call) {
    if (call.path == "/cluster/join") return join_answer;
    return health_answer;
  }
  ClusterManager& manager() {
    if (!manager_) {
      world.transport.answerWith([this](const ClusterCall& call) { return answerTo(call); });
      manager_ = std::make_unique<ClusterManager>(config, registry, world.environment());
      manager_->onClusterEvent([this](const ClusterEvent& event) {
        if (event.type == ClusterEventType::NodeStatusChanged) {
          statuses.push_back(event.data["status"]);
        }
      });
    }
    return *manager_;
  }
  std::vector<std::string> pathsCalled() {
    std::vector<std::string> calls;
    for (const ClusterCall& call : world.transport.take()) {
      calls.push_back(call.to.text() + call.path);
    }
    return calls;
  }

  ClusterAnswer join_answer{"Couldn't connect to server", 0, {}};
  ClusterAnswer health_answer{"", 200, "{}"};
  std::vector<int> statuses;

 private:
  std::unique_ptr<ClusterManager> manager_;
};

TEST_F(ManagerTest, StartTellsItsStepsAndJoinsTheSeeds) {
  config.seed_nodes = {"10.0.0.5", "10.0.0.6:9000"};
  json nodes = {member("a"), member("self"), {{"hostname", "nameless"}}};
  join_answer = {"", 200, json{{"success", true}, {"nodes", nodes}}.dump()};
  EXPECT_TRUE(manager().start());
  EXPECT_FALSE(manager().start());
  EXPECT_THAT(
      world.lines,
      ElementsAre("[Cluster] Starting cluster manager...", "[Cluster] Node ID: self",
                  "[Cluster] Hostname: " + manager().getSelfNode().hostname,
                  "[Cluster] Address: 10.0.0.1", "[Cluster] Joining seed node: 10.0.0.5",
                  "[Cluster] Discovered node: host-a", "[Cluster] Joining seed node: 10.0.0.6:9000",
                  "[Cluster] Discovered node: host-a", "[Cluster] Cluster manager started"));
  const auto calls = world.transport.take();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].to.port, 8081);
  EXPECT_EQ(calls[1].to.port, 9000);
  const json sent = json::parse(calls[0].body);
  EXPECT_EQ(sent["port"], 0);
  EXPECT_EQ(sent["api_port"], 8081);
  EXPECT_EQ(registry.nodeCount(), 2u);
  EXPECT_EQ(registry.getNode("self")->status, NodeStatus::kHealthy);
  world.lines.clear();
  manager().stop();
  manager().stop();
  EXPECT_THAT(world.lines, ElementsAre("[Cluster] Stopping cluster manager...",
                                       "[Cluster] Cluster manager stopped"));
}

TEST_F(ManagerTest, FailedJoinsSayWhy) {
  const auto lineOf = [&](ClusterAnswer answer) {
    join_answer = std::move(answer);
    world.lines.clear();
    EXPECT_FALSE(manager().joinCluster("s:1"));
    return world.lines.back();
  };
  EXPECT_EQ(lineOf({"Timeout was reached", 0, {}}),
            "[Cluster] Failed to join s:1: Timeout was reached");
  EXPECT_EQ(lineOf({"", 401, "{}"}), "[Cluster] Failed to join s:1: HTTP status 401");
  EXPECT_THAT(lineOf({"", 200, "<html>"}),
              testing::StartsWith("[Cluster] Failed to parse join response: "));
  // What came before the bad element stays.
  json odd = member("b");
  odd["type"] = "controller";
  EXPECT_THAT(lineOf({"", 200, json{{"nodes", {member("a", 1), odd, member("c", 2)}}}.dump()}),
              testing::StartsWith("[Cluster] Failed to parse join response: "));
  EXPECT_EQ(registry.nodeCount(), 1u);
}

TEST_F(ManagerTest, MalformedSeedEndsTheStart) {
  for (const char* seed : {"host:port", "host:", ":1", "host:99999", "ho/st:1", ""}) {
    config.seed_nodes = {seed};
    ClusterManager bad(config, registry, world.environment());
    EXPECT_THROW(bad.start(), std::invalid_argument) << seed;
  }
  EXPECT_EQ(parseEndpoint("[::1]:9", 1), (Endpoint{"[::1]", 9}));
  EXPECT_EQ(endpointUrl({"fe80::1", 9}, "/x"), "http://[fe80::1]:9/x");
  EXPECT_EQ(endpointUrl({"a/b?", 9}, "/x"), "");
  EXPECT_EQ(endpointUrl({"a", 0}, "/x"), "");
}

TEST_F(ManagerTest, ThreeFailuresMakeItUnhealthyAndTwoAnswersHealthyAgain) {
  manager().handleJoin(member("a"));
  health_answer = {"", 503, {}};
  for (int i = 0; i < 4; ++i) manager().checkAllNodesHealth();
  EXPECT_THAT(statuses, ElementsAre(3, 4));
  health_answer = {"", 200, R"({"cpu_usage": 12.5, "memory_usage": "much", "active_jobs": 3})"};
  manager().checkNodeHealth("a");
  EXPECT_EQ(registry.getNode("a")->status, NodeStatus::kUnhealthy);
  manager().checkNodeHealth("a");
  manager().checkNodeHealth("nobody");
  EXPECT_THAT(statuses, ElementsAre(3, 4, 2));
  EXPECT_EQ(registry.getNode("a")->cpu_usage, 12.5);
  EXPECT_EQ(registry.getNode("a")->active_jobs, 3);
  // One failure alone degrades, and one answer after it is not enough.
  health_answer = {"Timeout was reached", 0, {}};
  manager().checkAllNodesHealth();
  health_answer = {"", 200, "not JSON"};
  manager().checkAllNodesHealth();
  EXPECT_EQ(registry.getNode("a")->status, NodeStatus::kDegraded);
}

TEST_F(ManagerTest, SilentNodesAndTheOwnRecordGoAfterThirtySeconds) {
  manager().start();
  manager().handleJoin(member("live", 1));
  manager().handleJoin(member("dead", 2));
  world.transport.answerWith([](const ClusterCall& call) {
    return call.to.port == 1 ? ClusterAnswer{"", 200, "{}"} : ClusterAnswer{"refused", 0, {}};
  });
  world.now += seconds(30);
  manager().healthPass();
  EXPECT_EQ(registry.nodeCount(), 3u);
  world.now += std::chrono::milliseconds(1);
  manager().healthPass();
  EXPECT_EQ(manager().getClusterStats()["total_nodes"], 1);
  EXPECT_EQ(manager().getClusterStats()["nodes"][0]["id"], "live");
  EXPECT_EQ(manager().getClusterStats()["nodes_by_status"], json({{"healthy", 1}}));
}

TEST_F(ManagerTest, AProbeDoesNotUndoAJoinThatCameMeanwhile) {
  manager().handleJoin(member("a"));
  manager();
  world.transport.answerWith([this](const ClusterCall&) {
    world.now += seconds(1);
    manager().handleJoin(member("a"));  // it came back while the probe of its old self ran
    return ClusterAnswer{"Timeout was reached", 0, {}};
  });
  for (int i = 0; i < 5; ++i) manager().checkAllNodesHealth();
  EXPECT_EQ(registry.getNode("a")->status, NodeStatus::kHealthy);
  world.transport.answerWith([this](const ClusterCall&) {
    manager().handleJoin(member("a", 9999));
    return ClusterAnswer{"", 200, R"({"active_jobs": 5})"};
  });
  manager().checkAllNodesHealth();
  EXPECT_EQ(registry.getNode("a")->port, 9999);
  EXPECT_EQ(registry.getNode("a")->active_jobs, 0);
}

TEST_F(ManagerTest, AnnouncesToAllAndTriesLostSeedsAgain) {
  config.seed_nodes = {"10.0.0.5:1"};
  manager().start();
  pathsCalled();
  manager().handleAnnounce(member("a"));
  manager().announcePresence();
  EXPECT_THAT(pathsCalled(),
              ElementsAre("10.0.0.5:1/cluster/join", "10.0.0.9:8080/cluster/announce"));
  json self = member("seed", 1);
  join_answer = {"", 200, json{{"nodes", json::array()}, {"self", self}}.dump()};
  manager().announcePresence();
  pathsCalled();
  manager().announcePresence();
  EXPECT_THAT(pathsCalled(),
              ElementsAre("10.0.0.9:8080/cluster/announce", "10.0.0.9:1/cluster/announce"));
  registry.unregisterNode("seed");
  manager().announcePresence();
  EXPECT_EQ(pathsCalled().front(), "10.0.0.5:1/cluster/join");
}

TEST_F(ManagerTest, APortLearnedLateIsToldToEverybody) {
  config.discovery_port = 0;
  config.seed_nodes = {"10.0.0.5:1", "10.0.0.6"};
  const json joined = {{"nodes", {member("a")}}, {"self", member("seed", 1)}};
  join_answer = {"", 200, joined.dump()};
  manager().start();
  world.transport.take();
  manager().setApiPort(9999);
  EXPECT_EQ(registry.getNode("self")->api_port, 9999);
  json alias = member("former");
  alias["address"] = "10.0.0.1";
  alias["api_port"] = 9999;
  manager().handleJoin(alias);
  EXPECT_EQ(registry.getNode("former"), nullptr);
  manager().announcePresence();
  const auto calls = world.transport.take();
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[1].to.text() + calls[1].path, "10.0.0.6:9999/cluster/join");
  for (const ClusterCall& call : calls) EXPECT_EQ(json::parse(call.body)["api_port"], 9999);
}

TEST_F(ManagerTest, WhoeverAnsweredIsCalledFirstAndAPlaceOnceForAllThatAreThere) {
  manager().handleJoin(member("dead", 1));
  manager().handleJoin(member("z", 7));
  manager();
  world.transport.answerWith([](const ClusterCall& call) {
    return call.to.port == 7 ? ClusterAnswer{"", 200, "{}"} : ClusterAnswer{"refused", 0, {}};
  });
  manager().checkAllNodesHealth();
  for (const char* id : {"same1", "same2", "same3"}) manager().handleAnnounce(member(id, 7));
  pathsCalled();
  manager().checkAllNodesHealth();
  manager().checkAllNodesHealth();
  const std::string live = "10.0.0.9:7/api/v1/health";
  const std::string dead = "10.0.0.9:1/api/v1/health";
  EXPECT_THAT(pathsCalled(), ElementsAre(live, dead, live, dead));
  EXPECT_EQ(registry.getNode("same2")->consecutive_successes, 2);
  manager().announcePresence();
  EXPECT_THAT(pathsCalled(),
              ElementsAre("10.0.0.9:7/cluster/announce", "10.0.0.9:1/cluster/announce"));
}

TEST_F(ManagerTest, OthersCannotWriteTheOwnRecord) {
  manager().start();
  const json answer = json::parse(manager().handleJoin(member("self", 666)));
  manager().handleAnnounce(member("self", 666));
  json alias = member("former");
  alias["address"] = "10.0.0.1";
  alias["api_port"] = 8081;
  manager().handleJoin(alias);
  EXPECT_EQ(registry.nodeCount(), 1u);
  EXPECT_EQ(registry.getNode("self")->port, 0);
  EXPECT_EQ(answer["success"], true);
  EXPECT_EQ(answer["self"]["id"], "self");
}

TEST(ClusterManager, ProbesRunSideBySideWithinTheirBound) {
  // Every probe waits until as many as are allowed at once are under way.
  constexpr std::size_t kAtOnce = 8;
  std::atomic<std::size_t> under_way{0};
  std::atomic<std::size_t> most{0};
  test::FakeWorld world;
  world.transport.answerWith([&](const ClusterCall&) {
    most = std::max<std::size_t>(most, ++under_way);
    for (int i = 0; i < 2000 && most < kAtOnce; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    --under_way;
    return ClusterAnswer{"Timeout was reached", 0, {}};
  });
  NodeRegistry registry;
  ClusterEnvironment environment = world.environment();
  environment.at_once = kAtOnce;
  ClusterManager manager(aConfig(), registry, environment);
  for (int i = 0; i < 40; ++i) manager.handleJoin(member("n" + std::to_string(i), i + 1));
  manager.checkAllNodesHealth();
  EXPECT_EQ(most, kAtOnce);
  EXPECT_EQ(registry.getNodesByStatus(NodeStatus::kDegraded).size(), 40u);
}

}  // namespace
}  // namespace tavrel::cluster
