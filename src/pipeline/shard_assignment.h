#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tavrel::pipeline {

/// The port on which workers hand activations to each other.
inline constexpr std::int32_t kDefaultTensorPort = 50052;

enum class ShardRole : std::int32_t { kHead = 0, kMiddle = 1, kTail = 2 };
/// "unknown" for a value outside the enumeration.
std::string shardRoleToString(ShardRole role);

enum class ShardStrategy : std::int32_t { kBalanced = 0, kVramProportional = 1, kManual = 2 };
std::string shardStrategyToString(ShardStrategy strategy);
/// kBalanced for any other text.
ShardStrategy shardStrategyFromString(const std::string& text);

enum class ShardStatus : std::int32_t { kPending, kLoading, kReady, kUnloading, kError };
std::string shardStatusToString(ShardStatus status);

/// The consecutive layers of a model that one worker holds. A plain value.
struct ShardAssignment {
  std::string worker_id;
  std::string worker_name;
  std::string worker_url;
  ShardRole role = ShardRole::kMiddle;
  std::int32_t layer_start = 0;
  std::int32_t layer_end = 0;  ///< exclusive; equal to layer_start for a worker without layers
  bool include_embedding = false;
  bool include_output = false;
  std::uint64_t estimated_vram_bytes = 0;
  std::uint64_t worker_vram_total = 0;  ///< bytes
  std::uint64_t worker_vram_free = 0;   ///< bytes
  std::int32_t tensor_port = kDefaultTensorPort;
  std::string upstream_url;    ///< empty for the first shard
  std::string downstream_url;  ///< empty for the last shard
  ShardStatus status = ShardStatus::kPending;
  std::string error;  ///< with status kError

  nlohmann::json toJson() const;
};

}  // namespace tavrel::pipeline
