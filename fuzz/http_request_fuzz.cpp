#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "api/plain_request.h"
#include "api/request_head.h"

// What clients send: the head must be judged alike however it arrives, and the reader of plain
// requests must take whatever passed.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tavrel::api;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  constexpr HeadLimits kLimits{4096, 20, 1 << 20};

  std::size_t searched = 0;
  const RequestHead whole = scanRequestHead(input, kLimits, searched);
  searched = 0;
  RequestHead in_pieces;
  for (std::size_t end = 1; end <= size; end += 1 + end / 8) {
    in_pieces = scanRequestHead(input.substr(0, end), kLimits, searched);
    if (in_pieces.state != RequestHead::State::kIncomplete) break;
  }
  if (in_pieces.state == RequestHead::State::kIncomplete) {
    in_pieces = scanRequestHead(input, kLimits, searched);
  }
  if (size > 0 && (whole.state != in_pieces.state || whole.refusal != in_pieces.refusal ||
                   whole.size != in_pieces.size)) {
    std::abort();
  }
  if (whole.state == RequestHead::State::kComplete && whole.unwanted.empty()) {
    Request request;
    bool asks_to_close = false;
    if (readPlainRequest(input.substr(0, whole.size), request, asks_to_close) &&
        (request.path.empty() || request.path.front() != '/')) {
      std::abort();
    }
  }
  return 0;
}
