#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dev_worker/chat_input.h"

namespace tavrel::dev_worker {

/// What the worker says to a request. A plain value; the same request always gets the same one.
struct Answer {
  std::vector<std::string> tokens;  ///< their concatenation is the text
  std::string finish_reason = "stop";
  std::optional<ToolCall> tool_call;  ///< instead of a text

  std::string text() const;
  int tokenCount() const;
};

/// Words with the blanks before them: the concatenation is the text again.
std::vector<std::string> splitTokens(std::string_view text);
int countTokens(std::string_view text);

/// How answers are made up.
struct AnswerStyle {
  std::string fixed_text;  ///< empty: "Echo: " and what was asked
  int tokens = 0;          ///< words are repeated or cut to make so many; 0: as they come
};

Answer makeAnswer(const AnswerStyle& style, const ChatInput& input);

/// A vector of length 1 that depends on nothing but the text and the number of dimensions.
std::vector<float> embeddingOf(std::string_view text, std::size_t dimensions);

}  // namespace tavrel::dev_worker
