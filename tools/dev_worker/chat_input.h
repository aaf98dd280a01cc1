#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tavrel::dev_worker {

/// A call of a function that the client offered.
struct ToolCall {
  std::string name;
  std::string arguments;  ///< a JSON object as text
};

/// What the worker reads of a chat or completion request. A plain value.
struct ChatInput {
  std::string model;
  std::string text;  ///< what is echoed: the last user or tool message, or the prompt
  bool stream = false;
  bool include_usage = false;
  int max_tokens = 0;  ///< 0: no limit
  int prompt_tokens = 0;
  std::optional<ToolCall> tool_call;  ///< set when the answer is to be one
};

struct EmbeddingInput {
  std::string model;
  std::vector<std::string> texts;
  std::size_t dimensions = 0;
  bool base64 = false;
};

constexpr std::size_t kDefaultDimensions = 384;
constexpr std::size_t kMaxDimensions = 8192;

// Readers of request bodies. Nothing when a required part is missing or of the wrong type; optional
// parts of the wrong type count as absent.
std::optional<ChatInput> readChat(const nlohmann::json& body);
std::optional<ChatInput> readCompletion(const nlohmann::json& body);
std::optional<EmbeddingInput> readEmbeddings(const nlohmann::json& body);

/// True when the text of a JSON object asks for a streamed answer. Only looks for the member: text
/// inside strings cannot look like one, since its quotes are escaped there.
bool wantsStream(const std::string& body);

}  // namespace tavrel::dev_worker
