// Whatever a worker sends: reading it never fails in any other way than kMalformed, gives no more
// than was sent, and does not depend on how the bytes were cut.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "net/http_response_parser.h"

namespace {

using tavrel::net::HttpResponseParser;

struct Outcome {
  HttpResponseParser::State before_close;
  HttpResponseParser::State after_close;
  bool has_head;
  bool keeps_alive;
  tavrel::net::HttpResponseHead head;
  std::string body;
};

/// Reads `bytes` in pieces whose sizes follow from `seed`; 0: in one piece.
Outcome read(std::string_view bytes, std::uint32_t seed) {
  HttpResponseParser parser;
  Outcome outcome{};
  while (!bytes.empty()) {
    seed = seed == 0 ? 0 : seed * 1664525u + 1013904223u;
    const auto piece = bytes.substr(0, seed == 0 ? bytes.size() : 1 + (seed >> 28));
    parser.consume(piece, outcome.body);
    bytes.remove_prefix(piece.size());
  }
  outcome.before_close = parser.state();
  outcome.has_head = parser.hasHead();
  outcome.keeps_alive = parser.keepsAlive();
  if (outcome.has_head) outcome.head = parser.takeHead();
  outcome.after_close = parser.finish();
  return outcome;
}

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto whole = read(bytes, 0);
  require(whole.body.size() <= size);
  require(!whole.keeps_alive || whole.before_close == HttpResponseParser::State::kDone);
  require(whole.after_close == HttpResponseParser::State::kDone ||
          whole.after_close == HttpResponseParser::State::kMalformed);
  require(whole.head.headers.size() <= HttpResponseParser::kMaxHeaders);

  const auto seed = static_cast<std::uint32_t>(size * 2654435761u) | 1u;
  const auto cut = read(bytes, seed);
  require(cut.before_close == whole.before_close && cut.after_close == whole.after_close);
  require(cut.has_head == whole.has_head && cut.keeps_alive == whole.keeps_alive);
  require(cut.head.status == whole.head.status && cut.head.headers == whole.head.headers);
  require(cut.body == whole.body);
  return 0;
}
