// What it costs to choose among ten thousand nodes, per strategy.

#include <benchmark/benchmark.h>

#include <string>

#include "cluster/load_balancer.h"
#include "cluster/node_registry.h"

namespace {

using namespace tavrel::cluster;

void chooseAmong(benchmark::State& state) {
  NodeRegistry registry;
  for (std::int64_t i = 0; i < state.range(1); ++i) {
    NodeInfo node;
    node.id = "node-" + std::to_string(i);
    node.type = NodeType::kWorker;
    node.status = NodeStatus::kHealthy;
    node.load_factor = static_cast<double>(i * 7919 % 10'007);
    node.weight = static_cast<std::int32_t>(i % 100);
    registry.registerNode(node);
  }
  LoadBalancer balancer(registry, static_cast<LoadBalanceStrategy>(state.range(0)));
  for (auto _ : state) {
    const NodePtr node = balancer.selectNode(NodeType::kWorker);
    benchmark::DoNotOptimize(node.get());
    balancer.incrementConnections(node->id);
  }
}
BENCHMARK(chooseAmong)
    ->ArgNames({"strategy", "nodes"})
    ->ArgsProduct({{0, 1, 2, 3, 4}, {10, 10'000}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
