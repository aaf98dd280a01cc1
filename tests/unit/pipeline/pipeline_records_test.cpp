#include "pipeline/pipeline_records.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tavrel::pipeline {
namespace {

using nlohmann::json;

TEST(PipelineRecords, ADeployRequestHasDefaults) {
  const auto plain = PipelineDeployRequest::fromJson(json::object());
  EXPECT_EQ(plain.strategy, ShardStrategy::kVramProportional);
  EXPECT_EQ(plain.transport, "tcp");
  EXPECT_EQ(plain.tensor_port, 50052);
  EXPECT_TRUE(plain.model_id.empty() && plain.workers.empty() && !plain.manual_layers);

  const auto given = PipelineDeployRequest::fromJson(json::parse(R"({
    "model_path": "/m.gguf", "strategy": "manual", "tensor_port": 1e300, "workers": ["b", "a"],
    "manual_layers": [3, [3, 5]]})"));
  EXPECT_EQ(given.model_path, "/m.gguf");
  EXPECT_EQ(given.strategy, ShardStrategy::kManual);
  EXPECT_EQ(given.tensor_port, INT32_MAX);
  EXPECT_EQ(given.workers, (std::vector<std::string>{"b", "a"}));
  ASSERT_TRUE(given.manual_layers);
  EXPECT_EQ(std::get<LayerSpan>(given.manual_layers->at(1)).end, 5);
  EXPECT_EQ(PipelineDeployRequest::fromJson({{"strategy", "evenly"}}).strategy,
            ShardStrategy::kBalanced);
}

TEST(PipelineRecords, WrongTypesInARequestAreJsonErrors) {
  for (const char* body :
       {"[]", "null", R"({"model_id": 7})", R"({"strategy": null})", R"({"tensor_port": "x"})",
        R"({"workers": "w"})", R"({"workers": [1]})"}) {
    EXPECT_THROW(PipelineDeployRequest::fromJson(json::parse(body)), json::exception) << body;
  }
  EXPECT_TRUE(PipelineDeployRequest::fromJson({{"manual_layers", "all"}}).manual_layers);
  EXPECT_FALSE(PipelineDeployRequest::fromJson({{"manual_layers", nullptr}}).manual_layers);
}

TEST(PipelineRecords, APipelineTellsItsShards) {
  PipelineConfig config;
  config.pipeline_id = "pip-1";
  config.status = PipelineStatus::kDegraded;
  config.shards.resize(2);
  config.shards[1].role = ShardRole::kTail;
  config.shards[1].status = ShardStatus::kError;
  config.shards[1].error = "refused";
  const json object = config.toJson();
  EXPECT_EQ(object["strategy"], "vram_proportional");
  EXPECT_EQ(object["status"], "degraded");
  EXPECT_EQ(object["shard_count"], 2);
  EXPECT_EQ(object["shards"][0]["status"], "pending");
  EXPECT_EQ(object["shards"][1]["role"], "tail");
  EXPECT_EQ(object["shards"][1]["error"], "refused");
  EXPECT_EQ(PipelineConfig().toJson()["shards"], json::array());
  EXPECT_EQ(shardRoleToString(static_cast<ShardRole>(9)), "unknown");
  EXPECT_EQ(ShardLoadRequest().toJson()["transport"], "tcp");
}

}  // namespace
}  // namespace tavrel::pipeline
