#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "events/event_stream_service.h"
#include "platform/json_fields.h"
#include "worker/typed_worker_info.h"
#include "worker/typed_worker_kind.h"

namespace tavrel::worker {
namespace {

using events::EventStreamService;
using nlohmann::json;

constexpr TypedField kDataFields[] = {
    {.key = "data_sources", .type = FieldType::kList, .source = "databases"},
    {.key = "storage_enabled", .type = FieldType::kFlag},
    {.key = "storage_backend", .type = FieldType::kText, .fallback = "filesystem"},
    {.key = "storage_path", .type = FieldType::kText},
    {.key = "nfs_enabled", .type = FieldType::kFlag},
    {.key = "nfs_port", .type = FieldType::kInt32},
    {.key = "storage_capacity_bytes", .type = FieldType::kUint64},
    {.key = "storage_used_bytes", .type = FieldType::kUint64},
    {.key = "storage_capacity_gb",
     .type = FieldType::kGibibytes,
     .source = "storage_capacity_bytes"},
    {.key = "storage_used_gb", .type = FieldType::kGibibytes, .source = "storage_used_bytes"},
    {.key = "tenant_count", .type = FieldType::kInt32},
};

constexpr TypedField kMediaFields[] = {
    {.key = "stt_backend", .type = FieldType::kText},
    {.key = "tts_backend", .type = FieldType::kText},
    {.key = "active_jobs", .type = FieldType::kInt32},
    {.key = "max_concurrent_jobs", .type = FieldType::kInt32},
};

constexpr TypedField kCommFields[] = {
    {.key = "protocols", .type = FieldType::kList},
    {.key = "account_count", .type = FieldType::kInt32},
    {.key = "message_count", .type = FieldType::kUint64},
    {.key = "ai_enabled", .type = FieldType::kFlag},
    {.key = "webhook_port", .type = FieldType::kInt32},
    {.key = "tenant_ids", .type = FieldType::kList},
};

constexpr TypedField kAgentFields[] = {
    {.key = "healthy", .type = FieldType::kFlag, .flag_fallback = true},
    {.key = "active_sessions", .type = FieldType::kInt32},
    {.key = "active_tasks", .type = FieldType::kInt32},
    {.key = "knowledge_base_count", .type = FieldType::kInt32},
    {.key = "tenant_count", .type = FieldType::kInt32},
};

constexpr TypedField kScienceFields[] = {
    {.key = "compliance_mode", .type = FieldType::kText},
    {.key = "active_jobs", .type = FieldType::kInt32},
    {.key = "sample_count", .type = FieldType::kUint64},
};

constexpr TypedField kTrainingFields[] = {
    {.key = "backends", .type = FieldType::kAvailableNames},
    {.key = "active_jobs", .type = FieldType::kInt32},
    {.key = "gpu_count", .type = FieldType::kInt32},
    {.key = "gpu_type", .type = FieldType::kText},
    {.key = "gpu_memory_bytes", .type = FieldType::kUint64},
    {.key = "gpu_memory_gb", .type = FieldType::kGibibytes, .source = "gpu_memory_bytes"},
};

constexpr TypedField kNativeInferenceFields[] = {
    {.key = "has_gpu", .type = FieldType::kFlag},
    {.key = "has_cuda", .type = FieldType::kFlag},
    {.key = "has_metal", .type = FieldType::kFlag},
    {.key = "total_memory", .type = FieldType::kUint64},
    {.key = "used_memory", .type = FieldType::kUint64},
    {.key = "loaded_models", .type = FieldType::kList},
    {.key = "available_models", .type = FieldType::kList},
    {.key = "total_requests", .type = FieldType::kUint64},
    {.key = "total_tokens", .type = FieldType::kUint64},
    {.key = "peer_ids", .type = FieldType::kList},
    {.key = "swarm_status", .type = FieldType::kText},
};

constexpr TypedField kSwarmFields[] = {
    {.key = "swarm_api_port", .type = FieldType::kInt32},
    {.key = "agent_api_port", .type = FieldType::kInt32},
    {.key = "web_api_port", .type = FieldType::kInt32},
    {.key = "active_swarms", .type = FieldType::kInt32},
    {.key = "active_goals", .type = FieldType::kInt32},
    {.key = "agent_count", .type = FieldType::kInt32},
};

constexpr const char* kEventKeys[] = {"name", "url", "capabilities"};
constexpr const char* kDataEventKeys[] = {
    "name", "url", "storage_enabled", "storage_backend", "nfs_enabled", "capabilities"};

std::string named(const char* label, const std::string& value) {
  return value.empty() ? "" : " (" + std::string(label) + ": " + value + ")";
}

std::string listed(const char* label, const std::vector<std::string>& values) {
  if (values.empty()) return "";
  std::string text = " (" + std::string(label) + ":";
  for (const std::string& value : values) text += " " + value;
  return text + ")";
}

std::string dataSuffix(const TypedWorkerInfo& worker) {
  std::string text;
  if (worker.flag("storage_enabled")) text += named("storage", worker.text("storage_backend"));
  if (worker.flag("nfs_enabled")) {
    text += " (nfs:" + std::to_string(worker.number("nfs_port")) + ")";
  }
  return text;
}

std::string mediaSuffix(const TypedWorkerInfo& worker) {
  return named("tts", worker.text("tts_backend")) + named("stt", worker.text("stt_backend"));
}

std::string commSuffix(const TypedWorkerInfo& worker) {
  return listed("protocols", worker.list("protocols"));
}

std::string scienceSuffix(const TypedWorkerInfo& worker) {
  return named("compliance", worker.text("compliance_mode"));
}

std::string trainingSuffix(const TypedWorkerInfo& worker) {
  std::string text = listed("backends", worker.list("backends"));
  if (worker.number("gpu_count") == 0) return text;
  return text + " (" + std::to_string(worker.number("gpu_count")) + "x " + worker.text("gpu_type") +
         ")";
}

std::string nativeInferenceSuffix(const TypedWorkerInfo& worker) {
  std::vector<std::string> interfaces;
  if (worker.flag("has_metal")) interfaces.emplace_back("Metal");
  if (worker.flag("has_cuda")) interfaces.emplace_back("CUDA");
  return listed("models", worker.list("loaded_models")) + listed("GPU", interfaces);
}

// A daemon that describes its GPUs one by one need not sum them up as well.
void completeFromGpus(const json& body, json& details) {
  const json* gpus = platform::jsonMember(body, "gpus");
  if (gpus == nullptr) return;
  std::uint64_t memory_bytes = 0;
  std::string type;
  for (const json& gpu : gpus->get_ref<const json::array_t&>()) {
    const auto bytes = platform::jsonNumberOr<std::uint64_t>(gpu, "total_memory", 0);
    memory_bytes += std::min(bytes, ~std::uint64_t{0} - memory_bytes);
    if (type.empty()) platform::readField(gpu, "name", type);
  }
  if (gpus->empty()) return;
  details.emplace("gpu_count", gpus->size());
  details.emplace("gpu_type", type);
  details.emplace("gpu_memory_bytes", memory_bytes);
}

const std::array<TypedWorkerKind, kWorkerKinds> kKinds{{
    {.kind = WorkerKind::kData,
     .prefix = "/api/v1/data-workers",
     .noun = "data worker",
     .title = "Data worker",
     .label = "DataWorkers",
     .id_key = "data_worker_id",
     .list_key = "data_workers",
     .worker_type = "data",
     .fields = kDataFields,
     .online = &EventStreamService::dataWorkerOnline,
     .offline = &EventStreamService::dataWorkerOffline,
     .event_keys = kDataEventKeys,
     .default_port = 8892,
     .log_suffix = dataSuffix},
    {.kind = WorkerKind::kMedia,
     .prefix = "/api/v1/media-workers",
     .noun = "media worker",
     .title = "Media worker",
     .label = "MediaWorkers",
     .id_key = "media_worker_id",
     .list_key = "media_workers",
     .worker_type = "media",
     .fields = kMediaFields,
     .online = &EventStreamService::mediaWorkerOnline,
     .offline = &EventStreamService::mediaWorkerOffline,
     .event_keys = kEventKeys,
     .log_suffix = mediaSuffix},
    {.kind = WorkerKind::kAgent,
     .prefix = "/api/v1/agent-workers",
     .noun = "agent worker",
     .title = "Agent worker",
     .label = "AgentWorkers",
     .id_key = "agent_worker_id",
     .list_key = "agent_workers",
     .worker_type = "agent",
     .fields = kAgentFields,
     .online = &EventStreamService::agentWorkerOnline,
     .offline = &EventStreamService::agentWorkerOffline,
     .event_keys = kEventKeys,
     .default_port = 8893,
     .assumed_capability = "rag"},
    {.kind = WorkerKind::kComm,
     .prefix = "/api/v1/comm-workers",
     .noun = "comm worker",
     .title = "Comm worker",
     .label = "CommWorkers",
     .id_key = "comm_worker_id",
     .list_key = "comm_workers",
     .worker_type = "comm",
     .fields = kCommFields,
     .online = &EventStreamService::commWorkerOnline,
     .offline = &EventStreamService::commWorkerOffline,
     .event_keys = kEventKeys,
     .log_suffix = commSuffix},
    {.kind = WorkerKind::kScience,
     .prefix = "/api/v1/science-workers",
     .noun = "science worker",
     .title = "Science worker",
     .label = "ScienceWorkers",
     .id_key = "science_worker_id",
     .list_key = "science_workers",
     .worker_type = "science",
     .fields = kScienceFields,
     .online = &EventStreamService::scienceWorkerOnline,
     .offline = &EventStreamService::scienceWorkerOffline,
     .event_keys = kEventKeys,
     .replies_with_topology = true,
     .log_suffix = scienceSuffix},
    {.kind = WorkerKind::kTraining,
     .prefix = "/api/v1/training-workers",
     .noun = "training worker",
     .title = "Training worker",
     .label = "TrainingWorkers",
     .id_key = "training_worker_id",
     .list_key = "training_workers",
     .worker_type = "training",
     .fields = kTrainingFields,
     .online = &EventStreamService::trainingWorkerOnline,
     .offline = &EventStreamService::trainingWorkerOffline,
     .event_keys = kEventKeys,
     .log_suffix = trainingSuffix,
     .complete = completeFromGpus},
    {.kind = WorkerKind::kNativeInference,
     .prefix = "/api/v1/inference-workers",
     .noun = "inference worker",
     .title = "Inference worker",
     .label = "InferenceWorkers",
     .id_key = "inference_worker_id",
     .list_key = "inference_workers",
     .worker_type = "inference",
     .fields = kNativeInferenceFields,
     .reaped = false,
     .logs_online = true,
     .purges = true,
     .log_suffix = nativeInferenceSuffix},
    {.kind = WorkerKind::kSwarm,
     .prefix = "/api/v1/swarm-controllers",
     .noun = "swarm controller",
     .title = "Swarm controller",
     .label = "SwarmControllers",
     .id_key = "swarm_controller_id",
     .list_key = "swarm_controllers",
     .worker_type = "swarm",
     .fields = kSwarmFields,
     .reaped = false,
     .replies_with_topology = true,
     .id_alias = "controller_id",
     .name_alias = "controller_name",
     .port_key = "web_api_port",
     .required_error = "controller_id and url (or ip_address+web_api_port) are required"},
}};

}  // namespace

std::span<const TypedWorkerKind> typedWorkerKinds() {
  return kKinds;
}

const TypedWorkerKind& typedWorkerKind(WorkerKind kind) {
  return kKinds[static_cast<std::size_t>(kind)];
}

}  // namespace tavrel::worker
