#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tavrel::api {

/// Follows the framing of a chunked body as its bytes go by, stricter than the HTTP library, which
/// takes bytes that belong to no chunk for the end of the body (so that what follows would be read
/// as another request) and collects a chunk's size line however long that gets.
///
/// One thread. Failure: a malformed body stays malformed.
class ChunkFraming {
 public:
  /// False once the bytes so far cannot be a chunked body, or go beyond its end.
  bool take(std::string_view bytes);
  /// True after the last byte of the body.
  bool ended() const { return step_ == Step::kEnded; }

  /// Size, extensions and line end together.
  static constexpr std::size_t kMaxLineBytes = 256;

 private:
  enum class Step { kSize, kExtension, kSizeLf, kData, kDataCr, kDataLf, kLastCr, kLastLf, kEnded };

  bool takeByte(char byte);
  bool takeSizeByte(char byte);
  bool expect(char byte, char expected, Step next);

  Step step_ = Step::kSize;
  std::uint64_t left_ = 0;  ///< of the chunk's data
  std::size_t digits_ = 0;
  std::size_t line_bytes_ = 0;
};

}  // namespace tavrel::api
