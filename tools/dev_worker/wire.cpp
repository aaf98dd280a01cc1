#include "dev_worker/wire.h"

#include <bit>
#include <cstddef>
#include <nlohmann/json.hpp>

#include "platform/clock.h"
#include "platform/random.h"

namespace tavrel::dev_worker {
namespace {

using nlohmann::json;

std::string dump(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string jsonText(std::string_view text) {
  return dump(json(text));
}

json usageObject(int prompt_tokens, int completion_tokens) {
  return {{"prompt_tokens", prompt_tokens},
          {"completion_tokens", completion_tokens},
          {"total_tokens", prompt_tokens + completion_tokens}};
}

json toolCallObject(const ToolCall& call, const std::string& call_id) {
  return {{"id", call_id},
          {"type", "function"},
          {"function", {{"name", call.name}, {"arguments", call.arguments}}}};
}

json choiceObject(ReplyKind kind, const Answer& answer) {
  json choice = {{"index", 0}, {"logprobs", nullptr}, {"finish_reason", answer.finish_reason}};
  if (kind == ReplyKind::kCompletion) {
    choice["text"] = answer.text();
  } else if (answer.tool_call) {
    choice["message"] = {
        {"role", "assistant"},
        {"content", nullptr},
        {"tool_calls",
         json::array({toolCallObject(*answer.tool_call, "call_" + platform::randomHex(24))})}};
  } else {
    choice["message"] = {{"role", "assistant"}, {"content", answer.text()}};
  }
  return choice;
}

/// `{"id":"…","object":"…","created":…`
std::string opened(const ReplyId& id, std::string_view object) {
  std::string text = R"({"id":")";
  text.append(id.id).append(R"(","object":")").append(object).append(R"(","created":)");
  return text.append(std::to_string(id.created));
}

}  // namespace

ReplyId ReplyId::fresh(ReplyKind kind) {
  return {(kind == ReplyKind::kChat ? "chatcmpl-" : "cmpl-") + platform::randomHex(24),
          platform::toEpochSeconds(platform::wallNow())};
}

std::string replyTail(ReplyKind kind, const std::string& model, const Answer& answer,
                      int prompt_tokens) {
  const json usage = usageObject(prompt_tokens, answer.tokenCount());
  return R"(,"model":)" + jsonText(model) + R"(,"choices":[)" + dump(choiceObject(kind, answer)) +
         R"(],"usage":)" + dump(usage) + "}";
}

std::string replyBody(ReplyKind kind, const ReplyId& id, std::string_view tail) {
  std::string body = opened(id, kind == ReplyKind::kChat ? "chat.completion" : "text_completion");
  return body.append(tail);
}

ReplyEvents::ReplyEvents(ReplyKind kind, const ReplyId& id, const std::string& model)
    : kind_(kind), call_id_("call_" + platform::randomHex(24)) {
  const bool chat = kind == ReplyKind::kChat;
  prefix_ = "data: " + opened(id, chat ? "chat.completion.chunk" : "text_completion") +
            R"(,"model":)" + jsonText(model) + R"(,"choices":)";
}

std::string ReplyEvents::choice(std::string_view content, std::string_view reason_json) const {
  std::string text = prefix_;
  text.append(R"([{"index":0,)");
  text.append(kind_ == ReplyKind::kChat ? R"("delta":)" : R"("text":)").append(content);
  text.append(R"(,"logprobs":null,"finish_reason":)").append(reason_json);
  return text.append("}]}\n\n");
}

std::string ReplyEvents::opening() const {
  if (kind_ == ReplyKind::kCompletion) return {};
  return choice(R"({"role":"assistant","content":""})", "null");
}

std::string ReplyEvents::token(std::string_view text) const {
  if (kind_ == ReplyKind::kCompletion) return choice(jsonText(text), "null");
  return choice(R"({"content":)" + jsonText(text) + "}", "null");
}

std::string ReplyEvents::toolCall(const ToolCall& call) const {
  // The name first, the arguments in an event of their own: clients must put them together.
  json named = toolCallObject({call.name, ""}, call_id_);
  named["index"] = 0;
  const json rest = {{"index", 0}, {"function", {{"arguments", call.arguments}}}};
  return choice(dump({{"tool_calls", json::array({named})}}), "null") +
         choice(dump({{"tool_calls", json::array({rest})}}), "null");
}

std::string ReplyEvents::finish(std::string_view reason) const {
  return choice(kind_ == ReplyKind::kChat ? "{}" : "\"\"", jsonText(reason));
}

std::string ReplyEvents::usage(int prompt_tokens, int completion_tokens) const {
  return prefix_ + R"([],"usage":)" + dump(usageObject(prompt_tokens, completion_tokens)) + "}\n\n";
}

std::string embeddingsBody(const EmbeddingInput& input) {
  json data = json::array();
  int tokens = 0;
  for (const std::string& text : input.texts) {
    const std::vector<float> vector = embeddingOf(text, input.dimensions);
    tokens += countTokens(text);
    json entry = {{"object", "embedding"}, {"index", data.size()}};
    if (input.base64) {
      entry["embedding"] = base64Floats(vector);
    } else {
      entry["embedding"] = vector;
    }
    data.push_back(std::move(entry));
  }
  return dump({{"object", "list"},
               {"data", std::move(data)},
               {"model", input.model},
               {"usage", {{"prompt_tokens", tokens}, {"total_tokens", tokens}}}});
}

std::string modelsBody(const std::vector<std::string>& models, std::int64_t created) {
  json data = json::array();
  for (const std::string& model : models) {
    data.push_back(
        {{"id", model}, {"object", "model"}, {"created", created}, {"owned_by", "dev-worker"}});
  }
  return dump({{"object", "list"}, {"data", std::move(data)}});
}

std::string errorBody(std::string_view message, std::string_view type, std::string_view code) {
  const json error = {{"message", message}, {"type", type}, {"param", nullptr}, {"code", code}};
  return dump({{"error", error}});
}

std::string base64Floats(const std::vector<float>& values) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::vector<unsigned> bytes;
  bytes.reserve(values.size() * 4);
  for (const float value : values) {
    const auto bits = std::bit_cast<std::uint32_t>(value);
    for (unsigned shift = 0; shift < 32; shift += 8) bytes.push_back((bits >> shift) & 0xffU);
  }
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t left = bytes.size() - i;
    const unsigned group =
        (bytes[i] << 16U) | (left > 1 ? bytes[i + 1] << 8U : 0U) | (left > 2 ? bytes[i + 2] : 0U);
    text.push_back(kAlphabet[(group >> 18U) & 63U]);
    text.push_back(kAlphabet[(group >> 12U) & 63U]);
    text.push_back(left > 1 ? kAlphabet[(group >> 6U) & 63U] : '=');
    text.push_back(left > 2 ? kAlphabet[group & 63U] : '=');
  }
  return text;
}

}  // namespace tavrel::dev_worker
