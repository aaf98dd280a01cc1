#include "ai/model_server.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::ai {
namespace {

constexpr std::size_t kMaxAnswerBytes = std::size_t{1} << 20;
constexpr std::chrono::milliseconds kConnectTimeout{2000};

Generated readAnswer(const net::HttpResult& result) {
  if (!result.transport_error.empty()) return {{}, result.transport_error};
  if (result.status != 200) return {{}, "HTTP " + std::to_string(result.status)};
  try {
    const nlohmann::json answer = platform::parseForeignJson(result.body);
    const nlohmann::json* text =
        answer.is_object() ? platform::jsonMember(answer, "response") : nullptr;
    if (text == nullptr || !text->is_string()) return {{}, "The model server sent no response"};
    return {text->get<std::string>(), {}};
  } catch (const std::exception& error) {
    return {{}, std::string("The model server did not send JSON: ") + error.what()};
  }
}

}  // namespace

Generated generate(net::HttpClient& http, const GenerateCall& call) {
  net::HttpCall request;
  request.method = "POST";
  request.url = net::joinUrl(call.base_url, "/api/generate");
  request.headers = {{"Content-Type", "application/json"}};
  request.max_answer_bytes = kMaxAnswerBytes;
  request.body = platform::dumpJson(
      {{"model", call.model},
       {"prompt", call.prompt},
       {"stream", false},
       {"options", {{"temperature", call.temperature}, {"num_predict", call.max_tokens}}}});
  return readAnswer(http.send(request, {std::min(kConnectTimeout, call.timeout), call.timeout}));
}

}  // namespace tavrel::ai
