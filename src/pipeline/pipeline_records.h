#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/shard_assignment.h"
#include "pipeline/shard_planner.h"

// Pipelines as callers and workers see them. Plain values.
namespace tavrel::pipeline {

inline constexpr const char* kDefaultTransport = "tcp";

/// What a worker is told about the shard that it shall load.
struct ShardLoadRequest {
  std::string pipeline_id;
  std::string model_name;
  std::string model_path;
  std::string data_worker_url;
  ShardRole role = ShardRole::kMiddle;
  std::int32_t layer_start = 0;
  std::int32_t layer_end = 0;  ///< exclusive
  bool include_embedding = false;
  bool include_output = false;
  std::int32_t total_layers = 0;
  std::int32_t hidden_size = 0;
  std::string upstream_worker;    ///< empty for the first shard
  std::string downstream_worker;  ///< empty for the last shard
  std::int32_t tensor_port = kDefaultTensorPort;
  std::string transport = kDefaultTransport;

  nlohmann::json toJson() const;
};

enum class PipelineStatus : std::int32_t {
  kPending,
  kDeploying,
  kLoading,
  kReady,
  kDegraded,
  kUndeploying,
  kFailed,
};
std::string pipelineStatusToString(PipelineStatus status);

/// A model that is spread over several workers.
struct PipelineConfig {
  std::string pipeline_id;
  std::string model_id;
  std::string model_name;
  std::string model_path;
  std::string data_worker_url;
  std::string architecture;
  std::int32_t total_layers = 0;
  std::int32_t hidden_size = 0;
  std::uint64_t model_size_bytes = 0;
  std::string quantization;
  ShardStrategy strategy = ShardStrategy::kVramProportional;
  std::string transport = kDefaultTransport;
  std::int32_t tensor_port = kDefaultTensorPort;
  std::vector<ShardAssignment> shards;  ///< in pipeline order
  PipelineStatus status = PipelineStatus::kPending;
  std::string created_at;  ///< UTC, e.g. "2026-01-31T12:00:00Z"
  std::string ready_at;    ///< empty until it is ready
  std::string error;

  nlohmann::json toJson() const;
};

/// What a caller asks for.
struct PipelineDeployRequest {
  std::string model_id;
  std::string model_path;
  std::string data_worker_url;
  ShardStrategy strategy = ShardStrategy::kVramProportional;
  std::string transport = kDefaultTransport;
  std::int32_t tensor_port = kDefaultTensorPort;
  std::vector<std::string> workers;  ///< ids, in pipeline order
  /// Absent when the caller sent none. What computeManualAssignments() takes.
  std::optional<std::vector<ManualLayers>> manual_layers;

  /// Missing members keep their defaults, and an unknown strategy is balanced. Values of a wrong
  /// type throw nlohmann's exception, except in "manual_layers": those are left to the planning,
  /// which refuses them with a reason.
  static PipelineDeployRequest fromJson(const nlohmann::json& object);
};

}  // namespace tavrel::pipeline
