#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "net/http_response_parser.h"

namespace tavrel::net {

/// Where a worker listens: a host name or a numeric IPv4 or IPv6 address.
struct WorkerAddress {
  std::string host;
  int port = 0;

  bool operator==(const WorkerAddress&) const = default;
  bool operator<(const WorkerAddress& other) const {
    return std::pair(std::string_view(host), port) <
           std::pair(std::string_view(other.host), other.port);
  }
};

enum class WorkerIo {
  kOk,
  kConnectFailed,  ///< refused, unreachable, unknown host, or no connection within its time
  kSendFailed,     ///< the worker hung up while the request was sent
  kClosed,         ///< the worker hung up before the message was complete
  kTimedOut,       ///< nothing arrived within the time given
  kMalformed,      ///< what arrived is not HTTP
  kTooLarge,       ///< the body exceeds the caller's limit
  kClientGone,     ///< the watched client left, or the server is stopping
};

/// One TCP connection to a worker, speaking HTTP/1.1. Every wait also watches the client on whose
/// behalf it is made and ends at once with kClientGone when that leaves, so the worker learns of it
/// (the owner then drops the connection).
///
/// Threads: one at a time. Waits announce themselves through platform::BlockingScope.
class WorkerConnection {
 public:
  /// `client_descriptor` is polled for a hang-up beside the worker's socket; -1: nobody to watch.
  explicit WorkerConnection(int client_descriptor);
  ~WorkerConnection();
  WorkerConnection(WorkerConnection&&) noexcept;
  WorkerConnection& operator=(WorkerConnection&&) noexcept;

  WorkerIo connect(const WorkerAddress& address, std::chrono::milliseconds timeout);

  /// Sends the whole text; `stall_timeout` bounds the time without progress.
  WorkerIo send(std::string_view bytes, std::chrono::milliseconds stall_timeout);

  /// Reads up to and including the blank line after the final status's header (1xx answers are
  /// skipped). kTimedOut leaves the connection usable: the caller may go on waiting.
  WorkerIo readHead(HttpResponseHead& head, std::chrono::milliseconds timeout);

  /// Appends the next decoded piece of the body (transfer coding removed) to `piece`, waiting for
  /// one if none has arrived. `end` is set when the body is complete; a piece may come with it.
  WorkerIo readBody(std::string& piece, bool& end, std::chrono::milliseconds timeout);

  /// The rest of the body in one string of at most `max_bytes`; `stall_timeout` as for send.
  WorkerIo readWholeBody(std::string& body, std::size_t max_bytes,
                         std::chrono::milliseconds stall_timeout);

  /// True when the answer was read to its end and both sides may use the connection again.
  bool reusable() const;

 private:
  friend class WorkerConnectionPool;
  struct State;
  std::unique_ptr<State> state_;
};

/// Kept-alive connections to workers, a bounded number per address, dropped after a while unused.
/// Threads: any.
class WorkerConnectionPool {
 public:
  struct Limits {
    std::size_t idle_per_worker = 64;
    std::size_t idle_in_total = 2048;
    std::chrono::seconds max_idle{30};
  };
  explicit WorkerConnectionPool(Limits limits);
  ~WorkerConnectionPool();

  /// A kept connection that is still open and silent (checked without blocking), watching
  /// `client_descriptor`; null when there is none.
  std::unique_ptr<WorkerConnection> take(const WorkerAddress& address, int client_descriptor);

  /// Keeps the connection if it is reusable, closes it otherwise.
  void giveBack(const WorkerAddress& address, std::unique_ptr<WorkerConnection> connection);

  /// Closes the kept connections to an address (a worker that left or failed).
  void forget(const WorkerAddress& address);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// The head of the POST that is sent to workers; `keep_alive` false adds "Connection: close".
/// Host is "<host>:<port>" (an IPv6 address in brackets).
std::string workerPostHead(const WorkerAddress& address, std::string_view path,
                           std::size_t content_length, bool keep_alive,
                           std::string_view content_type = "application/json");

}  // namespace tavrel::net
