#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "net/http_response_parser.h"
#include "net/worker_address.h"

namespace tavrel::net {

enum class WorkerIo {
  kOk,
  kConnectFailed,  ///< refused, unreachable, unknown host, or no connection within its time
  kSendFailed,     ///< the worker hung up or answered while the request was sent
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
/// Threads: one at a time. Waits suspend a fiber or block the thread (platform::waitForSocket);
/// what is possible without waiting is done without.
/// Use: connect, then for every exchange send, readHead, readBody until the end (or readWholeBody);
/// reusable() tells whether another exchange may follow.
/// Failure: told by WorkerIo; nothing throws. After kTimedOut and kClientGone of a read the call
/// may be repeated; after any other failure the connection is of no use, except that an answer
/// which came before kSendFailed can still be read.
class WorkerConnection {
 public:
  /// `client_descriptor` is polled for a hang-up beside the worker's socket; -1: nobody to watch.
  explicit WorkerConnection(int client_descriptor);
  ~WorkerConnection();
  WorkerConnection(WorkerConnection&&) noexcept;
  WorkerConnection& operator=(WorkerConnection&&) noexcept;

  /// `timeout` covers the name lookup and every address the name has.
  WorkerIo connect(const WorkerAddress& address, std::chrono::milliseconds timeout);

  /// Sends the whole text; `stall_timeout` bounds the time without progress.
  WorkerIo send(std::string_view bytes, std::chrono::milliseconds stall_timeout);
  /// Both texts, one after the other, without joining them first.
  WorkerIo send(std::string_view head, std::string_view body,
                std::chrono::milliseconds stall_timeout);

  /// Reads up to and including the blank line after the final status's header (1xx answers are
  /// skipped). kTimedOut leaves the connection usable: the caller may go on waiting.
  WorkerIo readHead(HttpResponseHead& head, std::chrono::milliseconds timeout);

  /// Appends the next decoded piece of the body (transfer coding removed) to `piece`; waits only
  /// when no byte of it has arrived. `end` is set when the body is complete; a piece may come with
  /// it. A failure may come with a last piece too.
  WorkerIo readBody(std::string& piece, bool& end, std::chrono::milliseconds timeout);

  /// Appends the rest of the body, of at most `max_bytes`; `stall_timeout` as for send. What had
  /// arrived before a failure is in `body`.
  WorkerIo readWholeBody(std::string& body, std::size_t max_bytes,
                         std::chrono::milliseconds stall_timeout);

  /// True once a byte of the answer to the last request has arrived. A connection from the pool
  /// that fails before was closed by the worker while it was kept: the request may be sent again,
  /// on a new one.
  bool answerBegun() const;

  /// True when the answer was read to its end and both sides may use the connection again.
  bool reusable() const;

 private:
  friend class WorkerConnectionPool;
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tavrel::net
