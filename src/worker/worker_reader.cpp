#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

#include "platform/json_fields.h"
#include "worker/worker_info.h"

// What workers send about themselves, read into their records.
namespace tavrel::worker {
namespace {

using nlohmann::json;
using platform::jsonMember;
using platform::jsonNumber;
using platform::readField;

// The clock counts nanoseconds in 64 bits: it reaches 292 years either way from 1970.
constexpr std::int64_t kLatestSeconds = 9'000'000'000;

void readSeconds(const json& object, const char* key, platform::WallTime& time) {
  std::int64_t seconds = platform::toEpochSeconds(time);
  readField(object, key, seconds);
  time = platform::WallTime{
      std::chrono::seconds{std::clamp(seconds, -kLatestSeconds, kLatestSeconds)}};
}

void readMilliseconds(const json& object, const char* key, platform::WallTime& time) {
  std::int64_t ms = platform::toEpochMilliseconds(time);
  readField(object, key, ms);
  time = platform::WallTime{
      std::chrono::milliseconds{std::clamp(ms, -kLatestSeconds * 1000, kLatestSeconds * 1000)}};
}

// A list that is not an array is no list at all: workers send null when they have not looked yet.
void readListIfArray(const json& object, const char* key, std::vector<std::string>& list) {
  const json* value = jsonMember(object, key);
  if (value != nullptr && value->is_array()) list = value->get<std::vector<std::string>>();
}

void readCapabilities(const json& body, WorkerCapabilities& capabilities) {
  const json* value = jsonMember(body, "capabilities");
  if (value == nullptr || !value->is_object()) return;
  readField(*value, "supports_ollama", capabilities.supports_ollama);
  readField(*value, "supports_vllm", capabilities.supports_vllm);
  readField(*value, "supports_comfyui", capabilities.supports_comfyui);
  readField(*value, "supports_a1111", capabilities.supports_a1111);
  readField(*value, "supports_forge", capabilities.supports_forge);
  readField(*value, "has_gpu", capabilities.has_gpu);
  readField(*value, "has_metal", capabilities.has_metal);
  readField(*value, "has_cuda", capabilities.has_cuda);
  readListIfArray(*value, "available_backends", capabilities.available_backends);
  readListIfArray(*value, "installed_models", capabilities.installed_models);
}

BackendEndpoint endpointFrom(const json& value) {
  BackendEndpoint endpoint;
  std::string type = inferenceBackendToString(endpoint.type);
  readField(value, "type", type);
  endpoint.type = inferenceBackendFromString(type);
  readField(value, "url", endpoint.url);
  readField(value, "enabled", endpoint.enabled);
  readField(value, "model_name", endpoint.model_name);
  readListIfArray(value, "models", endpoint.models);
  readField(value, "timeout_ms", endpoint.timeout_ms);
  return endpoint;
}

RunningModel runningModelFrom(const json& value) {
  RunningModel model;
  readField(value, "name", model.name);
  readField(value, "backend", model.backend);
  readField(value, "model_id", model.model_id);
  readField(value, "memory_usage", model.memory_usage);
  readField(value, "gpu_index", model.gpu_index);
  readSeconds(value, "loaded_at", model.loaded_at);
  readField(value, "requests_served", model.requests_served);
  readField(value, "tokens_generated", model.tokens_generated);
  readField(value, "avg_latency_ms", model.avg_latency_ms);
  return model;
}

GPUInfo gpuFrom(const json& value) {
  GPUInfo gpu;
  readField(value, "index", gpu.index);
  readField(value, "name", gpu.name);
  readField(value, "vendor", gpu.vendor);
  readField(value, "memory_total", gpu.memory_total);
  readField(value, "memory_used", gpu.memory_used);
  readField(value, "memory_free", gpu.memory_free);
  readField(value, "utilization", gpu.utilization);
  readField(value, "temperature", gpu.temperature);
  readField(value, "power_draw", gpu.power_draw);
  readField(value, "cuda_available", gpu.cuda_available);
  readField(value, "metal_available", gpu.metal_available);
  readField(value, "driver_version", gpu.driver_version);
  return gpu;
}

template <class Record>
void readRecords(const json& object, const char* key, std::vector<Record>& records,
                 Record (*read)(const json&)) {
  const json* value = jsonMember(object, key);
  if (value == nullptr) return;
  const auto& elements = value->get_ref<const json::array_t&>();
  records.clear();
  records.reserve(elements.size());
  for (const json& element : elements) records.push_back(read(element));
}

void readLoadAverage(const json& system, std::array<float, 3>& load_average) {
  const json* value = jsonMember(system, "load_average");
  if (value == nullptr) return;
  const auto& elements = value->get_ref<const json::array_t&>();
  const std::size_t count = std::min(elements.size(), load_average.size());
  for (std::size_t i = 0; i < count; ++i) load_average[i] = jsonNumber<float>(elements[i]);
}

void readMetrics(const json& value, platform::WallTime now, SystemMetrics& metrics) {
  metrics.timestamp = now;
  readMilliseconds(value, "timestamp", metrics.timestamp);
  if (const json* cpu = jsonMember(value, "cpu")) {
    readField(*cpu, "model", metrics.cpu_model);
    readField(*cpu, "cores", metrics.cpu_cores);
    readField(*cpu, "threads", metrics.cpu_threads);
    readField(*cpu, "usage_percent", metrics.cpu_usage);
    readField(*cpu, "temperature", metrics.cpu_temperature);
  }
  if (const json* memory = jsonMember(value, "memory")) {
    readField(*memory, "total", metrics.memory_total);
    readField(*memory, "used", metrics.memory_used);
    readField(*memory, "available", metrics.memory_available);
  }
  if (const json* disk = jsonMember(value, "disk")) {
    readField(*disk, "total", metrics.disk_total);
    readField(*disk, "used", metrics.disk_used);
    readField(*disk, "free", metrics.disk_free);
  }
  if (const json* network = jsonMember(value, "network")) {
    readField(*network, "rx_bytes", metrics.network_rx_bytes);
    readField(*network, "tx_bytes", metrics.network_tx_bytes);
  }
  if (const json* system = jsonMember(value, "system")) {
    readField(*system, "uptime_seconds", metrics.uptime_seconds);
    readLoadAverage(*system, metrics.load_average);
  }
  readRecords(value, "gpus", metrics.gpus, gpuFrom);
}

/// What a controller lists of a worker beyond what the worker says itself.
void readListedCapabilities(const json& body, WorkerCapabilities& capabilities) {
  readCapabilities(body, capabilities);
  const json* value = jsonMember(body, "capabilities");
  if (value == nullptr || !value->is_object()) return;
  readField(*value, "supports_tgi", capabilities.supports_tgi);
  readField(*value, "supports_tensorflow_serving", capabilities.supports_tensorflow_serving);
  readField(*value, "supports_torchserve", capabilities.supports_torchserve);
  readField(*value, "supports_onnx_runtime", capabilities.supports_onnx_runtime);
  readField(*value, "supports_triton", capabilities.supports_triton);
  readField(*value, "supports_meta_lcm", capabilities.supports_meta_lcm);
  readField(*value, "supports_meta_vljepa", capabilities.supports_meta_vljepa);
  readField(*value, "supports_xlstm", capabilities.supports_xlstm);
  readField(*value, "has_rocm", capabilities.has_rocm);
  readField(*value, "has_tensorrt", capabilities.has_tensorrt);
  readField(*value, "gpu_count", capabilities.gpu_count);
  readField(*value, "gpu_memory_mb", capabilities.gpu_memory_mb);
  readField(*value, "max_models", capabilities.max_models);
  readRecords(*value, "backend_endpoints", capabilities.backend_endpoints, endpointFrom);
}

/// The host's state as "system" lists it.
void readSystem(const json& system, platform::WallTime now, WorkerInfo& worker) {
  readMetrics(system, now, worker.metrics);
  readField(system, "os", worker.os);
  readField(system, "arch", worker.arch);
  const json* cpu = jsonMember(system, "cpu");
  if (cpu != nullptr) readLoadAverage(*cpu, worker.metrics.load_average);
  bool cuda = false;
  bool metal = false;
  readField(system, "cuda_available", cuda);
  readField(system, "metal_available", metal);
  worker.capabilities.has_cuda = worker.capabilities.has_cuda || cuda;
  worker.capabilities.has_metal = worker.capabilities.has_metal || metal;
}

}  // namespace

WorkerInfo workerFromListing(const json& listed, platform::WallTime now) {
  WorkerInfo worker = workerFromRegistration(listed, now);
  std::string status;
  readField(listed, "status", status);
  worker.status = status == "online" ? WorkerStatus::kOnline : WorkerStatus::kOffline;
  readSeconds(listed, "registered_at", worker.registered_at);
  readListedCapabilities(listed, worker.capabilities);
  const json* system = jsonMember(listed, "system");
  const json* metrics = jsonMember(listed, "metrics");
  if (metrics != nullptr && metrics->is_object()) readMetrics(*metrics, now, worker.metrics);
  if (system != nullptr && system->is_object()) readSystem(*system, now, worker);
  readField(listed, "uptime_seconds", worker.metrics.uptime_seconds);
  readRecords(listed, "running_models", worker.running_models, runningModelFrom);
  readField(listed, "labels", worker.labels);
  readField(listed, "config_id", worker.config_id);
  readField(listed, "config_timestamp", worker.config_timestamp);
  readField(listed, "config_dirty", worker.config_dirty);
  return worker;
}

WorkerInfo workerFromRegistration(const json& body, platform::WallTime now) {
  WorkerInfo worker;
  readField(body, "worker_id", worker.worker_id);
  readField(body, "worker_name", worker.worker_name);
  readField(body, "hostname", worker.hostname);
  readField(body, "ip_address", worker.ip_address);
  readField(body, "port", worker.port);
  readField(body, "os", worker.os);
  readField(body, "os_version", worker.os_version);
  readField(body, "arch", worker.arch);
  readField(body, "version", worker.version);
  readField(body, "worker_type", worker.worker_type);
  readField(body, "backend_type", worker.backend_type);
  readField(body, "backend_url", worker.backend_url);
  readField(body, "controller_url", worker.controller_url);
  readCapabilities(body, worker.capabilities);
  worker.status = WorkerStatus::kOnline;
  worker.registered_at = now;
  worker.last_heartbeat = now;
  return worker;
}

void applyHeartbeat(WorkerInfo& worker, const json& body, platform::WallTime now) {
  readField(body, "backend_type", worker.backend_type);
  readField(body, "backend_url", worker.backend_url);
  readField(body, "controller_url", worker.controller_url);
  readCapabilities(body, worker.capabilities);
  readListIfArray(body, "available_backends", worker.capabilities.available_backends);
  readListIfArray(body, "installed_models", worker.capabilities.installed_models);
  readRecords(body, "running_models", worker.running_models, runningModelFrom);
  if (const json* metrics = jsonMember(body, "metrics")) readMetrics(*metrics, now, worker.metrics);
  readField(body, "config_id", worker.config_id);
  readField(body, "config_timestamp", worker.config_timestamp);
  readField(body, "config_dirty", worker.config_dirty);
  worker.status = WorkerStatus::kOnline;
  worker.last_heartbeat = now;
}

}  // namespace tavrel::worker
