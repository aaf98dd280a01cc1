#include "inference/chat_request.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::inference {
namespace {

/// The member, or null when it is missing or null.
const nlohmann::json* present(const nlohmann::json& object, const char* key) {
  const nlohmann::json* value = platform::jsonMember(object, key);
  return value == nullptr || value->is_null() ? nullptr : value;
}

std::string numberText(const nlohmann::json& body, const char* key, const char* fallback) {
  const nlohmann::json* value = present(body, key);
  if (value == nullptr) return fallback;
  // Not a number: raised here, before anything was sent anywhere.
  if (!value->is_number()) static_cast<void>(value->get<double>());
  return value->dump();
}

std::string jsonText(const nlohmann::json& body, const char* key) {
  const nlohmann::json* value = present(body, key);
  return value == nullptr ? std::string() : platform::dumpJson(*value);
}

std::string textOfContent(const nlohmann::json& content) {
  if (content.is_string()) return content.get<std::string>();
  std::string text;
  if (!content.is_array()) return text;
  for (const nlohmann::json& part : content) {
    const nlohmann::json* piece = part.is_object() ? present(part, "text") : nullptr;
    if (piece == nullptr || !piece->is_string()) continue;
    if (!text.empty()) text += '\n';
    text += piece->get_ref<const std::string&>();
  }
  return text;
}

}  // namespace

ChatRequest ChatRequest::read(const nlohmann::json& body) {
  ChatRequest request;
  const nlohmann::json* model = present(body, "model");
  request.model = model == nullptr ? "llama3.1:8b" : model->get<std::string>();
  request.messages = jsonText(body, "messages");
  request.temperature = numberText(body, "temperature", "0.7");
  request.max_tokens = numberText(body, "max_tokens", "2048");
  request.top_p = numberText(body, "top_p", "0.9");
  request.tools = jsonText(body, "tools");
  request.tool_choice = jsonText(body, "tool_choice");
  return request;
}

void ChatRequest::prependSystemMessage(std::string_view content) {
  std::string longer = "[{\"content\":";
  platform::appendJsonString(longer, content);
  longer += ",\"role\":\"system\"},";
  longer.append(messages, 1);
  messages = std::move(longer);
}

std::string ChatRequest::workerBody(bool stream) const {
  std::string body;
  body.reserve(messages.size() + tools.size() + tool_choice.size() + model.size() + 160);
  body.append("{\"max_tokens\":").append(max_tokens);
  body.append(",\"messages\":").append(messages);
  body.append(",\"model\":");
  platform::appendJsonString(body, model);
  body.append(stream ? ",\"stream\":true" : ",\"stream\":false");
  body.append(",\"temperature\":").append(temperature);
  if (!tool_choice.empty()) body.append(",\"tool_choice\":").append(tool_choice);
  if (!tools.empty()) body.append(",\"tools\":").append(tools);
  body.append(",\"top_p\":").append(top_p).append("}");
  return body;
}

std::string ChatRequest::localServerBody() const {
  std::string body = "{\"messages\":" + messages + ",\"model\":";
  platform::appendJsonString(body, model);
  body.append(",\"options\":{\"num_predict\":").append(max_tokens);
  body.append(",\"temperature\":").append(temperature).append("},\"stream\":false");
  if (!tools.empty()) body.append(",\"tools\":").append(tools);
  body.append("}");
  return body;
}

bool asksForEnsemble(const nlohmann::json& body) {
  const nlohmann::json* value = body.is_object() ? present(body, "ensemble_mode") : nullptr;
  return value != nullptr && value->get<bool>();
}

const nlohmann::json* chatMessages(const nlohmann::json& body) {
  const nlohmann::json* messages = body.is_object() ? present(body, "messages") : nullptr;
  return messages == nullptr || !messages->is_array() || messages->empty() ? nullptr : messages;
}

std::string lastUserText(const nlohmann::json& messages) {
  for (auto it = messages.rbegin(); it != messages.rend(); ++it) {
    if (!it->is_object()) continue;
    const nlohmann::json* role = present(*it, "role");
    if (role == nullptr || *role != "user") continue;
    const nlohmann::json* content = present(*it, "content");
    return content == nullptr ? std::string() : textOfContent(*content);
  }
  return {};
}

}  // namespace tavrel::inference
