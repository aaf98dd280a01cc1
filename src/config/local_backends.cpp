#include "config/local_backends.h"

#include <nlohmann/json.hpp>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::config {

using nlohmann::json;

namespace {

constexpr net::Timeouts kTimeouts{std::chrono::milliseconds(1000), std::chrono::milliseconds(2000)};
constexpr std::size_t kMaxAnswerBytes = std::size_t{4} << 20;

net::HttpResult ask(net::HttpClient& http, std::string url) {
  net::HttpCall call;
  call.url = std::move(url);
  call.max_answer_bytes = kMaxAnswerBytes;
  return http.send(call, kTimeouts);
}

/// Null when the answer is no JSON object.
json objectFrom(const net::HttpResult& result) {
  try {
    json document = platform::parseForeignJson(result.body);
    if (document.is_object()) return document;
  } catch (const std::exception&) {
    // not JSON
  }
  return nullptr;
}

std::vector<std::string> modelNames(const json& document) {
  std::vector<std::string> names;
  const json* models = document.is_object() ? platform::jsonMember(document, "models") : nullptr;
  if (models == nullptr || !models->is_array()) return names;
  for (const json& model : *models) {
    std::string name = platform::textMember(model, "name");
    if (!name.empty()) names.push_back(std::move(name));
  }
  return names;
}

}  // namespace

json DetectedBackend::toJson() const {
  return {{"type", backendTypeToString(type)},
          {"url", url},
          {"version", version},
          {"available_models", available_models},
          {"healthy", healthy}};
}

std::vector<BackendProbe> localBackendProbes() {
  return {
      {BackendType::kOllama, "http://localhost:11434", "/api/version", "/api/tags"},
      {BackendType::kVllm, "http://localhost:8000", "/health", "/v1/models"},
      {BackendType::kTgi, "http://localhost:8080", "/health", "/info"},
      {BackendType::kLlamaCpp, "http://localhost:8080", "/health", "/v1/models"},
      {BackendType::kMlx, "http://localhost:8080", "/v1/models", "/v1/models"},
      {BackendType::kNvidiaNim, "http://localhost:8000", "/v1/health/ready", "/v1/models"},
  };
}

std::vector<DetectedBackend> detectLocalBackends(net::HttpClient& http,
                                                 const std::vector<BackendProbe>& probes) {
  std::vector<DetectedBackend> found;
  for (const BackendProbe& probe : probes) {
    const net::HttpResult health = ask(http, probe.base_url + probe.health_path);
    if (!health.ok()) continue;
    DetectedBackend backend;
    backend.type = probe.type;
    backend.url = probe.base_url;
    backend.version = platform::textMember(objectFrom(health), "version");
    backend.available_models =
        modelNames(objectFrom(ask(http, probe.base_url + probe.models_path)));
    backend.healthy = true;
    found.push_back(std::move(backend));
  }
  return found;
}

}  // namespace tavrel::config
