#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "api/chunk_framing.h"
#include "api/client_budget.h"
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

  /// `budget` must outlive the connection.
  Connection(int socket, std::string remote_address, Timeouts timeouts, ClientBudget& budget);
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
  const RequestHead& scanHead(const HeadLimits& limits);
  /// True while the request whose head was scanned lacks its body, or the beginning of a large one,
  /// which is waited for in parking, without a thread.
  bool awaitsBody() const;
  bool hasInput() const { return read_at_ < input_.size(); }
  /// When a parked connection is to be given up: `timeout` after now while nothing has arrived,
  /// else after the first byte of the head that has not arrived whole, or as bodies are.
  platform::SteadyTime parkingDeadline(platform::SteadyTime now, std::chrono::milliseconds timeout);
  /// Marks the start of reading the request whose head was scanned: its framing tells the end of
  /// its body.
  void beginRequest();
  const RequestHead& head() const { return head_; }
  /// The head that was scanned. Valid until the connection receives.
  std::string_view headBytes() const { return pending().substr(0, head_.size); }
  /// Takes the head as read.
  void skipHead();
  /// True when the request was read to its end, so that the next bytes are the next request.
  bool requestConsumed() const;

  // Both wait where they must.
  /// At most `size` bytes of the request; 0 or less when no more can be had.
  std::ptrdiff_t read(char* to, std::size_t size);
  /// Collects bytes to send; sends what is more than a few packets at once, from where it lies.
  bool write(std::string_view bytes);
  /// Sends everything collected. False once the peer does not take it any more.
  bool flush();

  /// Drops what has arrived of a body of known length that nobody wanted to read.
  void skipArrivedBody();
  /// Before a close with bytes unread, which would reset the connection and destroy an answer on
  /// its way: ends the sending side and discards what still comes, until the peer closes or `time`
  /// passed.
  void linger(std::chrono::milliseconds time);

  /// Set while a streamed answer is being sent.
  void setStreaming(bool streaming) { streaming_.store(streaming, std::memory_order_relaxed); }
  /// The status for a body that could not be read.
  int bodyFailure() const { return body_failure_; }

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
  enum class Wait { kReady, kTimedOut, kRefused };
  /// Refused when too many threads wait for slow clients already.
  Wait waitFor(short events, platform::SteadyTime deadline);
  Wait pollUntil(short events, platform::SteadyTime deadline) const;
  platform::SteadyTime bodyDeadline(platform::SteadyTime started, std::uint64_t arrived) const;
  bool sendAll(std::string_view rest);
  bool followsFraming(std::string_view bytes);

  const int socket_;
  const std::string remote_address_;
  const Timeouts timeouts_;
  ClientBudget& budget_;

  std::string input_;
  std::size_t read_at_ = 0;   ///< what lies before has been read
  std::size_t searched_ = 0;  ///< how much of the pending input was searched for a head's end
  std::string output_;
  bool broken_ = false;  ///< sending failed

  RequestHead head_;
  bool head_waits_ = false;  ///< it was scanned, and its request has not begun
  std::uint64_t request_bytes_read_ = 0;
  ChunkFraming framing_;
  int body_failure_ = 0;
  platform::SteadyTime request_started_;
  platform::SteadyTime head_started_{};  ///< zero while no byte of the next request has arrived

  std::atomic<bool> streaming_{false};
  std::atomic<bool> interrupted_{false};
  std::atomic<std::int64_t> deadline_;
};

}  // namespace tavrel::api
