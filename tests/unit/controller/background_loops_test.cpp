#include "controller/background_loops.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <thread>

namespace tavrel::controller {
namespace {

using namespace std::chrono_literals;

worker::WorkerInfo reporting(const std::string& id, float cpu, std::uint64_t used,
                             std::vector<float> gpus) {
  worker::WorkerInfo worker;
  worker.worker_id = id;
  worker.worker_name = id;
  worker.status = worker::WorkerStatus::kOnline;
  worker.metrics.cpu_cores = 4;
  worker.metrics.cpu_usage = cpu;
  worker.metrics.memory_total = used == 0 ? 0 : 1000;
  worker.metrics.memory_used = used;
  for (const float utilization : gpus) {
    worker::GPUInfo gpu;
    gpu.utilization = utilization;
    gpu.memory_total = 80;
    gpu.memory_used = 20;
    worker.metrics.gpus.push_back(gpu);
  }
  return worker;
}

TEST(ClusterSample, AveragesOverWorkersAndOverGpus) {
  worker::WorkerRegistry workers;
  const cluster::RouterRegistry routers;
  const worker::TypedWorkerRegistries typed;
  const platform::WallTime now{1000s};
  EXPECT_EQ(sampleCluster(workers, routers, typed, now).cpu_avg_usage, 0);

  workers.registerWorker(reporting("a", 10, 500, {30, 60}), false);
  workers.registerWorker(reporting("b", 50, 100, {90}), false);
  workers.registerWorker(reporting("c", 0, 0, {}), false);
  workers.update("c", [](worker::WorkerInfo& w) { w.status = worker::WorkerStatus::kOffline; });
  const auto point = sampleCluster(workers, routers, typed, now);
  EXPECT_EQ(point.timestamp, now);
  EXPECT_EQ(point.workers_total, 3);
  EXPECT_EQ(point.workers_online, 2);
  EXPECT_EQ(point.total_cores, 12);
  EXPECT_FLOAT_EQ(point.cpu_avg_usage, 20);
  EXPECT_FLOAT_EQ(point.cpu_max_usage, 50);
  EXPECT_EQ(point.memory_total, 2000U);
  EXPECT_EQ(point.memory_used, 600U);
  EXPECT_FLOAT_EQ(point.memory_avg_usage, 20);
  EXPECT_EQ(point.total_gpus, 3);
  EXPECT_FLOAT_EQ(point.gpu_avg_usage, 60);
  EXPECT_EQ(point.gpu_total_memory, 240U);
  EXPECT_EQ(point.gpu_memory_used, 60U);
}

TEST(ClusterSample, WorkersThatClaimAnyNumberOfCoresDoNotOverflowTheSum) {
  worker::WorkerRegistry workers;
  for (const char* id : {"a", "b"}) {
    worker::WorkerInfo worker = reporting(id, 0, 0, {});
    worker.metrics.cpu_cores = std::numeric_limits<std::int32_t>::max();
    workers.registerWorker(std::move(worker), false);
  }
  EXPECT_EQ(sampleCluster(workers, cluster::RouterRegistry(), worker::TypedWorkerRegistries(),
                          platform::WallTime{1000s})
                .total_cores,
            std::numeric_limits<std::int32_t>::max());
}

TEST(BackgroundLoops, ForgetExpiredTokens) {
  worker::WorkerRegistry workers;
  const cluster::RouterRegistry routers;
  worker::TypedWorkerRegistries typed;
  metrics::MetricsHistory history;
  platform::WallTime now{1000s};
  api::AuthMiddleware auth({[&now] { return now; }, [] { return platform::SteadyTime(1s); }});
  auth.issueToken("tool", "tool", {}, 60);
  now += 60s;
  const std::string kept = auth.issueToken("tool", "tool", {}, 60);
  BackgroundLoops loops(workers, routers, typed, history, auth);
  loops.start();
  for (int i = 0; i < 500 && auth.getStats().at("active_tokens_count") != 1; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(auth.getStats().at("active_tokens_count"), 1);
  EXPECT_TRUE(auth.validateToken(kept).has_value());
}

}  // namespace
}  // namespace tavrel::controller
