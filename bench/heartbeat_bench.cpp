#include <benchmark/benchmark.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "worker/worker_info.h"
#include "worker/worker_registry.h"

// What a heartbeat costs, and what the registry's size does to it.
namespace {

using nlohmann::json;
using tavrel::worker::WorkerInfo;
using tavrel::worker::WorkerRegistry;

const tavrel::platform::WallTime kStart{std::chrono::seconds{1'700'000'000}};
constexpr int kModels = 40;

/// A heartbeat of a worker with eight GPUs, three running and forty installed models.
std::string heartbeatText() {
  json models = json::array();
  for (int i = 0; i < kModels; ++i) models.push_back("family-" + std::to_string(i) + ":70b-q4");
  json running = json::array();
  for (int i = 0; i < 3; ++i) {
    running.push_back({{"name", models[static_cast<std::size_t>(i)]},
                       {"backend", "vllm"},
                       {"model_id", "id-" + std::to_string(i)},
                       {"memory_usage", 40'000'000'000},
                       {"gpu_index", i},
                       {"requests_served", 1234},
                       {"avg_latency_ms", 87.5}});
  }
  json gpus = json::array();
  for (int i = 0; i < 8; ++i) {
    gpus.push_back({{"index", i},
                    {"name", "Accelerator 80GB"},
                    {"vendor", "maker"},
                    {"memory_total", 80'000'000'000},
                    {"memory_used", 41'000'000'000},
                    {"memory_free", 39'000'000'000},
                    {"utilization", 63.5},
                    {"temperature", 71.0},
                    {"cuda_available", true}});
  }
  return json{{"backend_type", "vllm"},
              {"capabilities", {{"has_gpu", true}, {"installed_models", models}}},
              {"running_models", running},
              {"metrics",
               {{"cpu", {{"model", "Processor"}, {"cores", 64}, {"usage_percent", 31.5}}},
                {"memory", {{"total", 512}, {"used", 100}, {"available", 412}}},
                {"disk", {{"total", 4000}, {"used", 1000}, {"free", 3000}}},
                {"system", {{"uptime_seconds", 86400}, {"load_average", {1.5, 2.5, 3.5}}}},
                {"gpus", gpus}}},
              {"config_id", "c1"}}
      .dump();
}

std::unique_ptr<WorkerRegistry> registryOf(std::int64_t workers) {
  auto registry = std::make_unique<WorkerRegistry>();
  const json body = json::parse(heartbeatText());
  for (std::int64_t i = 0; i < workers; ++i) {
    WorkerInfo worker = tavrel::worker::workerFromRegistration(body, kStart);
    tavrel::worker::applyHeartbeat(worker, body, kStart);
    worker.worker_id = "worker-" + std::to_string(i);
    worker.worker_name = "rig-" + std::to_string(i);
    registry->registerWorker(std::move(worker), true);
  }
  return registry;
}

void parseHeartbeat(benchmark::State& state) {
  const std::string text = heartbeatText();
  for (auto _ : state) benchmark::DoNotOptimize(json::parse(text));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(parseHeartbeat);

void applyHeartbeat(benchmark::State& state) {
  const json body = json::parse(heartbeatText());
  WorkerInfo worker;
  for (auto _ : state) {
    tavrel::worker::applyHeartbeat(worker, body, kStart);
    benchmark::DoNotOptimize(worker);
  }
}
BENCHMARK(applyHeartbeat);

// Copy, apply, store: everything after parsing.
void heartbeatInRegistry(benchmark::State& state) {
  const auto registry = registryOf(state.range(0));
  const json body = json::parse(heartbeatText());
  std::int64_t next = 0;
  for (auto _ : state) {
    const std::string id = "worker-" + std::to_string(next = (next + 7919) % state.range(0));
    registry->update(
        id, [&](WorkerInfo& worker) { tavrel::worker::applyHeartbeat(worker, body, kStart); });
  }
}
BENCHMARK(heartbeatInRegistry)->Arg(10)->Arg(1000)->Arg(100000);

void reapNobody(benchmark::State& state) {
  const auto registry = registryOf(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(registry->reap(kStart));
}
BENCHMARK(reapNobody)->Arg(10)->Arg(1000)->Arg(100000);

// Every tenth worker has sent a heartbeat since the last listing.
void listWorkers(benchmark::State& state) {
  const auto registry = registryOf(state.range(0));
  registry->listing();
  for (auto _ : state) {
    state.PauseTiming();
    for (std::int64_t i = 0; i < state.range(0); i += 10) {
      registry->update("worker-" + std::to_string(i),
                       [](WorkerInfo& worker) { ++worker.config_timestamp; });
    }
    state.ResumeTiming();
    benchmark::DoNotOptimize(registry->listing());
  }
}
BENCHMARK(listWorkers)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

void followChanges(benchmark::State& state) {
  const auto registry = registryOf(state.range(0));
  std::uint64_t since = registry->version();
  for (auto _ : state) {
    registry->update("worker-0", [](WorkerInfo& worker) { ++worker.config_timestamp; });
    std::vector<tavrel::worker::WorkerChange> changes;
    bool complete = false;
    since = registry->changesSince(since, changes, &complete);
    benchmark::DoNotOptimize(changes);
  }
}
BENCHMARK(followChanges)->Arg(10)->Arg(1000)->Arg(100000);

}  // namespace
