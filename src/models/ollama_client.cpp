#include "models/ollama_client.h"

#include <stdexcept>
#include <utility>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::models {
namespace {

using nlohmann::json;

/// A member as text. Older servers send some of them as lists or objects.
std::string textOf(const json& object, const char* key) {
  const json* value = platform::jsonMember(object, key);
  if (value == nullptr || value->is_null()) return "";
  return value->is_string() ? value->get<std::string>() : platform::dumpJson(*value);
}

}  // namespace

OllamaClient::OllamaClient(net::WorkerClient& client, std::string base_url)
    : client_(client), base_url_(std::move(base_url)) {}

ModelDetails OllamaClient::showModel(const std::string& name) {
  const net::HttpResult result = client_.post(
      net::CallKind::kModelServer, net::joinUrl(base_url_, "/api/show"), json{{"name", name}});
  if (result.status == 404) return {};
  const std::string failure = net::failureOf(result);
  if (!failure.empty()) throw std::runtime_error(failure);
  const json answer = net::parsedJson(result.body);
  if (!answer.is_object()) throw std::runtime_error("The model server did not send JSON");

  ModelDetails model;
  model.found = true;
  model.modelfile = textOf(answer, "modelfile");
  model.template_text = textOf(answer, "template");
  model.system = textOf(answer, "system");
  model.license = textOf(answer, "license");
  model.parameters = textOf(answer, "parameters");
  const json* details = platform::jsonMember(answer, "details");
  if (details != nullptr && details->is_object()) model.details = *details;
  return model;
}

}  // namespace tavrel::models
