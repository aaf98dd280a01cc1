// What choosing a worker costs when every worker has the model, and with heartbeats in between.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "inference/load_selector.h"

namespace {

using tavrel::inference::LoadSelector;
using tavrel::worker::WorkerInfo;
using tavrel::worker::WorkerRegistry;

std::string idOf(std::int64_t number) {
  char id[24];
  std::snprintf(id, sizeof id, "w%08lld", static_cast<long long>(number));
  return id;
}

void fill(WorkerRegistry& registry, std::int64_t workers, bool loaded) {
  for (std::int64_t i = 0; i < workers; ++i) {
    WorkerInfo info;
    info.worker_id = info.worker_name = idOf(i);
    info.status = tavrel::worker::WorkerStatus::kOnline;
    info.capabilities.installed_models = {"model", "other"};
    info.metrics.cpu_usage = loaded ? static_cast<float>(1 + i % 90) : 0;
    registry.registerWorker(std::move(info), false);
  }
}

void chooseByLoad(benchmark::State& state) {
  WorkerRegistry registry;
  fill(registry, state.range(0), true);
  LoadSelector selector(registry);
  selector.select("model");  // the first one takes all the workers in
  for (auto _ : state) benchmark::DoNotOptimize(selector.select("model"));
}

void chooseInTurn(benchmark::State& state) {
  WorkerRegistry registry;
  fill(registry, state.range(0), false);
  LoadSelector selector(registry);
  selector.select("model");  // the first one takes all the workers in
  for (auto _ : state) benchmark::DoNotOptimize(selector.select("model"));
}

/// One heartbeat with a changed load before every choice: far more than there are in a real
/// cluster.
void chooseAfterAHeartbeat(benchmark::State& state) {
  WorkerRegistry registry;
  fill(registry, state.range(0), true);
  LoadSelector selector(registry);
  selector.select("model");
  std::int64_t beat = 0;
  for (auto _ : state) {
    registry.update(idOf(beat * 7919 % state.range(0)), [&](WorkerInfo& info) {
      info.metrics.cpu_usage = static_cast<float>(1 + beat % 83);
    });
    ++beat;
    benchmark::DoNotOptimize(selector.select("model"));
  }
}

/// A pause so long that every worker sent a heartbeat meanwhile.
void chooseAfterAPause(benchmark::State& state) {
  WorkerRegistry registry;
  fill(registry, state.range(0), true);
  LoadSelector selector(registry);
  selector.select("model");
  float load = 0;
  for (auto _ : state) {
    state.PauseTiming();
    load = load < 80 ? load + 1 : 1;
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      registry.update(idOf(i), [&](WorkerInfo& info) {
        info.metrics.cpu_usage = load + static_cast<float>(i % 7);
      });
    }
    state.ResumeTiming();
    benchmark::DoNotOptimize(selector.select("model"));
  }
}

BENCHMARK(chooseByLoad)->Arg(10)->Arg(1000)->Arg(100'000);
BENCHMARK(chooseInTurn)->Arg(10)->Arg(1000)->Arg(100'000);
BENCHMARK(chooseAfterAHeartbeat)->Arg(10)->Arg(1000)->Arg(100'000);
BENCHMARK(chooseAfterAPause)->Arg(10)->Arg(1000)->Arg(100'000);

}  // namespace
