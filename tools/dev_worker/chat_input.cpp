#include "dev_worker/chat_input.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string_view>

#include "dev_worker/answers.h"
#include "platform/json_fields.h"

namespace tavrel::dev_worker {
namespace {

using nlohmann::json;
using platform::textMember;

const json& member(const json& object, const char* key) {
  static const json kNothing;
  const auto found = object.is_object() ? object.find(key) : object.end();
  return object.is_object() && found != object.end() ? *found : kNothing;
}

bool isTrue(const json& object, const char* key) {
  const json& value = member(object, key);
  return value.is_boolean() && value.get<bool>();
}

int positiveMember(const json& object, const char* key) {
  const json& value = member(object, key);
  return value.is_number_integer() ? std::max(0, platform::jsonNumber<int>(value)) : 0;
}

/// Content is a text, or a list of parts of which the texts count.
std::string contentOf(const json& message) {
  const json& content = member(message, "content");
  if (content.is_string()) return content.get<std::string>();
  std::string text;
  if (content.is_array()) {
    for (const json& part : content) text += textMember(part, "text");
  }
  return text;
}

ChatInput commonInput(const json& body) {
  ChatInput input;
  input.model = textMember(body, "model");
  input.stream = isTrue(body, "stream");
  input.include_usage = isTrue(member(body, "stream_options"), "include_usage");
  input.max_tokens = positiveMember(body, "max_completion_tokens");
  if (input.max_tokens == 0) input.max_tokens = positiveMember(body, "max_tokens");
  return input;
}

json sampleArgument(const json& schema, const std::string& text) {
  const std::string type = textMember(schema, "type");
  const json& choices = member(schema, "enum");
  if (choices.is_array() && !choices.empty()) return choices.front();
  if (type == "integer" || type == "number") return 1;
  if (type == "boolean") return true;
  if (type == "array") return json::array();
  if (type == "object") return json::object();
  return text;
}

/// A call of the first tool, every parameter given a value of its type.
std::optional<ToolCall> callOfFirstTool(const json& body, const std::string& text) {
  const json& tools = member(body, "tools");
  if (!tools.is_array() || tools.empty() || textMember(body, "tool_choice") == "none") return {};
  const json& function = member(tools.front(), "function");
  ToolCall call;
  call.name = textMember(function, "name");
  if (call.name.empty()) return {};
  json arguments = json::object();
  const json& properties = member(member(function, "parameters"), "properties");
  if (properties.is_object()) {
    for (const auto& [name, schema] : properties.items()) {
      arguments[name] = sampleArgument(schema, text);
    }
  }
  call.arguments = arguments.dump(-1, ' ', false, json::error_handler_t::replace);
  return call;
}

/// A text, or a list of texts; a list of token numbers stands for itself as text.
std::optional<std::vector<std::string>> readTexts(const json& value) {
  if (value.is_string()) return std::vector{value.get<std::string>()};
  if (!value.is_array() || value.empty()) return {};
  if (value.front().is_number()) return std::vector{value.dump()};
  std::vector<std::string> texts;
  for (const json& entry : value) {
    if (!entry.is_string() && !entry.is_array()) return {};
    texts.push_back(entry.is_string() ? entry.get<std::string>() : entry.dump());
  }
  return texts;
}

}  // namespace

std::optional<ChatInput> readChat(const json& body) {
  const json& messages = member(body, "messages");
  if (!messages.is_array() || messages.empty()) return {};
  ChatInput input = commonInput(body);
  std::string last_role;
  for (const json& message : messages) {
    const std::string content = contentOf(message);
    input.prompt_tokens += countTokens(content);
    last_role = textMember(message, "role");
    if (last_role == "user" || last_role == "tool") input.text = content;
  }
  // The result of a tool is answered with text, or a client that runs its tools would never end.
  if (last_role != "tool") input.tool_call = callOfFirstTool(body, input.text);
  return input;
}

std::optional<ChatInput> readCompletion(const json& body) {
  const auto prompts = readTexts(member(body, "prompt"));
  if (!prompts) return {};
  ChatInput input = commonInput(body);
  input.text = prompts->front();
  for (const std::string& prompt : *prompts) input.prompt_tokens += countTokens(prompt);
  return input;
}

std::optional<EmbeddingInput> readEmbeddings(const json& body) {
  auto texts = readTexts(member(body, "input"));
  if (!texts) return {};
  EmbeddingInput input;
  input.model = textMember(body, "model");
  input.texts = std::move(*texts);
  const auto wanted = static_cast<std::size_t>(positiveMember(body, "dimensions"));
  input.dimensions = wanted == 0 ? kDefaultDimensions : std::min(wanted, kMaxDimensions);
  input.base64 = textMember(body, "encoding_format") == "base64";
  return input;
}

bool wantsStream(const std::string& body) {
  constexpr std::string_view kKey = "\"stream\"";
  constexpr std::string_view kBlank = " \t\r\n";
  for (std::size_t at = body.find(kKey); at != std::string::npos; at = body.find(kKey, at + 1)) {
    std::size_t next = body.find_first_not_of(kBlank, at + kKey.size());
    if (next == std::string::npos || body[next] != ':') continue;
    next = body.find_first_not_of(kBlank, next + 1);
    if (next != std::string::npos && body.compare(next, 4, "true") == 0) return true;
  }
  return false;
}

}  // namespace tavrel::dev_worker
