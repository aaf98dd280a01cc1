#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tavrel::net {

struct HttpResponseHead {
  int status = 0;
  std::vector<std::pair<std::string, std::string>> headers;  ///< names as sent

  /// The first header of that name (any case), or "".
  std::string_view header(std::string_view name) const;
};

/// Reads one HTTP/1.x answer (to anything but HEAD) from bytes as they arrive: status line, header,
/// body by length, in chunks or until the peer closes. How the bytes are cut into pieces makes no
/// difference.
///
/// Bounded: head, trailer and chunk lines by the constants below; nothing is allocated by a number
/// the peer sent, the caller limits the body. A lone LF ends a line of the head; chunk framing is
/// taken strictly. Everything that could be framed in two ways is malformed.
class HttpResponseParser {
 public:
  enum class State { kHead, kBody, kDone, kMalformed };

  static constexpr std::size_t kMaxHeadBytes = std::size_t{64} << 10;  ///< 1xx answers included
  static constexpr std::size_t kMaxHeaders = 256;
  static constexpr std::size_t kMaxChunkLineBytes = 4096;  ///< size and extensions of one chunk

  /// Takes what arrived; decoded body bytes are appended to `body`. Returns the new state. Bytes
  /// after the end of the answer make the connection not reusable.
  State consume(std::string_view bytes, std::string& body);

  /// The peer closed: completes an answer that ends there (kDone), else kMalformed.
  State finish();

  State state() const { return state_; }
  /// True once the final head is complete, also when the body turned out malformed afterwards.
  bool hasHead() const;
  /// Valid when hasHead.
  const HttpResponseHead& head() const { return head_; }
  HttpResponseHead takeHead() { return std::move(head_); }
  /// True when complete, framed by length or chunks, and the peer keeps the connection open.
  bool keepsAlive() const;

 private:
  enum class Step {
    kStatusLine,
    kHeaderLine,
    kBodyByLength,
    kBodyUntilClose,
    kChunkLine,
    kChunkData,
    kChunkCr,
    kChunkLf,
    kTrailerLine,
  };
  struct Framing;

  bool atLine() const;
  void consumeLine(std::string_view& bytes);
  void takeLine(std::string_view line);
  void consumeBody(std::string_view& bytes, std::string& body);
  void takeStatusLine(std::string_view line);
  void takeHeaderLine(std::string_view line);
  void takeChunkLine(std::string_view line);
  void finishHead();
  void enterBody(Step step);
  void expectChunkByte(std::string_view& bytes, char expected, Step next);
  void fail() { state_ = State::kMalformed; }

  State state_ = State::kHead;
  Step step_ = Step::kStatusLine;
  HttpResponseHead head_;
  std::string partial_line_;     // the beginning of a line whose end has not arrived
  std::size_t head_bytes_ = 0;   // lines of the head, later of the trailer
  std::uint64_t remaining_ = 0;  // bytes left of the body or of the chunk
  bool http_1_1_ = false;
  bool keeps_alive_ = false;
  bool has_excess_ = false;
};

}  // namespace tavrel::net
