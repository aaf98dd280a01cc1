#include "platform/text.h"

#include <algorithm>

namespace tavrel::platform {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool isControl(unsigned char c) {
  return c < 0x20 || c == 0x7F;
}

/// Length in bytes of the valid UTF-8 character at the start of `text`; 0 when there is none.
std::size_t characterLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto continues = [&](std::size_t i) { return i < text.size() && (byte(i) & 0xC0) == 0x80; };
  if (text.empty()) return 0;
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return continues(1) ? 2 : 0;
  if ((first & 0xF0) == 0xE0) {
    if (!continues(1) || !continues(2)) return 0;
    if (first == 0xE0 && byte(1) < 0xA0) return 0;   // overlong
    if (first == 0xED && byte(1) >= 0xA0) return 0;  // surrogate
    return 3;
  }
  if (first >= 0xF0 && first <= 0xF4) {
    if (!continues(1) || !continues(2) || !continues(3)) return 0;
    if (first == 0xF0 && byte(1) < 0x90) return 0;   // overlong
    if (first == 0xF4 && byte(1) >= 0x90) return 0;  // beyond U+10FFFF
    return 4;
  }
  return 0;
}

bool isUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

void appendHexByte(std::string& out, unsigned char byte) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  out.push_back(kDigits[byte >> 4]);
  out.push_back(kDigits[byte & 0xf]);
}

}  // namespace

std::string toLower(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) c = lower(c);
  return lowered;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return lower(x) == lower(y); });
}

std::string firstCharacters(std::string_view text, std::size_t max_characters) {
  std::size_t end = 0;
  for (std::size_t count = 0; count < max_characters && end < text.size(); ++count) {
    const std::size_t length = characterLength(text.substr(end));
    end += length == 0 ? 1 : length;
  }
  return std::string(text.substr(0, end));
}

std::string replaceInvalidUtf8(std::string_view text) {
  std::string clean;
  clean.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    if (length == 0) {
      clean.append("\xEF\xBF\xBD");
      text.remove_prefix(1);
    } else {
      clean.append(text.substr(0, length));
      text.remove_prefix(length);
    }
  }
  return clean;
}

bool hasControls(std::string_view text) {
  return std::any_of(text.begin(), text.end(), isControl);
}

std::string singleLine(std::string_view text) {
  std::string line(text);
  std::replace_if(line.begin(), line.end(), isControl, ' ');
  return line;
}

std::string percentEncode(std::string_view text) {
  const bool dot_segment = text == "." || text == "..";
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isUnreserved(byte) && !dot_segment) {
      encoded.push_back(c);
    } else {
      encoded.push_back('%');
      appendHexByte(encoded, byte);
    }
  }
  return encoded;
}

std::string escapeHtml(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped.push_back(c);
    }
  }
  return escaped;
}

std::size_t countOccurrences(std::string_view text, std::string_view needle) {
  if (needle.empty()) return 0;
  std::size_t count = 0;
  for (std::size_t at = text.find(needle); at != std::string_view::npos;
       at = text.find(needle, at + needle.size())) {
    ++count;
  }
  return count;
}

}  // namespace tavrel::platform
