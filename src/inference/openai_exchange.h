#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "net/worker_address.h"
#include "net/worker_connection.h"
#include "net/worker_connection_pool.h"

namespace tavrel::inference {

/// The waits of the OpenAI surface.
struct OpenAiSettings {
  std::chrono::milliseconds connect_timeout{5000};
  std::chrono::milliseconds stall_timeout{120000};  ///< a worker without a byte for so long failed
  std::chrono::milliseconds keep_alive{15000};      ///< between comments before the first event
  std::size_t max_answer_bytes = std::size_t{256} << 20;  ///< of an answer that is not a stream
};

/// One request to one worker, over a kept connection where there is a good one. Destruction closes
/// the connection unless finish was called, which tells the worker to stop.
///
/// Threads: one at a time; `pool` and `settings` must outlive it. Failure: told by net::WorkerIo.
class OpenAiExchange {
 public:
  /// `client_descriptor`: see net::WorkerConnection.
  OpenAiExchange(net::WorkerConnectionPool& pool, const OpenAiSettings& settings,
                 net::WorkerAddress address, int client_descriptor);

  /// Sends the request and waits for the head of the answer, at most `wait`. A kept connection that
  /// turns out to have been closed is replaced by a new one on the way. After kTimedOut with
  /// requestSent the answer may still come.
  net::WorkerIo begin(std::string_view path, std::string_view body, std::chrono::milliseconds wait);

  /// Goes on waiting after kTimedOut.
  net::WorkerIo awaitHead(std::chrono::milliseconds wait) {
    return connection_->readHead(head_, wait);
  }
  bool requestSent() const { return request_sent_; }
  const net::HttpResponseHead& head() const { return head_; }

  net::WorkerIo readBody(std::string& piece, bool& end, std::chrono::milliseconds wait) {
    return connection_->readBody(piece, end, wait);
  }
  net::WorkerIo readWholeBody(std::string& body) {
    return connection_->readWholeBody(body, settings_.max_answer_bytes, settings_.stall_timeout);
  }

  /// The answer was read to its end: the connection is kept if it can be.
  void finish();
  /// Closes the connection now: the worker need not go on.
  void hangUp() { connection_.reset(); }

  /// True when only the closing of the connection ends the body, so that a whole one cannot be told
  /// from one that broke off.
  bool endsByClosing() const;
  bool isEventStream() const;

 private:
  net::WorkerIo ask(std::string_view path, std::string_view body, std::chrono::milliseconds wait);

  net::WorkerConnectionPool& pool_;
  const OpenAiSettings& settings_;
  net::WorkerAddress address_;
  int client_descriptor_;
  std::unique_ptr<net::WorkerConnection> connection_;
  bool request_sent_ = false;
  net::HttpResponseHead head_;
};

}  // namespace tavrel::inference
