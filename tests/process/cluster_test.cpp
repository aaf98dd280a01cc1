#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "process/cluster_process.h"
#include "support/mock_peer.h"

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

/// Controllers a, b and c on ports of their own: a is b's seed, a and c are each other's peers.
struct ThreeControllers {
  std::unique_ptr<Controller> start(const std::string& id, std::vector<std::string> more) {
    return startMember(id, ports.at(id), std::move(more));
  }
  void startA() { a = start("a", {"--peer", at("c")}); }
  void startB() { b = start("b", {"--seed", at("a")}); }
  void startC() { c = start("c", {"--peer", at("a"), "--advertise", "localhost"}); }

  std::string at(const std::string& id) const {
    return "127.0.0.1:" + std::to_string(ports.at(id));
  }

  std::map<std::string, int> ports = {{"a", freePort()}, {"b", freePort()}, {"c", freePort()}};
  std::unique_ptr<Controller> a;
  std::unique_ptr<Controller> b;
  std::unique_ptr<Controller> c;
};

template <class Condition>
bool within(std::chrono::seconds limit, Controller& controller, Condition condition) {
  const auto end = platform::steadyNow() + limit;
  while (!condition()) {
    if (platform::steadyNow() > end) return false;
    controller.process().waitForLine("never printed", 50ms);
  }
  return true;
}

TEST(ClusterProcess, ControllersFindLoseAndFindEachOther) {
  const std::map<std::string, int> all_healthy = {{"b", 2}, {"c", 2}};
  ThreeControllers three;
  three.startA();
  three.startB();
  three.startC();
  EXPECT_TRUE(within(10s, *three.a, [&] { return othersOf(*three.a, "a") == all_healthy; }));
  // Only a told them of each other.
  EXPECT_TRUE(within(10s, *three.c, [&] { return othersOf(*three.c, "c").contains("b"); }));
  EXPECT_TRUE(three.c->process().waitForLine("Gossip protocol started with 1 peer(s)", 1s));
  EXPECT_THAT(three.a->get("/api/v1/cluster/stats", "X-API-Key: " + kClusterKey + "\r\n"),
              HasSubstr(R"("address":"localhost")"));

  kill(*three.b);
  kill(*three.c);
  EXPECT_TRUE(three.a->process().waitForLine("[Gossip] Peer controller failed: c", 10s));
  EXPECT_TRUE(within(10s, *three.a, [&] { return othersOf(*three.a, "a")["b"] > 2; }));
  three.startB();
  three.startC();
  EXPECT_TRUE(within(15s, *three.a, [&] { return othersOf(*three.a, "a") == all_healthy; }));

  // The seed itself comes back without any memory; the others tell it within their next pass.
  kill(*three.a);
  three.startA();
  EXPECT_TRUE(within(40s, *three.a, [&] { return othersOf(*three.a, "a") == all_healthy; }));

  three.c->process().signal(SIGTERM);
  EXPECT_TRUE(three.a->process().waitForLine("[Gossip] Peer left: c", 5s));
  EXPECT_EQ(three.c->process().waitForExit(5s), 0);
}

TEST(ClusterProcess, WhoeverListensOnAnyPortTellsTheOthersWhich) {
  ThreeControllers three;
  three.startA();
  const auto any = startMember("any", 0, {"--seed", three.at("a"), "--peer", three.at("a")});
  const std::string key = "X-API-Key: " + kClusterKey + "\r\n";
  const auto a_tells = [&](const std::string& path, const std::string& text) {
    return three.a->get(path, key).find(text) != std::string::npos;
  };
  const std::string port = std::to_string(any->port());
  EXPECT_TRUE(within(5s, *three.a, [&] {
    return a_tells("/api/v1/cluster/stats", "\"api_port\":" + port) &&
           a_tells("/api/v1/cluster/gossip/peers", "\"id\":\"any\",\"port\":" + port);
  }));
  EXPECT_EQ(othersOf(*three.a, "a"), (std::map<std::string, int>{{"any", 2}}));
}

TEST(ClusterProcess, AStrangerWithoutTheKeyStaysOutside) {
  ThreeControllers three;
  three.startA();
  Process stranger(kController,
                   {"-b", "127.0.0.1", "-p", std::to_string(three.ports["b"]), "--node-id", "b",
                    "--seed", three.at("a"), "--cluster-key", "guessed"});
  EXPECT_TRUE(stranger.waitForLine("[Cluster] Failed to join " + three.at("a"), 5s));
  EXPECT_TRUE(othersOf(*three.a, "a").empty());
}

TEST(ClusterProcess, AMalformedSeedOrPeerEndsTheStart) {
  for (const char* option : {"--seed", "--peer"}) {
    Process process(kController, {"-b", "127.0.0.1", "-p", "0", option, "host:port"});
    EXPECT_EQ(process.waitForExit(10s), 1);
    EXPECT_THAT(process.errorLines(),
                ElementsAre("[Controller] A seed or peer is not a host and port: host:port",
                            "[Controller] Failed to start cluster manager"));
  }
  Process alone(kController, {"-b", "127.0.0.1", "-p", "0", "--no-cluster", "--seed", "x:y"});
  EXPECT_TRUE(alone.waitForLine("[Controller] Listening on", 10s));
  EXPECT_FALSE(alone.waitForLine("cluster", 0s));
}

TEST(ClusterProcess, ASignalEndsAStartThatWaitsForItsSeeds) {
  const UnansweringPort dead;
  const std::string seed = "127.0.0.1:" + std::to_string(dead.port());
  Process process(kController, {"-b", "127.0.0.1", "-p", "0", "--seed", seed, "--seed", seed,
                                "--seed", seed, "--seed", seed});
  EXPECT_TRUE(process.waitForLine("[Cluster] Joining seed node: " + seed, 10s));
  process.signal(SIGTERM);
  EXPECT_EQ(process.waitForExit(3s), 0);
  EXPECT_FALSE(process.waitForLine("Press Ctrl+C", 0s));
}

TEST(ClusterProcess, AStopDoesNotWaitForCommandsAndTasks) {
  Controller controller({"--worker", "--node-id", "w"});
  const std::string command = R"({"type":"bash","params":{"command":"exec sleep 60"}})";
  const RawClient client(controller.port());
  client.send(
      "POST /worker/execute HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: " +
      std::to_string(command.size()) + "\r\n\r\n" + command);
  // No node of this cluster can do it: it stays in the queue.
  EXPECT_THAT(controller.request("POST", "/api/v1/cluster/workers/submit",
                                 R"({"type":"t","capabilities":["none"]})"),
              HasSubstr("task_id"));
  controller.process().signal(SIGTERM);
  EXPECT_EQ(controller.process().waitForExit(5s), 0);
}

TEST(ClusterProcess, GuestsDoNotStandInTheWayOfTheCluster) {
  Controller controller({"--guest-rpm", "1"});
  controller.get("/api/v1/cluster/self");
  EXPECT_THAT(controller.get("/api/v1/cluster/self"), HasSubstr("429"));
  for (int i = 0; i < 3; ++i) {
    EXPECT_THAT(controller.request("POST", "/cluster/announce", R"({"id":"x"})"), HasSubstr("200"));
  }
}

}  // namespace
}  // namespace tavrel::test
