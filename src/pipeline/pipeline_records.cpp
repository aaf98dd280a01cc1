#include "pipeline/pipeline_records.h"

#include <nlohmann/json.hpp>

#include "platform/json_fields.h"

namespace tavrel::pipeline {

using nlohmann::json;
using platform::readField;

json ShardLoadRequest::toJson() const {
  return {{"pipeline_id", pipeline_id},
          {"model_name", model_name},
          {"model_path", model_path},
          {"data_worker_url", data_worker_url},
          {"role", shardRoleToString(role)},
          {"layer_start", layer_start},
          {"layer_end", layer_end},
          {"include_embedding", include_embedding},
          {"include_output", include_output},
          {"total_layers", total_layers},
          {"hidden_size", hidden_size},
          {"upstream_worker", upstream_worker},
          {"downstream_worker", downstream_worker},
          {"tensor_port", tensor_port},
          {"transport", transport}};
}

std::string pipelineStatusToString(PipelineStatus status) {
  switch (status) {
    case PipelineStatus::kPending:
      return "pending";
    case PipelineStatus::kDeploying:
      return "deploying";
    case PipelineStatus::kLoading:
      return "loading";
    case PipelineStatus::kReady:
      return "ready";
    case PipelineStatus::kDegraded:
      return "degraded";
    case PipelineStatus::kUndeploying:
      return "undeploying";
    case PipelineStatus::kFailed:
      return "failed";
  }
  return "unknown";
}

json PipelineConfig::toJson() const {
  return {{"pipeline_id", pipeline_id},
          {"model_id", model_id},
          {"model_name", model_name},
          {"model_path", model_path},
          {"data_worker_url", data_worker_url},
          {"architecture", architecture},
          {"total_layers", total_layers},
          {"hidden_size", hidden_size},
          {"model_size_bytes", model_size_bytes},
          {"quantization", quantization},
          {"strategy", shardStrategyToString(strategy)},
          {"transport", transport},
          {"tensor_port", tensor_port},
          {"shards", platform::jsonArray(shards)},
          {"shard_count", shards.size()},
          {"status", pipelineStatusToString(status)},
          {"created_at", created_at},
          {"ready_at", ready_at},
          {"error", error}};
}

PipelineDeployRequest PipelineDeployRequest::fromJson(const json& object) {
  PipelineDeployRequest request;
  readField(object, "model_id", request.model_id);
  readField(object, "model_path", request.model_path);
  readField(object, "data_worker_url", request.data_worker_url);
  std::string strategy = shardStrategyToString(request.strategy);
  readField(object, "strategy", strategy);
  request.strategy = shardStrategyFromString(strategy);
  readField(object, "transport", request.transport);
  readField(object, "tensor_port", request.tensor_port);
  readField(object, "workers", request.workers);
  const json* manual = platform::jsonMember(object, "manual_layers");
  if (manual != nullptr && !manual->is_null()) {
    request.manual_layers = manualLayersFromJson(*manual);
  }
  return request;
}

}  // namespace tavrel::pipeline
