#include "worker/worker_info.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

namespace tavrel::worker {
namespace {

using nlohmann::json;
using std::chrono::seconds;

const platform::WallTime kNow{seconds{1'700'000'000}};

json fullHeartbeat() {
  return json::parse(R"({
    "backend_type": "vllm",
    "capabilities": {"has_gpu": true, "installed_models": ["b", "a"]},
    "running_models": [{"name": "a", "backend": "vllm", "model_id": "a:7b", "memory_usage": 5,
                        "gpu_index": 1, "loaded_at": 1699999999, "requests_served": 4,
                        "tokens_generated": 90, "avg_latency_ms": 12.5}],
    "metrics": {"cpu": {"model": "x", "cores": 8, "threads": 16, "usage_percent": 12.5,
                        "temperature": 60},
                "memory": {"total": 100, "used": 40, "available": 60},
                "disk": {"total": 10, "used": 4, "free": 6},
                "network": {"rx_bytes": 7, "tx_bytes": 8},
                "system": {"uptime_seconds": 99, "load_average": [1, 2.5, 3]},
                "gpus": [{"index": 0, "name": "g", "vendor": "v", "memory_total": 24,
                          "memory_used": 4, "memory_free": 20, "utilization": 50,
                          "temperature": 70, "power_draw": 300, "cuda_available": true}]},
    "config_id": "c1", "config_timestamp": 1234, "config_dirty": true})");
}

TEST(WorkerInfo, DefaultRecordSerialises) {
  const json record = WorkerInfo{}.toJson();
  EXPECT_EQ(record["status"], "starting");
  EXPECT_EQ(record["port"], 8090);
  EXPECT_EQ(record["worker_type"], "inference");
  EXPECT_EQ(record["capabilities"]["max_models"], 1);
  EXPECT_EQ(record["registered_at"], 0);
  EXPECT_EQ(record["last_heartbeat"], 0);
  EXPECT_TRUE(record["labels"].is_object());
  EXPECT_TRUE(record["running_models"].is_array());
  EXPECT_EQ(record.size(), 23u);
  EXPECT_EQ(record["capabilities"].size(), 24u);
}

TEST(WorkerInfo, CredentialOfABackendNeverLeaves) {
  WorkerInfo worker;
  worker.capabilities.backend_endpoints.push_back(
      {InferenceBackend::kVllm, "http://b", "s3cret", true, "m", {"m"}, 1000});
  const json record = worker.toJson();
  EXPECT_EQ(record.dump().find("s3cret"), std::string::npos);
  EXPECT_EQ(record["capabilities"]["backend_endpoints"][0]["type"], "vllm");
}

TEST(InferenceBackend, TextsReadBackAndAliasesAreKnown) {
  for (int value = 0; value <= 41; ++value) {
    const auto backend = static_cast<InferenceBackend>(value);
    EXPECT_EQ(inferenceBackendFromString(inferenceBackendToString(backend)), backend);
  }
  EXPECT_EQ(inferenceBackendToString(InferenceBackend::kDeepseek), "deepseek");
  EXPECT_EQ(inferenceBackendToString(InferenceBackend::kForge), "forge");
  EXPECT_EQ(inferenceBackendFromString("vl-jepa"), InferenceBackend::kMetaVljepa);
  EXPECT_EQ(inferenceBackendFromString("xLSTM_cloud"), InferenceBackend::kXlstmCloud);
  EXPECT_EQ(inferenceBackendFromString("Ollama"), InferenceBackend::kCustom);
  EXPECT_EQ(inferenceBackendFromString("unknown"), InferenceBackend::kCustom);
  EXPECT_EQ(inferenceBackendToString(static_cast<InferenceBackend>(99)), "unknown");
  EXPECT_EQ(inferenceBackendToString(static_cast<InferenceBackend>(-1)), "unknown");
  EXPECT_EQ(workerStatusToString(static_cast<WorkerStatus>(6)), "unknown");
}

TEST(WorkerReader, RegistrationFillsDefaultsAndReadsOnlyItsKeys) {
  const WorkerInfo bare = workerFromRegistration(json::object(), kNow);
  EXPECT_EQ(bare.port, 8090);
  EXPECT_EQ(bare.worker_type, "inference");
  EXPECT_EQ(bare.status, WorkerStatus::kOnline);
  EXPECT_EQ(bare.registered_at, kNow);
  EXPECT_EQ(bare.last_heartbeat, kNow);

  const WorkerInfo full = workerFromRegistration(
      json::parse(R"({"worker_id": "w", "port": 1, "status": "busy", "capabilities":
        {"supports_forge": true, "supports_tgi": true, "gpu_count": 4,
         "available_backends": ["vllm"], "installed_models": "none"}})"),
      kNow);
  EXPECT_EQ(full.worker_id, "w");
  EXPECT_EQ(full.status, WorkerStatus::kOnline);
  EXPECT_TRUE(full.capabilities.supports_forge);
  EXPECT_FALSE(full.capabilities.supports_tgi);
  EXPECT_EQ(full.capabilities.gpu_count, 0);
  EXPECT_EQ(full.capabilities.available_backends, std::vector<std::string>{"vllm"});
  EXPECT_TRUE(full.capabilities.installed_models.empty());
}

TEST(WorkerReader, HeartbeatReplacesWhatItCarriesAndKeepsTheRest) {
  WorkerInfo worker = workerFromRegistration(json{{"worker_id", "w"}}, kNow);
  worker.status = WorkerStatus::kMaintenance;
  worker.capabilities.has_cuda = true;
  applyHeartbeat(worker, fullHeartbeat(), kNow + seconds{5});
  EXPECT_EQ(worker.status, WorkerStatus::kOnline);
  EXPECT_EQ(worker.registered_at, kNow);
  EXPECT_EQ(worker.last_heartbeat, kNow + seconds{5});
  EXPECT_TRUE(worker.capabilities.has_cuda);

  // What came in goes out in the same shape.
  const json sent = fullHeartbeat();
  const json record = worker.toJson();
  EXPECT_EQ(record["running_models"], sent["running_models"]);
  for (const char* part : {"cpu", "memory", "disk", "network", "system"}) {
    EXPECT_EQ(record["metrics"][part], sent["metrics"][part]) << part;
  }
  EXPECT_EQ(record["metrics"]["gpus"][0]["power_draw"], 300);
  EXPECT_EQ(record["metrics"]["timestamp"], 1'700'000'005'000);
  EXPECT_EQ(record["config_timestamp"], 1234);

  applyHeartbeat(worker, json::parse(R"({"metrics": {"cpu": {"usage_percent": 99}},
    "capabilities": {"supports_vllm": true}, "installed_models": ["c"]})"),
                 kNow + seconds{10});
  EXPECT_EQ(worker.metrics.cpu_usage, 99);
  EXPECT_EQ(worker.metrics.cpu_cores, 8);
  EXPECT_EQ(worker.metrics.gpus.size(), 1u);
  EXPECT_TRUE(worker.capabilities.has_gpu);
  EXPECT_TRUE(worker.capabilities.supports_vllm);
  EXPECT_EQ(worker.capabilities.installed_models, std::vector<std::string>{"c"});
  EXPECT_EQ(worker.config_id, "c1");
}

TEST(WorkerReader, NumbersBeyondTheirFieldBecomeTheNearestValue) {
  WorkerInfo worker = workerFromRegistration(json::parse(R"({"port": 1e300})"), kNow);
  EXPECT_EQ(worker.port, std::numeric_limits<std::int32_t>::max());
  worker = workerFromRegistration(json::parse(R"({"port": -9223372036854775808})"), kNow);
  EXPECT_EQ(worker.port, std::numeric_limits<std::int32_t>::min());
  applyHeartbeat(worker, json::parse(R"({"config_timestamp": 18446744073709551615,
    "running_models": [{"memory_usage": -5, "requests_served": 18446744073709551615,
                        "tokens_generated": 1.9e19, "loaded_at": 1e300, "avg_latency_ms": 1e300},
                       {"loaded_at": -9223372036854775808, "memory_usage": -1e300}],
    "metrics": {"timestamp": 9223372036854775807, "cpu": {"cores": 3.9}}})"),
                 kNow);
  const RunningModel& model = worker.running_models[0];
  EXPECT_EQ(model.memory_usage, 0u);
  EXPECT_EQ(model.requests_served, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(model.tokens_generated, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(model.avg_latency_ms, std::numeric_limits<float>::max());
  EXPECT_EQ(worker.metrics.cpu_cores, 3);
  EXPECT_EQ(worker.config_timestamp, std::numeric_limits<std::int64_t>::max());
  EXPECT_GT(worker.toJson()["running_models"][0]["loaded_at"], 0);
  EXPECT_LT(worker.toJson()["running_models"][1]["loaded_at"], 0);
}

TEST(WorkerReader, WrongTypesAreRaised) {
  for (const char* body :
       {R"({"backend_url": 1})", R"({"metrics": []})", R"({"metrics": {"cpu": 1}})",
        R"({"metrics": {"gpus": {}}})", R"({"metrics": {"gpus": [1]}})",
        R"({"metrics": {"system": {"load_average": ["a"]}}})", R"({"running_models": "a"})",
        R"({"running_models": [{"gpu_index": true}]})", R"({"installed_models": [1]})",
        R"({"config_dirty": 1})", R"({"capabilities": {"has_gpu": "yes"}})", "[]", "null"}) {
    WorkerInfo worker;
    EXPECT_THROW(applyHeartbeat(worker, json::parse(body), kNow), json::exception) << body;
  }
}

}  // namespace
}  // namespace tavrel::worker
