#include "pipeline/shard_planner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tavrel::pipeline {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30;
using Shards = std::vector<ShardAssignment>;

GGUFModelMetadata model(std::int32_t layers) {
  GGUFModelMetadata metadata;
  metadata.block_count = layers;
  metadata.model_size_bytes = 32'000;
  metadata.embed_size = 7;
  metadata.output_size = 5;
  return metadata;
}

std::vector<WorkerVram> workers(const std::vector<std::uint64_t>& vram) {
  std::vector<WorkerVram> list;
  for (const std::uint64_t bytes : vram) {
    list.emplace_back("w" + std::to_string(list.size()), bytes);
  }
  return list;
}

std::vector<std::int32_t> ends(const Shards& shards) {
  std::vector<std::int32_t> list;
  std::int32_t next = 0;
  for (const ShardAssignment& shard : shards) {
    EXPECT_EQ(shard.layer_start, next);
    EXPECT_GE(shard.layer_end, shard.layer_start);
    list.push_back(next = shard.layer_end);
  }
  return list;
}

std::vector<std::uint64_t> estimates(const Shards& shards) {
  std::vector<std::uint64_t> list;
  for (const ShardAssignment& shard : shards) list.push_back(shard.estimated_vram_bytes);
  return list;
}

TEST(ShardPlanner, ABalancedSplitIsAsEvenAsCanBe) {
  const Shards shards =
      computeShardAssignments(model(32), workers({1, 2, 3}), ShardStrategy::kBalanced);
  EXPECT_THAT(ends(shards), ElementsAre(11, 22, 32));
  EXPECT_THAT(estimates(shards), ElementsAre(12'100, 12'100, 11'000));
  EXPECT_EQ(shards[0].role, ShardRole::kHead);
  EXPECT_TRUE(shards[0].include_embedding && !shards[0].include_output);
  EXPECT_EQ(shards[1].role, ShardRole::kMiddle);
  EXPECT_FALSE(shards[1].include_embedding || shards[1].include_output);
  EXPECT_EQ(shards[2].role, ShardRole::kTail);
  EXPECT_TRUE(!shards[2].include_embedding && shards[2].include_output);
  EXPECT_EQ(shards[2].worker_id, "w2");
  EXPECT_EQ(shards[2].worker_vram_total, 3U);
  EXPECT_EQ(shards[2].tensor_port, 50052);
  EXPECT_EQ(ends(computeShardAssignments(model(32), workers({9, 9, 1}), ShardStrategy::kManual)),
            ends(shards));
}

TEST(ShardPlanner, ASplitByVramFollowsTheShares) {
  const Shards shards =
      computeShardAssignments(model(32), workers({24 * kGibibyte, 8 * kGibibyte, 8 * kGibibyte}),
                              ShardStrategy::kVramProportional);
  EXPECT_THAT(ends(shards), ElementsAre(19, 25, 32));
  EXPECT_THAT(estimates(shards), ElementsAre(20'900 + 7, 6'600, 7'700 + 5));
  // 1/49 in binary is a little less, and so is its share of the layers.
  const auto equal = ends(computeShardAssignments(model(98), workers(std::vector(49, kGibibyte)),
                                                  ShardStrategy::kVramProportional));
  EXPECT_EQ(equal[0], 1);
  EXPECT_EQ(equal[47], 48);
  EXPECT_EQ(equal[48], 98);
}

TEST(ShardPlanner, ASingleWorkerHasTheOutputOnlyByVram) {
  for (const std::uint64_t vram : {kGibibyte, std::uint64_t{0}}) {
    const Shards one =
        computeShardAssignments(model(4), workers({vram}), ShardStrategy::kVramProportional);
    EXPECT_THAT(ends(one), ElementsAre(4));
    EXPECT_TRUE(one[0].include_embedding && one[0].include_output);
    EXPECT_EQ(one[0].role, ShardRole::kHead);
    EXPECT_THAT(estimates(one), ElementsAre(35'200 + 12));
  }
  const Shards balanced =
      computeShardAssignments(model(4), workers({kGibibyte}), ShardStrategy::kBalanced);
  EXPECT_TRUE(balanced[0].include_embedding && !balanced[0].include_output);
}

TEST(ShardPlanner, RangesHoldForAnyNumbers) {
  const auto by_vram = [](std::int32_t layers, const std::vector<std::uint64_t>& vram) {
    return ends(
        computeShardAssignments(model(layers), workers(vram), ShardStrategy::kVramProportional));
  };
  EXPECT_THAT(by_vram(32, {0, 0, 0}), ElementsAre(11, 22, 32)) << "nobody reported any";
  EXPECT_THAT(by_vram(2, {5, 5, 5, 5}), ElementsAre(1, 2, 2, 2));
  EXPECT_THAT(by_vram(1, {0, 5}), ElementsAre(1, 1));
  EXPECT_THAT(by_vram(4, {5, 0, 0}), ElementsAre(4, 4, 4));
  EXPECT_THAT(by_vram(10, {UINT64_MAX, UINT64_MAX}), ElementsAre(5, 10));
  EXPECT_THAT(by_vram(INT32_MAX, {UINT64_MAX, 1}), ElementsAre(INT32_MAX, INT32_MAX));
  EXPECT_THAT(ends(computeShardAssignments(model(2), workers({1, 1, 1}), ShardStrategy::kBalanced)),
              ElementsAre(1, 2, 2));
  for (const auto strategy : {ShardStrategy::kBalanced, ShardStrategy::kVramProportional}) {
    EXPECT_THAT(computeShardAssignments(model(0), workers({1}), strategy), IsEmpty());
    EXPECT_THAT(computeShardAssignments(model(-3), workers({1}), strategy), IsEmpty());
    EXPECT_THAT(computeShardAssignments(model(3), {}, strategy), IsEmpty());
  }
  GGUFModelMetadata endless = model(1);
  endless.model_size_bytes = endless.embed_size = UINT64_MAX;
  EXPECT_THAT(
      estimates(computeShardAssignments(endless, workers({1}), ShardStrategy::kVramProportional)),
      ElementsAre(UINT64_MAX));
}

/// The ends of a plan for `layers` layers over three workers, or why there is none, as JSON.
json planned(const char* list, std::int32_t layers = 32) {
  const auto plan = computeManualAssignments(model(layers), workers({1, 1, 1}),
                                             manualLayersFromJson(json::parse(list)));
  if (const auto* reason = std::get_if<std::string>(&plan)) return *reason;
  return ends(std::get<Shards>(plan));
}

TEST(ShardPlanner, AManualListIsApplied) {
  EXPECT_EQ(planned("[10, 2, 20]"), json({10, 12, 32}));
  EXPECT_EQ(planned("[[0, 10], [10, 12], [12, 32]]"), json({10, 12, 32}));
  EXPECT_EQ(planned("[10, [10, 31], 1]"), json({10, 31, 32}));
  const auto one = computeManualAssignments(model(4), workers({kGibibyte}), {std::int64_t{4}});
  const ShardAssignment& all = std::get<Shards>(one).at(0);
  EXPECT_TRUE(all.role == ShardRole::kHead && all.include_embedding && all.include_output);
}

TEST(ShardPlanner, AWrongManualListIsRefusedWithTheReason) {
  EXPECT_EQ(planned("[10, 22]"), "manual_layers has 2 entries for 3 workers");
  EXPECT_EQ(planned("[10, 10, 10]"), "manual_layers covers 30 of the model's 32 layers");
  EXPECT_EQ(planned("[10, 10, 13]"), "manual_layers[2] goes beyond the model's 32 layers");
  EXPECT_EQ(planned("[[0, 10], [11, 20], [20, 32]]"),
            "manual_layers[1] must start at layer 10, not 11");
  EXPECT_EQ(planned("[[0, 10], [9, 20], [20, 32]]"),
            "manual_layers[1] must start at layer 10, not 9");
  EXPECT_EQ(planned("[32, 0, 0]"), "manual_layers[1] must have a layer at least");
  EXPECT_EQ(planned("[[0, -5], 3, 3]"), "manual_layers[0] must have a layer at least");
  EXPECT_EQ(planned("[1, [1, -9223372036854775808], 1]"),
            "manual_layers[1] must have a layer at least");
  for (const char* huge : {"[18446744073709551615, 1, 1]", "[[0, 9223372036854775807], 1, 1]"}) {
    EXPECT_EQ(planned(huge), "manual_layers[0] goes beyond the model's 32 layers");
  }
  EXPECT_EQ(planned("[1, 1, 1]", 0), "the model has no layers");
  for (const char* other : {"7", "{}", "[\"1\", 2, 3]", "[1.5, 2, 3]", "[null, 2, 3]",
                            "[[1], 2, 3]", "[[0, 1, 2], 2, 3]", "[[0, \"1\"], 2, 3]"}) {
    EXPECT_EQ(planned(other),
              "manual_layers must be an array of layer counts or [start, end) pairs")
        << other;
  }
  EXPECT_TRUE(std::holds_alternative<std::string>(computeManualAssignments(model(3), {}, {})));
}

}  // namespace
}  // namespace tavrel::pipeline
