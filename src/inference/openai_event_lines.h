#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tavrel::inference {

/// Watches a worker's event stream on its way to the client. Changes no byte of it; but the
/// beginning of a line waits for the line's end, so that a stream that breaks off never leaves the
/// client with half an event, and an event of our own can follow.
///
/// Threads: one at a time. Failure: none; a line longer than kLongestHeld is let through in pieces.
class OpenAiEventLines {
 public:
  static constexpr std::size_t kLongestHeld = std::size_t{256} << 10;  ///< bytes

  /// Takes the next bytes; what may go on to the client now is valid until the next call or the
  /// end of `piece`.
  std::string_view take(std::string_view piece);

  /// What is held back, for a stream that came to its proper end.
  std::string_view rest() const { return held_; }

  /// What has to go between the bytes let through and an event of our own.
  std::string_view gap() const;

  /// True once the worker said that the stream is complete.
  bool done() const;
  /// The last usage object seen, as text.
  const std::string& usage() const { return usage_; }

 private:
  std::string_view letThrough(std::string_view lines);

  std::string held_;   // the beginning of a line
  std::string ready_;  // memory of what take returned last, when it had to be joined
  std::string usage_;
  bool done_ = false;
  std::string tail_;  // the last bytes let through
};

}  // namespace tavrel::inference
