#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "cluster/cluster_manager.h"
#include "cluster/gossip_protocol.h"
#include "cluster/node_registry.h"
#include "controller/routes/families.h"
#include "net/http_client.h"
#include "support/json_client.h"
#include "support/test_server.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

constexpr const char* kClusterKey = "the key";

/// A controller's cluster side, over real HTTP. Its passes are called by the tests. Joins and
/// gossip need the cluster's key.
struct ClusterNode {
  explicit ClusterNode(const std::string& node_id, const std::vector<std::string>& seeds = {},
                       const std::string& key = kClusterKey)
      : id(node_id), transport(http, key), manager(config(seeds), registry, environment()) {
    api::RouteBook book;
    controller::addClusterRoutes(book, &manager, &registry, &gossip);
    book.get("/api/v1/health", [](auto&, auto&) { return api::Response::ok({{"cpu_usage", 7}}); });
    for (api::Route route : book.routes()) {
      if (route.method == "POST") route.middlewares.push_back(demandKey);
      server.server().addRoute(route);
    }
  }

  json get(const std::string& path) { return JsonClient(server).get(path).json; }
  json nodes() { return get("/api/v1/cluster/stats")["nodes"]; }

  const std::string id;
  TestServer server{api::RouteBook{}};
  net::HttpClient http;
  cluster::HttpClusterTransport transport;
  cluster::NodeRegistry registry;
  cluster::ClusterManager manager;
  cluster::GossipProtocol gossip{
      {id, "127.0.0.1", server.port(), [this] { return manager.getSelfNode(); }},
      registry,
      environment()};

 private:
  static api::Response demandKey(api::Context& context, const api::Request& req,
                                 const api::Handler& next) {
    if (req.getHeader("X-API-Key") == kClusterKey) return next(context, req);
    return api::Response::error(401, "Unauthorized");
  }
  cluster::ClusterConfig config(const std::vector<std::string>& seeds) const {
    cluster::ClusterConfig config;
    config.node_id = id;
    config.advertise_address = "127.0.0.1";
    config.discovery_port = server.port();
    config.seed_nodes = seeds;
    return config;
  }
  cluster::ClusterEnvironment environment() {
    cluster::ClusterEnvironment env{transport};
    env.print = [](std::string_view) {};
    env.threads = false;
    return env;
  }
};

TEST(ClusterRoutes, NodesFindEachOtherThroughTheirSeedAndLoseEachOther) {
  ClusterNode seed("seed");
  seed.manager.start();
  const std::string address = "127.0.0.1:" + std::to_string(seed.server.port());
  auto first = std::make_unique<ClusterNode>("first", std::vector{address});
  first->manager.start();
  ClusterNode second("second", {address});
  second.manager.start();
  EXPECT_EQ(first->nodes().size(), 2u);
  EXPECT_EQ(second.nodes().size(), 3u);
  second.manager.announcePresence();
  ASSERT_EQ(first->nodes().size(), 3u);
  EXPECT_EQ(first->registry.getNode("second")->port, second.server.port());
  EXPECT_EQ(seed.get("/api/v1/cluster/self")["api_port"], seed.server.port());

  second.manager.checkAllNodesHealth();
  EXPECT_EQ(second.registry.getNode("first")->cpu_usage, 7);
  first = nullptr;
  for (int i = 0; i < 3; ++i) second.manager.checkAllNodesHealth();
  EXPECT_EQ(second.registry.getNode("first")->status, cluster::NodeStatus::kUnhealthy);
  EXPECT_EQ(second.registry.getNode("seed")->status, cluster::NodeStatus::kHealthy);

  ClusterNode stranger("stranger", {address}, "another key");
  EXPECT_FALSE(stranger.manager.joinCluster(address));
  EXPECT_EQ(seed.registry.getNode("stranger"), nullptr);
}

TEST(ClusterRoutes, PeersGossipTheirRegistries) {
  ClusterNode a("a");
  ClusterNode b("b");
  ClusterNode c("c");
  JsonClient operator_of_b(b.server);
  b.gossip.addPeer("127.0.0.1", a.server.port());
  EXPECT_EQ(
      b.get("/api/v1/cluster/gossip/peers"),
      (json{{"peers",
             {{{"id", "a"}, {"address", "127.0.0.1"}, {"port", a.server.port()}, {"status", 2}}}},
            {"peer_count", 1},
            {"alive_peers", 1}}));
  EXPECT_EQ(a.get("/api/v1/cluster/gossip/peers")["peers"][0]["id"], "b");
  EXPECT_EQ(a.registry.getNode("b")->port, b.server.port());
  c.gossip.addPeer("127.0.0.1", b.server.port());
  b.gossip.triggerSync();
  EXPECT_EQ(a.registry.getNode("c")->port, c.server.port());
  a.manager.healthPass();
  EXPECT_EQ(a.nodes().size(), 2u);
  b.gossip.gossipPass();
  EXPECT_TRUE(a.get("/api/v1/cluster/gossip/stats")["clock"].contains("b"));
  EXPECT_GT(b.get("/api/v1/cluster/gossip/stats")["messages_sent"], 4);
}

/// The routes of a process with the given parts, without a key.
struct PlainServer {
  PlainServer(cluster::ClusterManager* manager, cluster::NodeRegistry* registry,
              cluster::GossipProtocol* gossip)
      : server([=] {
          api::RouteBook book;
          controller::addClusterRoutes(book, manager, registry, gossip);
          return book;
        }()) {}
  TestServer server;
  JsonClient client{server};
};

TEST(ClusterRoutes, WithoutAClusterTheRoutesSaySo) {
  cluster::NodeRegistry registry;
  PlainServer plain(nullptr, &registry, nullptr);
  JsonClient& client = plain.client;
  for (const char* path : {"/api/v1/cluster/stats", "/api/v1/cluster/self"}) {
    EXPECT_EQ(client.get(path).status, 503);
    EXPECT_EQ(client.get(path).error(), "Cluster not initialized");
  }
  EXPECT_EQ(client.post("/cluster/join", {{"id", "a"}}).body, R"({"nodes":[],"success":true})");
  EXPECT_EQ(client.post("/cluster/announce", {{"id", "b"}}).body, R"({"success":true})");
  EXPECT_EQ(client.get("/api/v1/cluster/gossip/peers").body, R"({"peers":[]})");
  EXPECT_EQ(
      client.get("/api/v1/cluster/gossip/stats").json,
      (json{{"enabled", false},
            {"message", "Gossip protocol not enabled. Use --peer to add peer controllers."}}));
  for (const char* path :
       {"/gossip", "/api/v1/cluster/gossip/peers", "/api/v1/cluster/gossip/sync"}) {
    EXPECT_EQ(client.postText(path, "{").status, 503) << path;
    EXPECT_EQ(client.postText(path, "{").error(), "Gossip protocol not enabled") << path;
  }
}

TEST(ClusterRoutes, WhatOthersSendIsReadOrRefused) {
  ClusterNode node("self");
  node.manager.start();
  PlainServer plain(&node.manager, &node.registry, &node.gossip);
  JsonClient& client = plain.client;
  for (const char* path :
       {"/cluster/join", "/cluster/announce", "/gossip", "/api/v1/cluster/gossip/peers"}) {
    EXPECT_EQ(client.postText(path, "{").error(), "Invalid JSON body") << path;
    EXPECT_EQ(client.postText(path, "{").status, 400) << path;
    EXPECT_EQ(client.postText(path, "[]").status, 500) << path;
  }
  EXPECT_EQ(client.post("/cluster/join", {{"id", "a"}, {"port", "x"}}).status, 500);
  EXPECT_EQ(client.post("/cluster/join", {{"hostname", "nameless"}}).json["nodes"].size(), 1u);
  const json joined = client.post("/cluster/join", {{"id", "a"}, {"version", "9"}}).json;
  EXPECT_EQ(joined["nodes"][0]["port"], 8080);
  EXPECT_EQ(joined["nodes"][0]["status"], 2);
  EXPECT_EQ(client.post("/cluster/announce", {{"id", "a"}, {"type", 1}}).json["success"], true);
  EXPECT_EQ(node.registry.getNode("a")->version, "9");
  EXPECT_EQ(client.get("/api/v1/cluster/stats").json["nodes_by_type"],
            (json{{"controller", 1}, {"worker", 1}}));

  EXPECT_EQ(client.post("/gossip", {{"type", "PING"}}).status, 500);
  EXPECT_EQ(client.post("/gossip", {{"id", "1"}}).json["type"], 1);
  EXPECT_EQ(client.post("/api/v1/cluster/gossip/peers", {{"port", 1}}).error(),
            "address is required");
  EXPECT_EQ(client.post("/api/v1/cluster/gossip/peers", {{"address", "no/host"}}).json["message"],
            "Peer added: no/host:8080");
  EXPECT_EQ(client.get("/api/v1/cluster/gossip/peers").json["peers"][0]["status"], 0);
  EXPECT_EQ(client.post("/api/v1/cluster/gossip/sync", json::object()).json,
            (json{{"success", true}, {"message", "Sync triggered"}}));
}

TEST(ClusterRoutes, TenThousandAnnouncedNodesAreListed) {
  ClusterNode node("self");
  PlainServer plain(&node.manager, &node.registry, &node.gossip);
  for (int i = 0; i < 9999; ++i) {
    node.manager.handleAnnounce({{"id", "n" + std::to_string(i)}, {"address", "10.9.9.9"}});
  }
  plain.client.post("/cluster/announce", {{"id", "last"}});
  EXPECT_EQ(plain.client.get("/api/v1/cluster/stats").json["total_nodes"], 10'000);
}

}  // namespace
}  // namespace tavrel::test
