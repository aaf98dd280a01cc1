#include "net/http_response_parser.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "platform/text.h"

namespace tavrel::net {
namespace {

struct Field {
  std::string_view name;
  std::string_view value;
};

bool isTokenCharacter(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

std::string_view trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// A folded line, a space before the colon or a control character that could be taken for a line
/// end is no field.
std::optional<Field> splitField(std::string_view line) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return std::nullopt;
  const auto name = line.substr(0, colon);
  const auto value = trim(line.substr(colon + 1));
  if (!std::all_of(name.begin(), name.end(), isTokenCharacter)) return std::nullopt;
  if (value.find_first_of(std::string_view("\r\0", 2)) != std::string_view::npos) {
    return std::nullopt;
  }
  return Field{name, value};
}

/// Calls `take` with each element of a comma-separated list.
template <class Take>
void forEachElement(std::string_view list, const Take& take) {
  while (true) {
    const auto comma = list.find(',');
    take(trim(list.substr(0, comma)));
    if (comma == std::string_view::npos) return;
    list.remove_prefix(comma + 1);
  }
}

/// Digits only; a sign, a blank or a number beyond 64 bits is none.
std::optional<std::uint64_t> parseNumber(std::string_view text, int base) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

std::string_view HttpResponseHead::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (platform::equalsIgnoringCase(key, name)) return value;
  }
  return {};
}

/// What the header of an answer says about where its body ends.
struct HttpResponseParser::Framing {
  std::optional<std::uint64_t> length;
  bool chunked = false;
  bool close = false;
  bool keep_alive = false;
  bool contradictory = false;

  void take(std::string_view name, std::string_view value) {
    if (platform::equalsIgnoringCase(name, "content-length")) {
      forEachElement(value, [this](std::string_view element) {
        const auto number = parseNumber(element, 10);
        if (!number || (length && *length != *number)) contradictory = true;
        length = number;
      });
    } else if (platform::equalsIgnoringCase(name, "transfer-encoding")) {
      // Only "chunked" alone can be undone here; another coding would reach the client as garbage.
      if (chunked || !platform::equalsIgnoringCase(value, "chunked")) contradictory = true;
      chunked = true;
    } else if (platform::equalsIgnoringCase(name, "connection")) {
      forEachElement(value, [this](std::string_view element) {
        close = close || platform::equalsIgnoringCase(element, "close");
        keep_alive = keep_alive || platform::equalsIgnoringCase(element, "keep-alive");
      });
    }
  }
};

HttpResponseParser::State HttpResponseParser::consume(std::string_view bytes, std::string& body) {
  while (!bytes.empty() && (state_ == State::kHead || state_ == State::kBody)) {
    if (atLine()) {
      consumeLine(bytes);
    } else {
      consumeBody(bytes, body);
    }
  }
  if (!bytes.empty() && state_ == State::kDone) has_excess_ = true;
  return state_;
}

HttpResponseParser::State HttpResponseParser::finish() {
  if (state_ == State::kBody && step_ == Step::kBodyUntilClose) {
    state_ = State::kDone;
  } else if (state_ != State::kDone) {
    fail();
  }
  return state_;
}

bool HttpResponseParser::hasHead() const {
  return state_ == State::kDone || (step_ != Step::kStatusLine && step_ != Step::kHeaderLine);
}

bool HttpResponseParser::keepsAlive() const {
  return state_ == State::kDone && keeps_alive_ && !has_excess_;
}

bool HttpResponseParser::atLine() const {
  return step_ == Step::kStatusLine || step_ == Step::kHeaderLine || step_ == Step::kChunkLine ||
         step_ == Step::kTrailerLine;
}

/// Takes the next line, or keeps the beginning of one whose end is still to come.
void HttpResponseParser::consumeLine(std::string_view& bytes) {
  const auto limit = step_ == Step::kChunkLine ? kMaxChunkLineBytes : kMaxHeadBytes - head_bytes_;
  const auto line_end = bytes.find('\n');
  const bool whole = line_end != std::string_view::npos;
  const auto taken = bytes.substr(0, whole ? line_end + 1 : bytes.size());
  const auto size = partial_line_.size() + taken.size();
  if (whole ? size > limit : size >= limit) return fail();
  bytes.remove_prefix(taken.size());

  if (!whole) {
    partial_line_.append(taken);
    return;
  }
  if (step_ != Step::kChunkLine) head_bytes_ += size;
  if (partial_line_.empty()) return takeLine(taken);
  const std::string line = std::move(partial_line_.append(taken));
  partial_line_.clear();
  takeLine(line);
}

/// `line` has its line end.
void HttpResponseParser::takeLine(std::string_view line) {
  line.remove_suffix(1);
  const bool has_cr = !line.empty() && line.back() == '\r';
  if (has_cr) line.remove_suffix(1);
  switch (step_) {
    case Step::kStatusLine:
      return takeStatusLine(line);
    case Step::kHeaderLine:
      return line.empty() ? finishHead() : takeHeaderLine(line);
    case Step::kChunkLine:
      return has_cr ? takeChunkLine(line) : fail();
    default:  // a trailer: checked and dropped
      if (line.empty()) {
        state_ = State::kDone;
      } else if (!splitField(line)) {
        fail();
      }
  }
}

void HttpResponseParser::takeStatusLine(std::string_view line) {
  constexpr std::string_view kVersion = "HTTP/1.";
  if (line.size() < 12 || !line.starts_with(kVersion)) return fail();
  const char minor = line[7];
  const auto status = parseNumber(line.substr(9, 3), 10);
  if (minor < '0' || minor > '9' || line[8] != ' ' || !status || *status < 100 ||
      (line.size() > 12 && line[12] != ' ')) {
    return fail();
  }
  http_1_1_ = minor != '0';
  head_.status = static_cast<int>(*status);
  step_ = Step::kHeaderLine;
}

void HttpResponseParser::takeHeaderLine(std::string_view line) {
  const auto field = splitField(line);
  if (!field || head_.headers.size() == kMaxHeaders) return fail();
  head_.headers.emplace_back(field->name, field->value);
}

void HttpResponseParser::finishHead() {
  if (head_.status < 200) {
    if (head_.status == 101) return fail();  // nobody asked for another protocol
    head_ = {};
    step_ = Step::kStatusLine;
    return;
  }

  Framing framing;
  for (const auto& [name, value] : head_.headers) framing.take(name, value);
  if (framing.contradictory || (framing.chunked && framing.length)) return fail();

  keeps_alive_ = !framing.close && (http_1_1_ || framing.keep_alive);
  head_bytes_ = 0;
  if (head_.status == 204 || head_.status == 304) {
    state_ = State::kDone;
  } else if (framing.chunked) {
    // An answer in HTTP/1.0 cannot be chunked. Some servers send it so all the same: it is read,
    // and its connection not used again.
    keeps_alive_ = keeps_alive_ && http_1_1_;
    enterBody(Step::kChunkLine);
  } else if (!framing.length) {
    keeps_alive_ = false;
    enterBody(Step::kBodyUntilClose);
  } else {
    remaining_ = *framing.length;
    enterBody(Step::kBodyByLength);
    if (remaining_ == 0) state_ = State::kDone;
  }
}

void HttpResponseParser::enterBody(Step step) {
  state_ = State::kBody;
  step_ = step;
}

void HttpResponseParser::takeChunkLine(std::string_view line) {
  const auto semicolon = line.find(';');
  const auto size = parseNumber(trim(line.substr(0, semicolon)), 16);
  if (!size || line.front() == ' ' || line.front() == '\t' ||
      line.find('\r') != std::string_view::npos) {
    return fail();
  }
  remaining_ = *size;
  step_ = remaining_ == 0 ? Step::kTrailerLine : Step::kChunkData;
}

void HttpResponseParser::consumeBody(std::string_view& bytes, std::string& body) {
  switch (step_) {
    case Step::kBodyUntilClose:
      body.append(bytes);
      bytes = {};
      return;
    case Step::kChunkCr:
      return expectChunkByte(bytes, '\r', Step::kChunkLf);
    case Step::kChunkLf:
      return expectChunkByte(bytes, '\n', Step::kChunkLine);
    default:
      break;
  }
  const auto piece =
      bytes.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(remaining_, bytes.size())));
  body.append(piece);
  bytes.remove_prefix(piece.size());
  remaining_ -= piece.size();
  if (remaining_ > 0) return;
  if (step_ == Step::kChunkData) {
    step_ = Step::kChunkCr;
  } else {
    state_ = State::kDone;
  }
}

void HttpResponseParser::expectChunkByte(std::string_view& bytes, char expected, Step next) {
  if (bytes.front() != expected) return fail();
  bytes.remove_prefix(1);
  step_ = next;
}

}  // namespace tavrel::net
