#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"

// The records that describe one inference worker. Plain copyable values; whoever keeps them guards
// them. Sizes of memory and disks are in whatever unit the worker reports, never converted.
namespace tavrel::worker {

/// Software that runs models. The numbers are fixed: they are stored by other programs.
enum class InferenceBackend : std::int32_t {
  kOllama = 0,
  kVllm = 1,
  kTgi = 2,
  kLlamaCpp = 3,
  kNativeLlamaCpp = 4,
  kMlx = 5,
  kExllama = 6,
  kNvidiaNim = 7,
  kTensorrtLlm = 8,
  kOllamaCloud = 9,
  kOpenai = 10,
  kAnthropic = 11,
  kGoogleGemini = 12,
  kGoogleVertex = 13,
  kAwsBedrock = 14,
  kAzureOpenai = 15,
  kTogether = 16,
  kGroq = 17,
  kXai = 18,
  kFireworks = 19,
  kReplicate = 20,
  kMistral = 21,
  kCohere = 22,
  kPerplexity = 23,
  kDeepseek = 24,
  kHuggingfaceApi = 25,
  kNvidiaNimCloud = 26,
  kOpenaiCompatible = 27,
  kTensorflowServing = 28,
  kTorchserve = 29,
  kOnnxRuntime = 30,
  kTriton = 31,
  kMetaLcm = 32,
  kMetaLcmCloud = 33,
  kMetaVljepa = 34,
  kMetaVljepaCloud = 35,
  kXlstm = 36,
  kXlstmCloud = 37,
  kComfyui = 38,
  kA1111 = 39,
  kForge = 40,
  kCustom = 41,
};

/// "unknown" for a value outside the enumeration.
std::string inferenceBackendToString(InferenceBackend backend);
/// Texts and aliases, case-sensitive; everything else is kCustom.
InferenceBackend inferenceBackendFromString(std::string_view text);

enum class WorkerStatus : std::int32_t {
  kStarting = 0,
  kOnline = 1,
  kBusy = 2,
  kDegraded = 3,
  kOffline = 4,
  kMaintenance = 5,
};

/// "unknown" for a value outside the enumeration.
std::string workerStatusToString(WorkerStatus status);

/// One GPU of a worker.
struct GPUInfo {
  std::int32_t index = 0;
  std::string name;
  std::string vendor;
  std::uint64_t memory_total = 0;
  std::uint64_t memory_used = 0;
  std::uint64_t memory_free = 0;
  float utilization = 0;  ///< percent
  float temperature = 0;  ///< degrees Celsius
  float power_draw = 0;   ///< watts
  bool cuda_available = false;
  bool metal_available = false;
  std::string driver_version;

  nlohmann::json toJson() const;
};

/// The last reported state of a worker's host.
struct SystemMetrics {
  std::int32_t cpu_cores = 0;
  std::int32_t cpu_threads = 0;
  float cpu_usage = 0;        ///< percent
  float cpu_temperature = 0;  ///< degrees Celsius
  std::string cpu_model;
  std::uint64_t memory_total = 0;
  std::uint64_t memory_used = 0;
  std::uint64_t memory_available = 0;
  std::uint64_t disk_total = 0;
  std::uint64_t disk_used = 0;
  std::uint64_t disk_free = 0;
  std::vector<GPUInfo> gpus;
  std::uint64_t network_rx_bytes = 0;
  std::uint64_t network_tx_bytes = 0;
  std::uint64_t uptime_seconds = 0;
  std::array<float, 3> load_average{};  ///< over 1, 5 and 15 minutes
  platform::WallTime timestamp;         ///< JSON: milliseconds since the epoch

  nlohmann::json toJson() const;
};

/// A model loaded on a worker.
struct RunningModel {
  std::string name;
  std::string backend;
  std::string model_id;
  std::uint64_t memory_usage = 0;
  std::int32_t gpu_index = 0;
  platform::WallTime loaded_at;  ///< JSON: seconds since the epoch
  std::uint64_t requests_served = 0;
  std::uint64_t tokens_generated = 0;
  float avg_latency_ms = 0;

  nlohmann::json toJson() const;
};

/// One inference backend that a worker exposes.
struct BackendEndpoint {
  InferenceBackend type = InferenceBackend::kOllama;
  std::string url;
  std::string credential;  ///< a secret: never written to JSON
  bool enabled = false;
  std::string model_name;
  std::vector<std::string> models;
  std::int32_t timeout_ms = 0;

  nlohmann::json toJson() const;
};

/// What a worker can do.
struct WorkerCapabilities {
  bool supports_ollama = false;
  bool supports_vllm = false;
  bool supports_tgi = false;
  bool supports_comfyui = false;
  bool supports_a1111 = false;
  bool supports_forge = false;
  bool supports_tensorflow_serving = false;
  bool supports_torchserve = false;
  bool supports_onnx_runtime = false;
  bool supports_triton = false;
  bool supports_meta_lcm = false;
  bool supports_meta_vljepa = false;
  bool supports_xlstm = false;
  bool has_gpu = false;
  bool has_metal = false;
  bool has_cuda = false;
  bool has_rocm = false;
  bool has_tensorrt = false;
  std::int32_t gpu_count = 0;
  std::int32_t gpu_memory_mb = 0;
  std::int32_t max_models = 1;
  std::vector<std::string> available_backends;
  std::vector<std::string> installed_models;
  std::vector<BackendEndpoint> backend_endpoints;

  nlohmann::json toJson() const;
};

/// One inference worker.
struct WorkerInfo {
  std::string worker_id;
  std::string worker_name;
  std::string hostname;
  std::string ip_address;  ///< where the controller reaches the worker
  std::int32_t port = 8090;
  std::string os;
  std::string os_version;
  std::string arch;
  WorkerStatus status = WorkerStatus::kStarting;
  WorkerCapabilities capabilities;
  SystemMetrics metrics;
  std::vector<RunningModel> running_models;
  std::map<std::string, std::string> labels;
  platform::WallTime registered_at;   ///< JSON: seconds since the epoch
  platform::WallTime last_heartbeat;  ///< JSON: seconds since the epoch; the liveness clock
  std::string version;
  std::string worker_type = "inference";
  std::string backend_type;
  std::string backend_url;
  std::string controller_url;
  std::string config_id;
  std::int64_t config_timestamp = 0;
  bool config_dirty = false;

  nlohmann::json toJson() const;
};

/// The record a registration describes: online, registered and heard of at `now`. `worker_id` is
/// empty when the body has none. Values of a wrong type throw nlohmann's exception.
WorkerInfo workerFromRegistration(const nlohmann::json& body, platform::WallTime now);

/// The record another controller lists, in the form of toJson or with the host's state under
/// "system": heard of at `now`, by that controller; its status is online or, whatever else the
/// other says, offline. Values of a wrong type throw nlohmann's exception.
WorkerInfo workerFromListing(const nlohmann::json& listed, platform::WallTime now);

/// Puts the state a heartbeat carries into the record: what the body has replaces, what it lacks
/// stays, inside capabilities and metrics too. The record is online and heard of at `now`.
/// A value of a wrong type throws nlohmann's exception; the record is then half changed, so pass a
/// copy that is stored afterwards.
void applyHeartbeat(WorkerInfo& worker, const nlohmann::json& body, platform::WallTime now);

}  // namespace tavrel::worker
