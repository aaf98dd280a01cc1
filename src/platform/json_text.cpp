#include "platform/json_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/text.h"

namespace tavrel::platform {
namespace {

/// The code unit of the escape "\uXXXX" at the start of `text`.
std::optional<unsigned> unicodeEscape(std::string_view text) {
  if (text.size() < 6 || text[0] != '\\' || text[1] != 'u') return std::nullopt;
  unsigned unit = 0;
  for (const char c : text.substr(2, 4)) {
    const auto digit = std::string_view("0123456789abcdefABCDEF").find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    unit = unit * 16 + static_cast<unsigned>(digit < 16 ? digit : digit - 6);
  }
  return unit;
}

/// JSON text with every half of a surrogate pair replaced.
std::string replaceLoneSurrogates(std::string_view text) {
  std::string mended;
  mended.reserve(text.size());
  while (!text.empty()) {
    std::size_t length = text[0] == '\\' ? 2 : 1;
    bool broken = false;
    if (const auto unit = unicodeEscape(text)) {
      const auto next = *unit >= 0xD800 && *unit < 0xDC00 ? unicodeEscape(text.substr(6))
                                                          : std::optional<unsigned>();
      const bool pair = next && *next >= 0xDC00 && *next < 0xE000;
      length = pair ? 12 : 6;
      broken = !pair && *unit >= 0xD800 && *unit < 0xE000;
    }
    if (broken) {
      mended += "\\ufffd";
    } else {
      mended += text.substr(0, length);
    }
    text.remove_prefix(std::min(length, text.size()));
  }
  return mended;
}

}  // namespace

bool jsonWithinLimits(std::string_view text, int max_depth, std::size_t max_values) {
  int depth = 0;
  std::size_t values = 0;  // commas and openings: nearly that many, never much fewer
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > max_depth || ++values > max_values) return false;
    } else if (c == ',') {
      if (++values > max_values) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

nlohmann::json parseForeignJson(std::string_view text) {
  if (!jsonWithinLimits(text, kMaxForeignJsonDepth)) {
    throw std::runtime_error("nested deeper than " + std::to_string(kMaxForeignJsonDepth) +
                             ", or too many values");
  }
  auto document = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!document.is_discarded()) return document;
  return nlohmann::json::parse(replaceLoneSurrogates(replaceInvalidUtf8(text)));
}

void appendJsonString(std::string& out, std::string_view text) {
  for (const char c : text) {
    if (c < 0x20 || c > 0x7e || c == '"' || c == '\\') {
      out += dumpJson(nlohmann::json(std::string(text)));
      return;
    }
  }
  out += '"';
  out += text;
  out += '"';
}

std::string dumpJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void JsonArrayText::add(const nlohmann::json& element) {
  if (text_.size() > 1) text_ += ',';
  text_ += dumpJson(element);
}

std::string JsonArrayText::take() {
  text_ += ']';
  return std::move(text_);
}

}  // namespace tavrel::platform
