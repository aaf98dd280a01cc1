#include "api/chunk_framing.h"

#include <algorithm>

namespace tavrel::api {
namespace {

/// More digits than any size that fits the library's number has.
constexpr std::size_t kMaxSizeDigits = 15;

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool ChunkFraming::take(std::string_view bytes) {
  while (!bytes.empty()) {
    if (step_ == Step::kData) {
      const std::uint64_t count = std::min<std::uint64_t>(left_, bytes.size());
      left_ -= count;
      bytes.remove_prefix(static_cast<std::size_t>(count));
      if (left_ == 0) step_ = Step::kDataCr;
    } else {
      if (!takeByte(bytes.front())) return false;
      bytes.remove_prefix(1);
    }
  }
  return true;
}

bool ChunkFraming::takeByte(char byte) {
  switch (step_) {
    case Step::kSize:
    case Step::kExtension:
      return takeSizeByte(byte);
    case Step::kSizeLf:
      return expect(byte, '\n', left_ > 0 ? Step::kData : Step::kLastCr);
    case Step::kDataCr:
      return expect(byte, '\r', Step::kDataLf);
    case Step::kDataLf:
      digits_ = 0;
      line_bytes_ = 0;
      return expect(byte, '\n', Step::kSize);
    case Step::kLastCr:
      return expect(byte, '\r', Step::kLastLf);
    case Step::kLastLf:
      return expect(byte, '\n', Step::kEnded);
    default:
      return false;
  }
}

bool ChunkFraming::takeSizeByte(char byte) {
  if (++line_bytes_ > kMaxLineBytes) return false;
  if (byte == '\r') {
    step_ = Step::kSizeLf;
    return digits_ > 0;
  }
  if (step_ == Step::kExtension) return byte != '\n' && byte != '\0';
  const int digit = hexDigit(byte);
  if (digit < 0) {
    step_ = Step::kExtension;
    return digits_ > 0 && (byte == ';' || byte == ' ' || byte == '\t');
  }
  left_ = left_ * 16 + static_cast<std::uint64_t>(digit);
  return ++digits_ <= kMaxSizeDigits;
}

bool ChunkFraming::expect(char byte, char expected, Step next) {
  step_ = next;
  return byte == expected;
}

}  // namespace tavrel::api
