#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "api/client_connection.h"
#include "api/request_head.h"
#include "platform/clock.h"

namespace tavrel::api {

/// One accepted TCP connection: a non-blocking socket with what has arrived and what is to be sent.
///
/// Owned by the ConnectionEngine. Used by one thread at a time: whichever pool thread took its
/// event. The exceptions are marked: the engine's housekeeping may expire or abort it meanwhile.
class Connection final : public ClientConnection {
 public:
  struct Timeouts {
    std::chrono::milliseconds read;   ///< for a whole head, and for a body below the minimum pace
    std::chrono::milliseconds write;  ///< without progress
  };

  Connection(int socket, std::string remote_address, Timeouts timeouts);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int descriptor() const override { return socket_; }
  bool gone() const override;
  const std::string& remoteAddress() const { return remote_address_; }

  // Taking requests.
  enum class Arrival { kBytes, kNothing, kClosed };
  /// Moves what has arrived to the input, without waiting.
  Arrival receive();
  /// The state of the request at the front of the input.
  RequestHead scanHead(const HeadLimits& limits) {
    return scanRequestHead(pending(), limits, searched_);
  }
  bool hasInput() const { return read_at_ < input_.size(); }
  /// When a parked connection is to be given up: `timeout` after now while nothing has arrived,
  /// else after the first byte of the request that has not arrived whole.
  platform::SteadyTime parkingDeadline(platform::SteadyTime now, std::chrono::milliseconds timeout);
  /// Marks the start of a request that is about to be read: its framing tells the end of its body.
  void beginRequest(const RequestHead& head);
  /// True when the request was read to its end, so that the next bytes are the next request.
  bool requestConsumed() const;

  // The HTTP library's side. Both wait where they must.
  /// At most `size` bytes of the request; 0 or less when no more can be had.
  std::ptrdiff_t read(char* to, std::size_t size);
  /// Collects bytes to send; sends what is more than a few packets.
  bool write(std::string_view bytes);
  /// Sends everything collected. False once the peer does not take it any more.
  bool flush();

  /// Drops what has arrived of a body of known length that nobody wanted to read.
  void skipArrivedBody();
  /// Before a close with bytes unread, which would reset the connection and destroy an answer on
  /// its way: ends the sending side and discards what still comes, until the peer closes or `time`
  /// passed.
  void linger(std::chrono::milliseconds time);

  /// Called when the chunked body's end was seen (the library tells no length for those).
  void markChunkedBodyRead() { chunked_body_read_ = true; }
  /// Set while a streamed answer is being sent.
  void setStreaming(bool streaming) { streaming_.store(streaming, std::memory_order_relaxed); }
  bool bodyTimedOut() const { return body_timed_out_; }

  // Parking. `deadline` in nanoseconds of the steady clock; the last two are called by
  // housekeeping.
  void park(std::int64_t deadline);
  /// Takes the connection out of parking; false when it had expired.
  bool unpark();
  void expireIfDue(std::int64_t now);
  /// Ends waits on behalf of this client: at once for a stream, else only when `all` is set.
  void interrupt(bool all);

 private:
  std::string_view pending() const { return std::string_view(input_).substr(read_at_); }
  bool waitFor(short events, platform::SteadyTime deadline) const;
  platform::SteadyTime bodyDeadline() const;

  const int socket_;
  const std::string remote_address_;
  const Timeouts timeouts_;

  std::string input_;
  std::size_t read_at_ = 0;   ///< what lies before has been read
  std::size_t searched_ = 0;  ///< how much of the pending input was searched for a head's end
  std::string output_;
  bool broken_ = false;  ///< sending failed

  RequestHead head_;
  std::uint64_t request_bytes_read_ = 0;
  bool chunked_body_read_ = false;
  bool body_timed_out_ = false;
  platform::SteadyTime request_started_;
  platform::SteadyTime head_started_{};  ///< zero while no byte of the next request has arrived

  std::atomic<bool> streaming_{false};
  std::atomic<bool> interrupted_{false};
  std::atomic<std::int64_t> deadline_;
};

}  // namespace tavrel::api
