#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "dev_worker/answers.h"
#include "dev_worker/chat_input.h"

namespace tavrel::dev_worker {

/// Which of the two text interfaces an answer is for.
enum class ReplyKind { kChat, kCompletion };

/// What tells one answer from the next.
struct ReplyId {
  std::string id;            ///< "chatcmpl-…" or "cmpl-…"
  std::int64_t created = 0;  ///< seconds since the epoch

  static ReplyId fresh(ReplyKind kind);
};

// Plain answers come in two parts, so that a worker that always says the same makes the second
// part once.
std::string replyTail(ReplyKind kind, const std::string& model, const Answer& answer,
                      int prompt_tokens);
std::string replyBody(ReplyKind kind, const ReplyId& id, std::string_view tail);

/// The events of one streamed answer, each complete with its "data: " and blank line.
class ReplyEvents {
 public:
  ReplyEvents(ReplyKind kind, const ReplyId& id, const std::string& model);

  std::string opening() const;  ///< tells the role; empty for completions
  std::string token(std::string_view text) const;
  std::string toolCall(const ToolCall& call) const;
  std::string finish(std::string_view reason) const;
  std::string usage(int prompt_tokens, int completion_tokens) const;

  static constexpr std::string_view kDone = "data: [DONE]\n\n";

 private:
  std::string choice(std::string_view content, std::string_view reason_json) const;

  const ReplyKind kind_;
  const std::string call_id_;
  std::string prefix_;  ///< up to and with "choices":
};

std::string embeddingsBody(const EmbeddingInput& input);
std::string modelsBody(const std::vector<std::string>& models, std::int64_t created);
std::string errorBody(std::string_view message, std::string_view type, std::string_view code);

/// Little-endian floats in base64, as clients that ask for that encoding decode them.
std::string base64Floats(const std::vector<float>& values);

}  // namespace tavrel::dev_worker
