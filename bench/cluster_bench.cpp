// What a cluster of a thousand nodes costs one of them: merging a full exchange, answering one, and
// a round of pings and heartbeats.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "cluster/cluster_manager.h"
#include "cluster/gossip_message.h"
#include "cluster/gossip_protocol.h"
#include "cluster/node_registry.h"

namespace {

using nlohmann::json;
using namespace tavrel::cluster;

/// Peers that answer at once.
struct Peers : ClusterTransport {
  ClusterAnswer send(const ClusterCall& call) override {
    GossipMessage ack;
    ack.id = "ack";
    ack.type = GossipMessageType::ACK;
    ack.sender_id = call.to.host;
    return {"", 200, ack.toJson().dump()};
  }
};

ClusterEnvironment environment(Peers& peers) {
  ClusterEnvironment env{peers};
  env.print = [](std::string_view) {};
  env.at_once = 1;  // the work itself, without the threads that wait for peers
  env.threads = false;
  return env;
}

struct Node {
  Node() { config.node_id = "self"; }
  Peers peers;
  NodeRegistry registry;
  ClusterConfig config;
  ClusterManager manager{config, registry, environment(peers)};
  GossipProtocol gossip{{"self", "10.0.0.1", 8080, [this] { return manager.getSelfNode(); }},
                        registry,
                        environment(peers)};
};

NodeInfo nodeNumber(std::int64_t number) {
  NodeInfo node;
  node.id = "node-" + std::to_string(number);
  node.hostname = node.id + ".example.com";
  node.address = "10." + std::to_string(number / 62'500 % 250) + "." +
                 std::to_string(number / 250 % 250) + "." + std::to_string(number % 250);
  node.port = node.api_port = 8080;
  node.status = NodeStatus::kHealthy;
  node.version = "4.1.0";
  return node;
}

GossipMessage syncOf(std::int64_t nodes) {
  GossipMessage message;
  message.type = GossipMessageType::SYNC;
  json list = json::array();
  for (std::int64_t i = 0; i < nodes; ++i) list.push_back(nodeNumber(i).toJson());
  message.payload = {{"nodes", std::move(list)}};
  return message;
}

/// Merges a registry, all of it known, and answers with the own one.
void answerSync(benchmark::State& state) {
  Node node;
  GossipMessage message = syncOf(state.range(0));
  std::int64_t number = 0;
  for (auto _ : state) {
    message.id = std::to_string(number++);
    benchmark::DoNotOptimize(node.gossip.handleMessage(message));
  }
}

/// The same from text to text, as the route does it.
void answerSyncAsText(benchmark::State& state) {
  Node node;
  GossipMessage message = syncOf(state.range(0));
  std::int64_t number = 0;
  for (auto _ : state) {
    state.PauseTiming();
    message.id = std::to_string(number++);
    const std::string text = message.toJson().dump();
    state.ResumeTiming();
    const GossipMessage read = GossipMessage::fromJson(json::parse(text));
    benchmark::DoNotOptimize(node.gossip.handleMessage(read).toJson().dump());
  }
}

void gossipRound(benchmark::State& state) {
  Node node;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    const std::string address = "p" + std::to_string(i);
    node.gossip.addPeer(address, 8080);
  }
  for (auto _ : state) node.gossip.gossipPass();
}

void healthPass(benchmark::State& state) {
  Node node;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    node.manager.handleAnnounce(nodeNumber(i).toJson());
  }
  for (auto _ : state) node.manager.healthPass();
}

BENCHMARK(answerSync)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(answerSyncAsText)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(gossipRound)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(healthPass)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
