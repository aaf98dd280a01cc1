#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "process/controller_process.h"
#include "process/dev_worker_process.h"
#include "support/mock_peer.h"

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

/// A controller with a few development workers that have told it of themselves.
class Fleet {
 public:
  explicit Fleet(int workers) {
    for (int i = 0; i < workers; ++i) {
      const std::string id = "w" + std::to_string(i);
      workers_.push_back(std::make_unique<DevWorker>(std::vector<std::string>{
          "--controller", "http://127.0.0.1:" + std::to_string(controller.port()), "--id", id,
          "--heartbeat-ms", "20", "--model", i == 0 ? "base" : "other"}));
      controller.getUntil("/api/v1/workers/" + id, "\"online\"");
    }
  }

  json get(const std::string& path) const { return jsonOf(controller.get(path)); }
  json post(const std::string& path, const json& body) const {
    return jsonOf(controller.request("POST", path, body.dump()));
  }
  json distribute(json body) const {
    body["workers"] = {"w1", "w2"};
    return post("/api/v1/models/distribute", body);
  }
  /// The models on the workers, as soon as one of them is listed.
  std::string modelsOnce(const std::string& name) const {
    return controller.getUntil("/v1/models", "\"" + name + "\"");
  }
  /// A pipeline once it has the status.
  json pipelineOnce(const std::string& id, const std::string& status) const {
    return jsonOf(controller.getUntil("/api/v1/pipeline/" + id,
                                      "\"status\":\"" + status + "\",\"strategy\""));
  }
  std::string urlOf(int worker) const {
    return "http://127.0.0.1:" + std::to_string(workers_[static_cast<std::size_t>(worker)]->port());
  }
  DevWorker& worker(std::size_t index) { return *workers_[index]; }

  Controller controller;

 private:
  std::vector<std::unique_ptr<DevWorker>> workers_;
};

std::string statuses(const json& distributed) {
  std::string text;
  for (const json& result : distributed.at("results")) {
    text += result.at("status").get<std::string>() + ' ';
  }
  return text;
}

TEST(ModelProcess, ModelsReachWorkersFromEverySourceAndRunAsAPipeline) {
  Fleet fleet(3);
  const json pull = fleet.post("/api/v1/models/pull", {{"model", "pulled"}, {"all", true}});
  EXPECT_EQ(pull.at("workers_total"), 3);
  const std::string job = pull.at("job_id");
  fleet.controller.getUntil("/api/v1/models/pull-jobs/" + job,
                            "\"status\":\"completed\",\"workers");
  EXPECT_EQ(fleet.get("/api/v1/models/pull-jobs/" + job)["workers_completed"], 3);
  fleet.modelsOnce("pulled");

  EXPECT_EQ(statuses(fleet.distribute({{"model", "from-library"}})), "completed completed ");
  EXPECT_EQ(
      statuses(fleet.distribute({{"model", "from-url"},
                                 {"source", "url"},
                                 {"source_url", fleet.urlOf(0) + "/api/v1/models/base/download"}})),
      "completed completed ");
  EXPECT_EQ(
      statuses(fleet.distribute({{"model", "base"}, {"source", "worker"}, {"source_id", "w0"}})),
      "success success ");
  // A worker can stand for a data worker with storage.
  fleet.post("/api/v1/data-workers/register",
             {{"id", "store"}, {"url", fleet.urlOf(0)}, {"storage_enabled", true}});
  EXPECT_EQ(statuses(fleet.distribute({{"model", "base"}, {"source", "registry"}})),
            "completed completed ");
  const std::string listed = fleet.modelsOnce("from-url");
  EXPECT_THAT(listed, testing::HasSubstr("\"base\""));
  EXPECT_EQ(fleet.get("/api/v1/model-registry/base")["format"], "gguf");

  const json deployed = fleet.post("/api/v1/pipeline/deploy",
                                   {{"model_id", "base"}, {"workers", {"w0", "w1", "w2"}}});
  const std::string id = deployed.at("pipeline_id");
  EXPECT_EQ(deployed.at("total_layers"), 32);
  EXPECT_EQ(fleet.pipelineOnce(id, "ready")["shards"][2]["layer_end"], 32);

  fleet.worker(1).process().signal(SIGKILL);
  EXPECT_EQ(fleet.worker(1).process().waitForExit(10s), 128 + SIGKILL);
  fleet.controller.request("DELETE", "/api/v1/workers/w1");
  EXPECT_EQ(fleet.post("/api/v1/pipeline/rebalance", {{"pipeline_id", id}})["workers_online"], 2);
  EXPECT_EQ(fleet.pipelineOnce(id, "ready")["shard_count"], 2);
  EXPECT_EQ(fleet.post("/api/v1/pipeline/undeploy", {{"pipeline_id", id}})["status"], "undeployed");
  EXPECT_EQ(fleet.get("/api/v1/pipeline/status")["count"], 0);
  EXPECT_TRUE(fleet.worker(0).process().waitForLine("[DevWorker] Unloaded the shard of " + id, 5s));
}

TEST(ModelProcess, ASignalEndsTheControllerPromptlyDuringHangingPulls) {
  MockPeer hanging([](MockConnection& connection) { connection.readRequest(); });
  Controller controller;
  for (int i = 0; i < 260; ++i) {
    controller.request("POST", "/api/v1/workers/register",
                       json({{"worker_id", std::to_string(i)},
                             {"worker_name", std::to_string(i)},
                             {"ip_address", "127.0.0.1"},
                             {"port", hanging.port()}})
                           .dump());
  }
  controller.request("POST", "/api/v1/models/pull", R"({"model":"m","all":true})");
  ASSERT_TRUE(hanging.waitForRequests(256));
  std::thread waiting([&] {
    controller.request("POST", "/api/v1/models/distribute", R"({"model":"m","all":true})");
  });
  ASSERT_TRUE(hanging.waitForRequests(257));
  controller.process().signal(SIGTERM);
  EXPECT_EQ(controller.process().waitForExit(5s), 0);
  waiting.join();
}

}  // namespace
}  // namespace tavrel::test
