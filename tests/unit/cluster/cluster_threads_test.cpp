#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "cluster/cluster_manager.h"
#include "cluster/gossip_message.h"
#include "cluster/gossip_protocol.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;

/// Three nodes that reach each other by function calls, on as many threads as care to.
class Trio : public ClusterTransport {
 public:
  Trio() {
    for (int i = 0; i < 3; ++i) nodes_.push_back(std::make_unique<Node>(*this, i));
  }

  ClusterAnswer send(const ClusterCall& call) override {
    if (call.to.host != "n" || call.to.port < 1 || call.to.port > 3) return {"refused", 0, {}};
    Node& node = *nodes_[static_cast<std::size_t>(call.to.port - 1)];
    if (call.path == "/api/v1/health") return {"", 200, R"({"active_jobs": 1})"};
    const json body = json::parse(call.body);
    if (call.path == "/cluster/join") return {"", 200, node.manager.handleJoin(body)};
    if (call.path == "/gossip") {
      return {"", 200, node.gossip.handleMessage(GossipMessage::fromJson(body)).toText()};
    }
    node.manager.handleAnnounce(body);
    return {"", 200, "{}"};
  }

  struct Node {
    Node(Trio& trio, int place)
        : manager(configOf(place), registry, environment(trio)),
          gossip({"n" + std::to_string(place), "n", place + 1,
                  [this] { return manager.getSelfNode(); }},
                 registry, environment(trio), 1) {}

    static ClusterConfig configOf(int place) {
      ClusterConfig config;
      config.node_id = "n" + std::to_string(place);
      config.advertise_address = "n";
      config.discovery_port = place + 1;
      config.health_check_interval_ms = 1000;
      config.seed_nodes = {"n:1"};
      return config;
    }
    static ClusterEnvironment environment(Trio& trio) {
      ClusterEnvironment env{trio};
      env.print = [](std::string_view) {};
      env.at_once = 4;
      return env;
    }

    NodeRegistry registry;
    ClusterManager manager;
    GossipProtocol gossip;
  };

  Node& node(std::size_t place) { return *nodes_[place]; }

 private:
  std::vector<std::unique_ptr<Node>> nodes_;
};

TEST(ClusterThreads, EverythingAtOnceUntilAllStop) {
  Trio trio;
  for (std::size_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(trio.node(i).manager.start());
    trio.node(i).gossip.addPeers({{"n", 1}, {"n", 2}, {"n", 3}, {"gone", 1}});
    trio.node(i).gossip.start();
  }
  std::atomic<bool> over{false};
  {
    std::vector<std::jthread> users;
    for (std::size_t i = 0; i < 3; ++i) {
      Trio::Node& node = trio.node(i);
      users.emplace_back([&] {
        while (!over) {
          node.manager.healthPass();
          node.gossip.gossipPass();
          node.manager.updateSelfMetrics(1, 2, 3);
        }
      });
      users.emplace_back([&] {
        while (!over) {
          node.manager.announcePresence();
          node.gossip.triggerSync();
          node.manager.setConfig(node.manager.getConfig());
          node.registry.unregisterNode("flood1");
        }
      });
      users.emplace_back([&, i] {
        for (int n = 0; !over; ++n) {
          const std::string id = "flood" + std::to_string(n % 20);
          node.manager.handleAnnounce({{"id", id}, {"address", "gone"}, {"api_port", n % 20}});
          GossipMessage message;
          message.id = std::to_string(i) + "-" + std::to_string(n);
          message.type = static_cast<GossipMessageType>(n % 11);
          message.sender_id = id;
          message.sender_port = n % 20;
          message.clock = {{id, static_cast<std::uint64_t>(n)}};
          node.gossip.handleMessage(message);
          node.manager.getClusterStats();
          node.gossip.getStats();
          node.registry.getNodesByType(NodeType::kController);
        }
      });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // the tasks' own passes too
    over = true;
  }
  for (std::size_t i = 0; i < 3; ++i) {
    for (std::size_t other = 0; other < 3; ++other) {
      if (i == other) continue;
      const NodePtr node = trio.node(i).registry.getNode("n" + std::to_string(other));
      ASSERT_NE(node, nullptr);
      EXPECT_TRUE(isAvailable(node->status));
    }
  }
  for (std::size_t i = 0; i < 3; ++i) {
    trio.node(i).gossip.stop();
    trio.node(i).manager.stop();
  }
}

}  // namespace
}  // namespace tavrel::cluster
