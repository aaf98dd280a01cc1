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

/// Reads one HTTP/1.x answer from bytes as they arrive: status line, header, body by length, in
/// chunks or until the peer closes. Bounded: a head of at most kMaxHeadBytes, nothing allocated by
/// a number the peer sent.
class HttpResponseParser {
 public:
  enum class State { kHead, kBody, kDone, kMalformed };

  static constexpr std::size_t kMaxHeadBytes = std::size_t{64} << 10;

  /// Takes what arrived; decoded body bytes are appended to `body`. Returns the new state. Bytes
  /// after the end of the answer make the connection not reusable.
  State consume(std::string_view bytes, std::string& body);

  /// The peer closed: completes an answer that ends there (kDone), else kMalformed.
  State finish();

  State state() const { return state_; }
  /// Valid from kBody on.
  const HttpResponseHead& head() const { return head_; }
  /// True when complete, framed by length or chunks, and not marked "Connection: close".
  bool keepsAlive() const;

 private:
  // The owner of net/ completes this.
  State state_ = State::kHead;
  HttpResponseHead head_;
};

}  // namespace tavrel::net
