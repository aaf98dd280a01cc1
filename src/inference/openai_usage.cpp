#include "inference/openai_usage.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

namespace tavrel::inference {

namespace {

using nlohmann::json;

constexpr std::string_view kBlanks = " \t\r\n";
constexpr std::size_t kLongestUsage = 4096;  // bytes; real ones have a few hundred

/// The object that begins at `begin`, braces inside texts not expected: names and numbers only.
std::string_view objectAt(std::string_view text, std::size_t begin) {
  const std::size_t limit = std::min(text.size(), begin + kLongestUsage);
  int depth = 0;
  for (std::size_t i = begin; i < limit; ++i) {
    if (text[i] == '{') ++depth;
    if (text[i] == '}' && --depth == 0) return text.substr(begin, i + 1 - begin);
  }
  return {};
}

int count(const json& usage, const char* name) {
  const auto it = usage.find(name);
  if (it == usage.end() || !it->is_number_integer()) return 0;
  constexpr std::int64_t kMost = std::numeric_limits<int>::max();
  const auto value = it->is_number_unsigned()
                         ? static_cast<std::int64_t>(std::min<std::uint64_t>(
                               it->get<std::uint64_t>(), static_cast<std::uint64_t>(kMost)))
                         : it->get<std::int64_t>();
  return static_cast<int>(std::clamp<std::int64_t>(value, 0, kMost));
}

}  // namespace

std::string_view findUsage(std::string_view answer) {
  // A quoted name cannot stand inside a text: quotes are escaped there.
  constexpr std::string_view kName = "\"usage\"";
  for (std::size_t at = answer.rfind(kName); at != std::string_view::npos;
       at = at == 0 ? std::string_view::npos : answer.rfind(kName, at - 1)) {
    const std::size_t colon = answer.find_first_not_of(kBlanks, at + kName.size());
    if (colon == std::string_view::npos || answer[colon] != ':') continue;
    const std::size_t value = answer.find_first_not_of(kBlanks, colon + 1);
    if (value == std::string_view::npos || answer[value] != '{') continue;
    return objectAt(answer, value);
  }
  return {};
}

OpenAiUsage readUsage(std::string_view usage) {
  if (usage.empty()) return {};
  const json document = json::parse(usage, nullptr, false);
  if (!document.is_object()) return {};
  return {count(document, "prompt_tokens"), count(document, "completion_tokens")};
}

bool looksLikeJsonObject(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return false;
  return text[first] == '{' && text[text.find_last_not_of(kBlanks)] == '}' && text.size() > 1;
}

}  // namespace tavrel::inference
