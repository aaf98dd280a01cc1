#include "worker/worker_info.h"

#include <nlohmann/json.hpp>

#include "platform/enum_text.h"
#include "platform/json_fields.h"

namespace tavrel::worker {
namespace {

using nlohmann::json;

// The place in the table is the value of the enumerator.
constexpr std::string_view kBackendTexts[] = {
    "ollama",
    "vllm",
    "tgi",
    "llama_cpp",
    "native_llama_cpp",
    "mlx",
    "exllama",
    "nvidia_nim",
    "tensorrt_llm",
    "ollama_cloud",
    "openai",
    "anthropic",
    "google_gemini",
    "google_vertex",
    "aws_bedrock",
    "azure_openai",
    "together",
    "groq",
    "xai",
    "fireworks",
    "replicate",
    "mistral",
    "cohere",
    "perplexity",
    "deepseek",
    "huggingface_api",
    "nvidia_nim_cloud",
    "openai_compatible",
    "tensorflow_serving",
    "torchserve",
    "onnx_runtime",
    "triton",
    "meta_lcm",
    "meta_lcm_cloud",
    "meta_vljepa",
    "meta_vljepa_cloud",
    "xlstm",
    "xlstm_cloud",
    "comfyui",
    "a1111",
    "forge",
    "custom",
};
static_assert(std::size(kBackendTexts) == static_cast<std::size_t>(InferenceBackend::kCustom) + 1);

struct BackendAlias {
  std::string_view text;
  InferenceBackend backend;
};
constexpr BackendAlias kBackendAliases[] = {
    {"bedrock", InferenceBackend::kAwsBedrock},
    {"azure", InferenceBackend::kAzureOpenai},
    {"grok", InferenceBackend::kXai},
    {"hf_api", InferenceBackend::kHuggingfaceApi},
    {"tf_serving", InferenceBackend::kTensorflowServing},
    {"torch_serve", InferenceBackend::kTorchserve},
    {"onnx", InferenceBackend::kOnnxRuntime},
    {"lcm", InferenceBackend::kMetaLcm},
    {"lcm_cloud", InferenceBackend::kMetaLcmCloud},
    {"vljepa", InferenceBackend::kMetaVljepa},
    {"vl-jepa", InferenceBackend::kMetaVljepa},
    {"vljepa_cloud", InferenceBackend::kMetaVljepaCloud},
    {"xLSTM", InferenceBackend::kXlstm},
    {"xLSTM_cloud", InferenceBackend::kXlstmCloud},
};

constexpr std::string_view kStatusTexts[] = {"starting", "online",  "busy",
                                             "degraded", "offline", "maintenance"};

}  // namespace

std::string inferenceBackendToString(InferenceBackend backend) {
  return platform::enumText(backend, kBackendTexts);
}

InferenceBackend inferenceBackendFromString(std::string_view text) {
  if (const auto backend = platform::enumFromText<InferenceBackend>(text, kBackendTexts)) {
    return *backend;
  }
  for (const BackendAlias& alias : kBackendAliases) {
    if (alias.text == text) return alias.backend;
  }
  return InferenceBackend::kCustom;
}

std::string workerStatusToString(WorkerStatus status) {
  return platform::enumText(status, kStatusTexts);
}

json GPUInfo::toJson() const {
  return {{"index", index},
          {"name", name},
          {"vendor", vendor},
          {"memory_total", memory_total},
          {"memory_used", memory_used},
          {"memory_free", memory_free},
          {"utilization", utilization},
          {"temperature", temperature},
          {"power_draw", power_draw},
          {"cuda_available", cuda_available},
          {"metal_available", metal_available},
          {"driver_version", driver_version}};
}

json SystemMetrics::toJson() const {
  return {
      {"cpu",
       {{"cores", cpu_cores},
        {"threads", cpu_threads},
        {"usage_percent", cpu_usage},
        {"temperature", cpu_temperature},
        {"model", cpu_model}}},
      {"memory", {{"total", memory_total}, {"used", memory_used}, {"available", memory_available}}},
      {"disk", {{"total", disk_total}, {"used", disk_used}, {"free", disk_free}}},
      {"gpus", platform::jsonArray(gpus)},
      {"network", {{"rx_bytes", network_rx_bytes}, {"tx_bytes", network_tx_bytes}}},
      {"system", {{"uptime_seconds", uptime_seconds}, {"load_average", load_average}}},
      {"timestamp", platform::toEpochMilliseconds(timestamp)}};
}

json RunningModel::toJson() const {
  return {{"name", name},
          {"backend", backend},
          {"model_id", model_id},
          {"memory_usage", memory_usage},
          {"gpu_index", gpu_index},
          {"loaded_at", platform::toEpochSeconds(loaded_at)},
          {"requests_served", requests_served},
          {"tokens_generated", tokens_generated},
          {"avg_latency_ms", avg_latency_ms}};
}

json BackendEndpoint::toJson() const {
  return {{"type", inferenceBackendToString(type)},
          {"url", url},
          {"enabled", enabled},
          {"model_name", model_name},
          {"models", models},
          {"timeout_ms", timeout_ms}};
}

json WorkerCapabilities::toJson() const {
  return {{"supports_ollama", supports_ollama},
          {"supports_vllm", supports_vllm},
          {"supports_tgi", supports_tgi},
          {"supports_comfyui", supports_comfyui},
          {"supports_a1111", supports_a1111},
          {"supports_forge", supports_forge},
          {"supports_tensorflow_serving", supports_tensorflow_serving},
          {"supports_torchserve", supports_torchserve},
          {"supports_onnx_runtime", supports_onnx_runtime},
          {"supports_triton", supports_triton},
          {"supports_meta_lcm", supports_meta_lcm},
          {"supports_meta_vljepa", supports_meta_vljepa},
          {"supports_xlstm", supports_xlstm},
          {"has_gpu", has_gpu},
          {"has_metal", has_metal},
          {"has_cuda", has_cuda},
          {"has_rocm", has_rocm},
          {"has_tensorrt", has_tensorrt},
          {"gpu_count", gpu_count},
          {"gpu_memory_mb", gpu_memory_mb},
          {"max_models", max_models},
          {"available_backends", available_backends},
          {"installed_models", installed_models},
          {"backend_endpoints", platform::jsonArray(backend_endpoints)}};
}

json WorkerInfo::toJson() const {
  return {{"worker_id", worker_id},
          {"worker_name", worker_name},
          {"hostname", hostname},
          {"ip_address", ip_address},
          {"port", port},
          {"os", os},
          {"os_version", os_version},
          {"arch", arch},
          {"status", workerStatusToString(status)},
          {"capabilities", capabilities.toJson()},
          {"metrics", metrics.toJson()},
          {"running_models", platform::jsonArray(running_models)},
          {"labels", labels},
          {"registered_at", platform::toEpochSeconds(registered_at)},
          {"last_heartbeat", platform::toEpochSeconds(last_heartbeat)},
          {"version", version},
          {"worker_type", worker_type},
          {"backend_type", backend_type},
          {"backend_url", backend_url},
          {"controller_url", controller_url},
          {"config_id", config_id},
          {"config_timestamp", config_timestamp},
          {"config_dirty", config_dirty}};
}

}  // namespace tavrel::worker
