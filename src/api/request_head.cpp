#include "api/request_head.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "platform/text.h"

namespace tavrel::api {
namespace {

using platform::equalsIgnoringCase;

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";
/// The longest request line the HTTP library takes; it answers 414 beyond.
constexpr std::size_t kMaxMethodBytes = 16;
/// The longest field the HTTP library takes, line end included.
constexpr std::size_t kMaxFieldBytes = 8192;

RequestHead refuse(int status) {
  RequestHead head;
  head.state = RequestHead::State::kRefused;
  head.refusal = status;
  return head;
}

std::optional<std::uint64_t> decimal(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return {};
  return value;
}

/// True when the bytes so far could be the start of "METHOD /target".
bool looksLikeRequest(std::string_view input) {
  const std::size_t length = std::min(input.size(), kMaxMethodBytes);
  for (std::size_t i = 0; i < length; ++i) {
    if (input[i] == ' ') return i > 0;
    if (input[i] < 'A' || input[i] > 'Z') return false;
  }
  return length < kMaxMethodBytes;
}

/// One reader ends a line there, another does not.
bool hasStrayLineEnd(std::string_view line) {
  return line.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

/// Reads one field; 0, or the status to refuse the request with.
int readField(std::string_view line, RequestHead& head, bool& has_length) {
  const std::size_t colon = line.find(':');
  // A blank before the colon, or a folded line, is read differently by different programs.
  if (colon == std::string_view::npos || colon == 0 || line.front() == ' ' ||
      line.front() == '\t' || line[colon - 1] == ' ' || line[colon - 1] == '\t' ||
      hasStrayLineEnd(line)) {
    return 400;
  }
  if (line.size() + kLineEnd.size() > kMaxFieldBytes) return 431;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = withoutBlanks(line.substr(colon + 1));
  if (equalsIgnoringCase(name, "Content-Length")) {
    const auto length = decimal(value);
    if (!length || has_length) return 400;
    has_length = true;
    head.content_length = *length;
  } else if (equalsIgnoringCase(name, "Transfer-Encoding")) {
    if (!equalsIgnoringCase(value, "chunked") || head.chunked) return 501;
    head.chunked = true;
  } else if (equalsIgnoringCase(name, "Expect")) {
    head.expects_continue = true;
  }
  return 0;
}

}  // namespace

std::string_view withoutBlanks(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

RequestHead scanRequestHead(std::string_view input, const HeadLimits& limits,
                            std::size_t& searched) {
  if (!looksLikeRequest(input)) return refuse(400);
  const std::size_t from = searched < kHeadEnd.size() ? 0 : searched - (kHeadEnd.size() - 1);
  const std::size_t end = input.find(kHeadEnd, from);
  searched = input.size();
  if (end == std::string_view::npos) {
    return input.size() > limits.max_bytes ? refuse(431) : RequestHead{};
  }
  if (end + kHeadEnd.size() > limits.max_bytes) return refuse(431);

  RequestHead head;
  head.size = end + kHeadEnd.size();
  bool has_length = false;
  std::size_t fields = 0;
  // The terminator's first line end belongs to the last field (or to the request line).
  std::string_view lines = input.substr(0, end + kLineEnd.size());
  const std::size_t request_line_end = lines.find(kLineEnd);
  if (hasStrayLineEnd(lines.substr(0, request_line_end))) return refuse(400);
  lines.remove_prefix(request_line_end + kLineEnd.size());
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find(kLineEnd));
    const std::size_t line_bytes = line.size() + kLineEnd.size();
    if (++fields > limits.max_fields) return refuse(431);
    if (const int status = readField(line, head, has_length); status != 0) return refuse(status);
    if (equalsIgnoringCase(line.substr(0, line.find(':')), "Range")) {
      head.unwanted.emplace_back(static_cast<std::size_t>(line.data() - input.data()), line_bytes);
    }
    lines.remove_prefix(line_bytes);
  }
  if (head.chunked && has_length) return refuse(400);
  if (head.content_length > limits.max_body_bytes) return refuse(413);
  head.state = RequestHead::State::kComplete;
  return head;
}

}  // namespace tavrel::api
