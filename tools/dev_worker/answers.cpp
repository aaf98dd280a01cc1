#include "dev_worker/answers.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace tavrel::dev_worker {
namespace {

constexpr std::string_view kBlank = " \t\r\n";

std::size_t tokenEnd(std::string_view text) {
  const std::size_t word = text.find_first_not_of(kBlank);
  if (word == std::string_view::npos) return text.size();
  return std::min(text.find_first_of(kBlank, word), text.size());
}

void stretchTo(std::vector<std::string>& tokens, std::size_t count) {
  if (tokens.empty()) tokens.emplace_back("word");
  const std::size_t given = tokens.size();
  while (tokens.size() < count) {
    std::string next = tokens[tokens.size() - given];
    if (tokens.size() == given) next.insert(0, " ");  // the first word has no blank of its own
    tokens.push_back(std::move(next));
  }
  tokens.resize(count);
}

std::uint64_t mix(std::uint64_t bits) {
  bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9ULL;
  bits = (bits ^ (bits >> 27)) * 0x94d049bb133111ebULL;
  return bits ^ (bits >> 31);
}

}  // namespace

std::string Answer::text() const {
  std::string joined;
  for (const std::string& token : tokens) joined += token;
  return joined;
}

int Answer::tokenCount() const {
  return tool_call ? countTokens(tool_call->arguments) + 1 : static_cast<int>(tokens.size());
}

std::vector<std::string> splitTokens(std::string_view text) {
  std::vector<std::string> tokens;
  while (!text.empty()) {
    const std::size_t end = tokenEnd(text);
    tokens.emplace_back(text.substr(0, end));
    text.remove_prefix(end);
  }
  return tokens;
}

int countTokens(std::string_view text) {
  int count = 0;
  while (!text.empty()) {
    text.remove_prefix(tokenEnd(text));
    ++count;
  }
  return count;
}

Answer makeAnswer(const AnswerStyle& style, const ChatInput& input) {
  Answer answer;
  if (style.fixed_text.empty() && input.tool_call) {
    answer.tool_call = input.tool_call;
    answer.finish_reason = "tool_calls";
    return answer;
  }
  answer.tokens = splitTokens(style.fixed_text.empty() ? "Echo: " + input.text : style.fixed_text);
  if (style.tokens > 0) stretchTo(answer.tokens, static_cast<std::size_t>(style.tokens));
  const auto limit = static_cast<std::size_t>(input.max_tokens);
  if (limit > 0 && answer.tokens.size() > limit) {
    answer.tokens.resize(limit);
    answer.finish_reason = "length";
  }
  return answer;
}

std::vector<float> embeddingOf(std::string_view text, std::size_t dimensions) {
  std::uint64_t seed = 0xcbf29ce484222325ULL;
  for (const char byte : text) {
    seed = (seed ^ static_cast<unsigned char>(byte)) * 0x100000001b3ULL;
  }
  std::vector<float> vector(dimensions);
  double squares = 0;
  for (std::size_t i = 0; i < dimensions; ++i) {
    const std::uint64_t bits = mix(seed + (i + 1) * 0x9e3779b97f4a7c15ULL);
    const double value = static_cast<double>(bits >> 11) * 0x1.0p-52 - 1.0;  // -1 to 1
    vector[i] = static_cast<float>(value);
    squares += value * value;
  }
  const double length = std::sqrt(squares);
  if (length > 0) {
    for (float& value : vector) value = static_cast<float>(value / length);
  }
  return vector;
}

}  // namespace tavrel::dev_worker
