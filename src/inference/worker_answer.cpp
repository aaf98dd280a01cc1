#include "inference/worker_answer.h"

#include <limits>
#include <nlohmann/json.hpp>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::inference {
namespace {

/// The member of `value`, or null when that is no object or has none of that name.
const nlohmann::json* member(const nlohmann::json* value, const char* key) {
  return value == nullptr || !value->is_object() ? nullptr : platform::jsonMember(*value, key);
}

const nlohmann::json* firstElement(const nlohmann::json* value) {
  return value == nullptr || !value->is_array() || value->empty() ? nullptr : &value->front();
}

void takeText(const nlohmann::json* value, std::string& text) {
  if (text.empty() && value != nullptr && value->is_string()) {
    text = value->get_ref<const std::string&>();
  }
}

void takeArray(const nlohmann::json* value, std::string& text) {
  if (text.empty() && value != nullptr && value->is_array() && !value->empty()) {
    text = platform::dumpJson(*value);
  }
}

std::int64_t tokenCount(const nlohmann::json* value) {
  // Two of them must add up without overflow.
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint32_t>::max();
  if (value == nullptr || !value->is_number_unsigned()) return 0;
  const auto count = value->get<std::uint64_t>();
  return count > kMost ? 0 : static_cast<std::int64_t>(count);
}

void appendMember(std::string& out, std::string_view key, std::string_view text) {
  out.append(",\"").append(key).append("\":");
  platform::appendJsonString(out, text);
}

void appendMessage(std::string& out, const WorkerAnswer& answer) {
  out.append("{\"content\":");
  platform::appendJsonString(out, answer.text);
  out.append(",\"role\":\"assistant\"");
  if (!answer.tool_calls.empty()) out.append(",\"tool_calls\":").append(answer.tool_calls);
  if (!answer.tools.empty()) out.append(",\"tools\":").append(answer.tools);
  out.append("}");
}

}  // namespace

WorkerAnswer parseWorkerAnswer(std::string_view body) {
  const nlohmann::json document = platform::parseForeignJson(body);
  WorkerAnswer answer;
  const nlohmann::json* choice = firstElement(member(&document, "choices"));
  for (const nlohmann::json* message : {member(choice, "message"), member(&document, "message")}) {
    takeText(member(message, "content"), answer.text);
    takeArray(member(message, "tool_calls"), answer.tool_calls);
    takeArray(member(message, "tools"), answer.tools);
  }
  takeText(member(&document, "response"), answer.text);

  const nlohmann::json* usage = member(&document, "usage");
  const bool has_usage = usage != nullptr && usage->is_object();
  answer.prompt_tokens = tokenCount(has_usage ? member(usage, "prompt_tokens")
                                              : member(&document, "prompt_eval_count"));
  answer.completion_tokens =
      tokenCount(has_usage ? member(usage, "completion_tokens") : member(&document, "eval_count"));
  return answer;
}

std::string completionJson(const WorkerAnswer& answer, const CompletionFacts& facts) {
  std::string out;
  out.reserve(answer.text.size() + answer.tool_calls.size() + answer.tools.size() + 512);
  out.append("{\"choices\":[{\"finish_reason\":\"stop\",\"index\":0,\"message\":");
  appendMessage(out, answer);
  out.append("}],\"created\":").append(std::to_string(facts.created));
  out.append(",\"id\":\"chatcmpl-").append(facts.request_id).append("\"");
  appendMember(out, "model", facts.model);
  out.append(",\"object\":\"chat.completion\",\"routing\":{\"reason\":");
  platform::appendJsonString(out, facts.reason);
  appendMember(out, "strategy", facts.strategy);
  out.append("},\"usage\":{\"completion_tokens\":")
      .append(std::to_string(answer.completion_tokens))
      .append(",\"prompt_tokens\":")
      .append(std::to_string(answer.prompt_tokens))
      .append(",\"total_tokens\":")
      .append(std::to_string(answer.prompt_tokens + answer.completion_tokens))
      .append("}");
  appendMember(out, "worker", facts.worker);
  appendMember(out, "worker_host", facts.worker_host);
  out.append("}");
  return out;
}

}  // namespace tavrel::inference
