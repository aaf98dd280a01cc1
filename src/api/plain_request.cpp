#include "api/plain_request.h"

#include <algorithm>
#include <array>

#include "api/request_head.h"
#include "platform/text.h"

namespace tavrel::api {
namespace {

using platform::equalsIgnoringCase;

constexpr std::string_view kVersion = " HTTP/1.1";
/// The longest target the library takes.
constexpr std::size_t kMaxTargetBytes = 8192;

constexpr std::array<std::string_view, 7> kMethods = {"GET",  "POST",  "PUT",    "DELETE",
                                                      "HEAD", "PATCH", "OPTIONS"};
/// What the library adds to requests, or reads more into than their text.
constexpr std::array<std::string_view, 8> kSpecialFields = {
    "Content-Encoding", "Expect",     "Range",       "Transfer-Encoding",
    "LOCAL_ADDR",       "LOCAL_PORT", "REMOTE_ADDR", "REMOTE_PORT"};

/// Printable ASCII without what stands for something else.
template <class Byte>
bool allAre(std::string_view text, const Byte& fits) {
  return std::all_of(text.begin(), text.end(), fits);
}
bool isPlainInTarget(char c) {
  return c > ' ' && c < 0x7f && c != '%' && c != '+' && c != '#';
}
bool isPlainInValue(char c) {
  return c >= ' ' && c < 0x7f && c != '%';
}

/// "a=1&b=2", every piece with one "=" and a name.
bool readQuery(std::string_view text, Request& request) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('&'), text.size());
    const std::string_view piece = text.substr(0, end);
    const std::size_t equals = piece.find('=');
    if (equals == std::string_view::npos || equals == 0 || equals + 1 == piece.size() ||
        piece.find('=', equals + 1) != std::string_view::npos) {
      return false;
    }
    request.query[std::string(piece.substr(0, equals))] = piece.substr(equals + 1);
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return true;
}

bool readRequestLine(std::string_view line, Request& request) {
  if (!line.ends_with(kVersion)) return false;
  line.remove_suffix(kVersion.size());
  const std::size_t space = line.find(' ');
  if (space == std::string_view::npos) return false;
  const std::string_view method = line.substr(0, space);
  std::string_view target = line.substr(space + 1);
  if (std::find(kMethods.begin(), kMethods.end(), method) == kMethods.end() ||
      !target.starts_with('/') || target.size() > kMaxTargetBytes ||
      !allAre(target, isPlainInTarget)) {
    return false;
  }
  const std::size_t mark = target.find('?');
  request.method = method;
  request.path = target.substr(0, mark);
  if (mark == std::string_view::npos) return true;
  target.remove_prefix(mark + 1);
  return !target.empty() && target.find('?') == std::string_view::npos &&
         readQuery(target, request);
}

bool readField(std::string_view line, Request& request, bool& asks_to_close) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = withoutBlanks(line.substr(colon + 1));
  if (value.empty() || !allAre(value, isPlainInValue) || !allAre(name, isPlainInTarget)) {
    return false;
  }
  for (const std::string_view special : kSpecialFields) {
    if (equalsIgnoringCase(name, special)) return false;
  }
  // Answers are never compressed.
  if (equalsIgnoringCase(name, "Accept-Encoding")) return true;
  if (equalsIgnoringCase(name, "Connection")) asks_to_close = equalsIgnoringCase(value, "close");
  request.headers[std::string(name)] = value;
  return true;
}

}  // namespace

bool readPlainRequest(std::string_view head, Request& request, bool& asks_to_close) {
  asks_to_close = false;
  bool first = true;
  for (;;) {
    const std::size_t end = head.find("\r\n");
    if (end == std::string_view::npos) return false;
    const std::string_view line = head.substr(0, end);
    if (line.empty()) return !first;
    if (first ? !readRequestLine(line, request) : !readField(line, request, asks_to_close)) {
      return false;
    }
    first = false;
    head.remove_prefix(end + 2);
  }
}

bool methodTakesBody(std::string_view method) {
  return method == "POST" || method == "PUT" || method == "PATCH" || method == "DELETE";
}

}  // namespace tavrel::api
