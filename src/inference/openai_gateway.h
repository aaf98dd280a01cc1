#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "inference/in_flight_board.h"
#include "inference/openai_answer.h"
#include "inference/openai_exchange.h"
#include "inference/openai_metrics.h"
#include "inference/openai_relay.h"
#include "inference/openai_request.h"
#include "net/worker_connection_pool.h"
#include "worker/worker_registry.h"

namespace tavrel::ai {
class MoeRouter;
}

namespace tavrel::inference {

class LocalModelServer;

/// The OpenAI surface: takes a client's request to a worker that has the model and hands the
/// worker's answer back, both as they came.
///
/// Who is asked: see InFlightBoard. A worker that fails or has no room costs one retry at the next
/// best one, at most kMaxRetries times and never once the client got a byte. A model no worker has
/// is asked of the local model server.
///
/// Threads: any; a call blocks for as long as the worker takes. All references must outlive it, and
/// it must outlive the streams it answers. Failure: always an answer, in the shape of OpenAiError
/// where no worker gave one.
class OpenAiGateway {
 public:
  static constexpr std::size_t kMaxRetries = 2;

  struct Call {
    OpenAiEndpoint endpoint;
    std::string_view body;  ///< valid until answer returns
    int client_descriptor;  ///< see net::WorkerConnection; valid until the stream has run
  };

  OpenAiGateway(const worker::WorkerRegistry& workers, net::WorkerConnectionPool& pool,
                const ai::MoeRouter& experts, LocalModelServer& local,
                metrics::MetricsCollector& collector, OpenAiSettings settings = {});

  OpenAiAnswer answer(const Call& call);

  /// What requests do by the way, for when there are none: closes connections that have been idle
  /// for too long and counts the workers that are passed over.
  void tidy(platform::SteadyTime now);

 private:
  struct Job;
  struct Result;

  void applyExperts(Job& job, const OpenAiRequest& request) const;
  std::optional<Result> askWorkers(const Job& job);
  Result askLocally(const Job& job);
  Result ask(const Job& job, OpenAiAttempt attempt);
  Result stream(OpenAiAttempt attempt);
  Result streamWithoutHead(OpenAiAttempt attempt, std::chrono::milliseconds waited);
  Result whole(OpenAiAttempt attempt);
  Result failed(OpenAiAttempt& attempt, net::WorkerIo io);
  /// How long a stream may still leave the client without a byte.
  std::chrono::milliseconds untilComment(const OpenAiAttempt& attempt) const;
  void endLease(OpenAiAttempt& attempt, LeaseEnd how);

  const OpenAiSettings settings_;
  const worker::WorkerRegistry& workers_;
  net::WorkerConnectionPool& pool_;
  const ai::MoeRouter& experts_;
  LocalModelServer& local_;
  InFlightBoard board_;
  OpenAiMetrics metrics_;
};

}  // namespace tavrel::inference
