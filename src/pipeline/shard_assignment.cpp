#include "pipeline/shard_assignment.h"

#include <nlohmann/json.hpp>

namespace tavrel::pipeline {

std::string shardRoleToString(ShardRole role) {
  switch (role) {
    case ShardRole::kHead:
      return "head";
    case ShardRole::kMiddle:
      return "middle";
    case ShardRole::kTail:
      return "tail";
  }
  return "unknown";
}

std::string shardStrategyToString(ShardStrategy strategy) {
  switch (strategy) {
    case ShardStrategy::kBalanced:
      return "balanced";
    case ShardStrategy::kVramProportional:
      return "vram_proportional";
    case ShardStrategy::kManual:
      return "manual";
  }
  return "unknown";
}

ShardStrategy shardStrategyFromString(const std::string& text) {
  if (text == "vram_proportional") return ShardStrategy::kVramProportional;
  return text == "manual" ? ShardStrategy::kManual : ShardStrategy::kBalanced;
}

std::string shardStatusToString(ShardStatus status) {
  switch (status) {
    case ShardStatus::kPending:
      return "pending";
    case ShardStatus::kLoading:
      return "loading";
    case ShardStatus::kReady:
      return "ready";
    case ShardStatus::kUnloading:
      return "unloading";
    case ShardStatus::kError:
      return "error";
  }
  return "unknown";
}

nlohmann::json ShardAssignment::toJson() const {
  return {{"worker_id", worker_id},
          {"worker_name", worker_name},
          {"worker_url", worker_url},
          {"role", shardRoleToString(role)},
          {"layer_start", layer_start},
          {"layer_end", layer_end},
          {"include_embedding", include_embedding},
          {"include_output", include_output},
          {"estimated_vram_bytes", estimated_vram_bytes},
          {"worker_vram_total", worker_vram_total},
          {"worker_vram_free", worker_vram_free},
          {"tensor_port", tensor_port},
          {"upstream_url", upstream_url},
          {"downstream_url", downstream_url},
          {"status", shardStatusToString(status)},
          {"error", error}};
}

}  // namespace tavrel::pipeline
