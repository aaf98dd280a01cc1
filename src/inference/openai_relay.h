#pragma once

#include <chrono>
#include <string>
#include <utility>

#include "inference/in_flight_board.h"
#include "inference/openai_answer.h"
#include "inference/openai_event_lines.h"
#include "inference/openai_exchange.h"
#include "inference/openai_metrics.h"
#include "platform/clock.h"

namespace tavrel::inference {

/// One request on its way to one worker: what both the gateway and the relay have to know of it.
struct OpenAiAttempt {
  OpenAiEndpoint endpoint;
  std::string model;
  std::string worker;   ///< its id, "local" for the local model server
  std::string backend;  ///< in metrics
  platform::SteadyTime started;
  WorkerLease lease;  ///< empty for the local model server
  OpenAiExchange exchange;

  double seconds() const { return platform::millisecondsSince(started) / 1000.0; }
};

/// How the worker's own answer with this status is to be taken.
LeaseEnd leaseEndFor(int status);
OpenAiOutcome outcomeFor(int status);
/// The error a client gets for a worker that gave no answer.
OpenAiError errorFor(net::WorkerIo io, const std::string& worker);

/// Hands a worker's event stream on to the client, byte for byte. Until the first event comments
/// keep the connection alive; a worker that stalls or breaks off is told to the client as an error
/// event, never as a regular end.
///
/// Threads: one; run is called at most once. Destroyed without run, it hangs up on the worker.
class OpenAiRelay {
 public:
  OpenAiRelay(OpenAiAttempt attempt, const OpenAiSettings& settings, OpenAiMetrics& metrics,
              InFlightBoard& board)
      : attempt_(std::move(attempt)), settings_(settings), metrics_(metrics), board_(board) {}

  OpenAiAttempt& attempt() { return attempt_; }

  /// Waits for the first bytes of the body, at most `wait`. What fails here has not been answered
  /// yet and can be answered otherwise. kTimedOut: run goes on waiting.
  net::WorkerIo awaitFirst(std::chrono::milliseconds wait);
  /// The head has not arrived either: run waits for it too.
  void headIsMissing() { head_missing_ = true; }
  /// `waited`: how long the worker has been silent already.
  void run(const OpenAiAnswer::Sink& sink, std::chrono::milliseconds waited);

 private:
  bool forward(const OpenAiAnswer::Sink& sink);
  std::chrono::milliseconds patience() const;
  void answeredWithoutStream(const OpenAiAnswer::Sink& sink);
  void complete(const OpenAiAnswer::Sink& sink);
  void broken(const OpenAiAnswer::Sink& sink, net::WorkerIo io);
  void end(LeaseEnd how, OpenAiOutcome outcome);

  OpenAiAttempt attempt_;
  const OpenAiSettings& settings_;
  OpenAiMetrics& metrics_;
  InFlightBoard& board_;
  OpenAiEventLines lines_;
  std::string piece_;
  bool ended_ = false;  // the worker's body is complete
  bool head_missing_ = false;
  bool begun_ = false;                   // a byte of the body has arrived
  std::chrono::milliseconds silent_{0};  // since the worker's last byte
};

}  // namespace tavrel::inference
