#include "inference/openai_error.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace tavrel::inference {

namespace {

using nlohmann::ordered_json;

ordered_json textOrNull(const std::string& text) {
  return text.empty() ? ordered_json(nullptr) : ordered_json(text);
}

}  // namespace

std::string OpenAiError::body() const {
  const ordered_json document = {{"error",
                                  {{"message", message},
                                   {"type", type},
                                   {"param", textOrNull(param)},
                                   {"code", textOrNull(code)}}}};
  return document.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

std::string OpenAiError::event() const {
  return "data: " + body() + "\n\n";
}

OpenAiError OpenAiError::invalidRequest(std::string message, std::string param, std::string code) {
  return {400, std::move(message), "invalid_request_error", std::move(param), std::move(code)};
}

OpenAiError OpenAiError::modelNotFound(const std::string& model) {
  return {404, "Model '" + model + "' not found on any worker or locally", "invalid_request_error",
          "model", "model_not_found"};
}

OpenAiError OpenAiError::upstream(int status, std::string message, std::string code) {
  return {status, std::move(message), "server_error", "", std::move(code)};
}

}  // namespace tavrel::inference
