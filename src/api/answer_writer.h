#pragma once

#include <string>
#include <string_view>

#include "api/connection.h"
#include "api/response.h"

namespace tavrel::api {

/// The words that go with a status; "Unknown" for one that has none here.
std::string_view statusText(int status);

/// Puts one answer on a connection: status line, header, body whole or in chunks. Heads are joined
/// as text and leave together with the body, because they are a good part of what a small request
/// costs.
///
/// Threads: the one that serves the request. `connection` must outlive it.
class AnswerWriter final : public StreamWriter {
 public:
  /// What the request says about how it may be answered.
  struct Terms {
    bool head_only = false;  ///< HEAD: the body is described, not sent
    bool http_1_0 = false;   ///< knows no chunks
    bool keep_connection = true;
  };

  AnswerWriter(Connection& connection, Terms terms) : connection_(connection), terms_(terms) {}

  /// Adds a header line; names and values that could break out of it are left out.
  void header(std::string_view name, std::string_view value);
  /// Adds lines that are known to be right, each with its line end.
  void lines(std::string_view text) { lines_ += text; }

  /// Sends the answer, as far as the connection takes it now; the rest goes with its next flush.
  /// With a status that has no body (1xx, 204, 304) type and body are left out.
  void whole(int status, std::string_view content_type, std::string_view body);

  /// Sends the head of a streamed answer; `write` then sends pieces and `end` tells that it is
  /// complete. Without `end` the client sees that it broke off.
  void beginStream(int status, std::string_view content_type);
  bool write(std::string_view piece) override;
  void end();

  /// The connection ends with this answer.
  bool closes() const { return !terms_.keep_connection; }
  bool sendsBody() const { return !terms_.head_only; }

 private:
  void head(int status, std::string_view content_type, std::string_view framing);

  Connection& connection_;
  Terms terms_;
  std::string lines_;
};

}  // namespace tavrel::api
