#include "models/model_registry.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "platform/text.h"

namespace tavrel::models {
namespace {

constexpr const char* kModels = "/api/v1/models";

std::string modelUrl(const std::string& base_url, const std::string& id) {
  return net::joinUrl(base_url, std::string(kModels) + '/' + platform::percentEncode(id));
}

}  // namespace

std::string ModelRegistry::storageWorkerUrl(platform::WallTime now) const {
  for (const worker::TypedWorkerPtr& worker : data_workers_.snapshot()) {
    if (!worker->flag("storage_enabled") || now - worker->last_heartbeat >= worker::kTrustedFor) {
      continue;
    }
    std::string url = worker->baseUrl();
    if (!url.empty()) return url;
  }
  return "";
}

std::string ModelRegistry::servingWorkerUrl(platform::WallTime now) const {
  std::string first;
  for (const worker::TypedWorkerPtr& worker : data_workers_.snapshot()) {
    if (worker->status != "online" || now - worker->last_heartbeat >= worker::kTrustedFor) continue;
    std::string url = worker->baseUrl();
    if (!url.empty() && worker->flag("storage_enabled")) return url;
    if (first.empty()) first = std::move(url);
  }
  return first;
}

net::HttpResult ModelRegistry::list(const std::string& base_url) {
  return client_.get(net::CallKind::kModelRegistry, net::joinUrl(base_url, kModels));
}

net::HttpResult ModelRegistry::find(const std::string& base_url, const std::string& id) {
  return client_.get(net::CallKind::kModelRegistry, modelUrl(base_url, id));
}

net::HttpResult ModelRegistry::remove(const std::string& base_url, const std::string& id) {
  return client_.del(net::CallKind::kModelRegistry, modelUrl(base_url, id));
}

net::HttpResult ModelRegistry::upload(const std::string& base_url, std::string json_text) {
  return client_.post(net::CallKind::kModelUpload, net::joinUrl(base_url, kModels),
                      std::move(json_text));
}

std::optional<nlohmann::json> ModelRegistry::describe(const std::string& base_url,
                                                      const std::string& model) {
  const net::HttpResult answer =
      client_.get(net::CallKind::kDescribeModel, modelUrl(base_url, model));
  if (answer.status == 404) return std::nullopt;
  nlohmann::json entry = answer.ok() ? net::parsedJson(answer.body) : nlohmann::json::object();
  return entry.is_object() ? std::move(entry) : nlohmann::json::object();
}

nlohmann::json listedModels(const std::string& text) {
  nlohmann::json answer = net::parsedJson(text);
  if (answer.is_object()) answer = answer.value("models", nlohmann::json());
  nlohmann::json entries = nlohmann::json::array();
  if (!answer.is_array()) return entries;
  for (nlohmann::json& entry : answer) {
    if (entry.is_object()) entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace tavrel::models
