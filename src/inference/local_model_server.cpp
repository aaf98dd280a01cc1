#include "inference/local_model_server.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::inference {
namespace {

std::vector<LocalModel> readModels(const std::string& body) {
  std::vector<LocalModel> models;
  const nlohmann::json document = platform::parseForeignJson(body);
  const nlohmann::json* list =
      document.is_object() ? platform::jsonMember(document, "models") : nullptr;
  if (list == nullptr || !list->is_array()) return models;
  for (const nlohmann::json& entry : *list) {
    const nlohmann::json* name = entry.is_object() ? platform::jsonMember(entry, "name") : nullptr;
    if (name == nullptr || !name->is_string()) continue;
    LocalModel& model = models.emplace_back();
    model.name = name->get<std::string>();
    const nlohmann::json* size = platform::jsonMember(entry, "size");
    if (size != nullptr && size->is_number_unsigned())
      model.size_bytes = size->get<std::uint64_t>();
  }
  return models;
}

}  // namespace

LocalModelServer::LocalModelServer(net::HttpClient& http, std::string base_url)
    : http_(http), base_url_(std::move(base_url)), host_(net::authorityOf(base_url_)) {}

std::vector<LocalModel> LocalModelServer::listModels() {
  const net::HttpResult result =
      http_.get(net::joinUrl(base_url_, "/api/tags"), {kConnectTimeout, kListTimeout});
  if (!result.ok()) return {};
  try {
    return readModels(result.body);
  } catch (const std::exception&) {
    return {};  // something else listens there
  }
}

bool LocalModelServer::hasModel(const std::string& model) {
  const auto models = listModels();
  return std::any_of(models.begin(), models.end(),
                     [&](const LocalModel& known) { return known.name == model; });
}

LocalModelServer::Chat LocalModelServer::chat(const ChatRequest& request) {
  const net::HttpResult result =
      http_.postJson(net::joinUrl(base_url_, "/api/chat"), request.localServerBody(),
                     {kConnectTimeout, kChatTimeout});
  if (!result.transport_error.empty()) return {{}, result.transport_error};
  if (result.status != 200) return {{}, "HTTP " + std::to_string(result.status)};
  try {
    return {parseWorkerAnswer(result.body), {}};
  } catch (const std::exception& error) {
    return {{}, error.what()};
  }
}

}  // namespace tavrel::inference
