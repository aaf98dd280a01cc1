#include "api/answer_writer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>

namespace tavrel::api {
namespace {

bool isHeaderName(std::string_view name) {
  static constexpr std::string_view kOther = "!#$%&'*+-.^_`|~";
  return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           kOther.find(static_cast<char>(c)) != std::string_view::npos;
  });
}

bool isHeaderValue(std::string_view value) {
  return std::none_of(value.begin(), value.end(),
                      [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7F; });
}

/// Whether clients take the next bytes after the head for the next answer, whatever the head says.
bool endsWithItsHead(int status) {
  return status < 200 || status == 204 || status == 304;
}

void appendNumber(std::string& to, std::uint64_t number, int base) {
  std::array<char, 20> digits;
  const auto [end, error] =
      std::to_chars(digits.data(), digits.data() + digits.size(), number, base);
  to.append(digits.data(), end);
}

}  // namespace

std::string_view statusText(int status) {
  struct Row {
    int status;
    std::string_view text;
  };
  static constexpr Row kRows[] = {
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {204, "No Content"},
      {206, "Partial Content"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {307, "Temporary Redirect"},
      {308, "Permanent Redirect"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {402, "Payment Required"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {406, "Not Acceptable"},
      {408, "Request Timeout"},
      {409, "Conflict"},
      {410, "Gone"},
      {411, "Length Required"},
      {412, "Precondition Failed"},
      {413, "Payload Too Large"},
      {414, "URI Too Long"},
      {415, "Unsupported Media Type"},
      {416, "Range Not Satisfiable"},
      {418, "I'm a teapot"},
      {422, "Unprocessable Content"},
      {423, "Locked"},
      {424, "Failed Dependency"},
      {425, "Too Early"},
      {426, "Upgrade Required"},
      {428, "Precondition Required"},
      {429, "Too Many Requests"},
      {431, "Request Header Fields Too Large"},
      {499, "Client Closed Request"},
      {500, "Internal Server Error"},
      {501, "Not Implemented"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Gateway Timeout"},
      {507, "Insufficient Storage"},
  };
  const auto* row =
      std::lower_bound(std::begin(kRows), std::end(kRows), status,
                       [](const Row& one, int wanted) { return one.status < wanted; });
  return row != std::end(kRows) && row->status == status ? row->text : "Unknown";
}

void AnswerWriter::header(std::string_view name, std::string_view value) {
  if (!isHeaderName(name) || !isHeaderValue(value)) return;
  lines_.append(name).append(": ").append(value).append("\r\n");
}

void AnswerWriter::head(int status, std::string_view content_type, std::string_view framing) {
  std::string text;
  text.reserve(128 + lines_.size() + content_type.size());
  text += "HTTP/1.1 ";
  appendNumber(text, static_cast<std::uint64_t>(status), 10);
  text.append(" ").append(statusText(status)).append("\r\n");
  text += lines_;
  if (!content_type.empty() && isHeaderValue(content_type)) {
    text.append("Content-Type: ").append(content_type).append("\r\n");
  }
  if (!terms_.keep_connection) {
    text += "Connection: close\r\n";
  } else if (terms_.http_1_0) {
    text += "Connection: keep-alive\r\n";  // not the default there
  }
  text.append(framing).append("\r\n");
  connection_.write(text);
}

void AnswerWriter::whole(int status, std::string_view content_type, std::string_view body) {
  if (endsWithItsHead(status)) return head(status, "", "");
  std::string framing = "Content-Length: ";
  appendNumber(framing, body.size(), 10);
  framing += "\r\n";
  head(status, content_type, framing);
  if (sendsBody()) connection_.write(body);
}

void AnswerWriter::beginStream(int status, std::string_view content_type) {
  if (terms_.http_1_0) terms_.keep_connection = false;  // the close is what ends the body
  head(status, content_type, terms_.http_1_0 ? "" : "Transfer-Encoding: chunked\r\n");
}

bool AnswerWriter::write(std::string_view piece) {
  if (piece.empty()) return true;  // an empty chunk would end the body
  if (terms_.http_1_0) return connection_.write(piece) && connection_.flush();
  std::string size;
  appendNumber(size, piece.size(), 16);
  size += "\r\n";
  return connection_.write(size) && connection_.write(piece) && connection_.write("\r\n") &&
         connection_.flush();
}

void AnswerWriter::end() {
  if (!terms_.http_1_0) connection_.write("0\r\n\r\n");
}

}  // namespace tavrel::api
