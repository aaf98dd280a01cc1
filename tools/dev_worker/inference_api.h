#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "api/http_server.h"
#include "dev_worker/answers.h"
#include "dev_worker/client_watch.h"
#include "dev_worker/faults.h"
#include "dev_worker/model_store.h"
#include "dev_worker/options.h"
#include "dev_worker/stats.h"
#include "dev_worker/upstream.h"
#include "dev_worker/wire.h"

namespace tavrel::dev_worker {

/// The OpenAI-style interface: chat, completions, embeddings, models. Answers itself at the pace
/// asked for, or through an upstream server; faults befall the three that generate something.
///
/// Threads: handlers run on the server's threads. Everything is constant after construction but
/// the statistics. The object outlives the server's handlers; `stopping` is set before the server
/// is stopped.
class InferenceApi {
 public:
  InferenceApi(const Options& options, const ModelStore& models,
               const std::optional<Upstream>& upstream, net::HttpClient& client, Stats& stats,
               const std::atomic<bool>& stopping);

  void addRoutes(api::HttpServer& server);

 private:
  api::Response text(ReplyKind kind, api::Context& context, const api::Request& request);
  api::Response embeddings(const api::Request& request);
  api::Response models();

  api::Response plainAnswer(ReplyKind kind, const ChatInput& input, ClientWatch watch);
  api::Response streamedAnswer(ReplyKind kind, ChatInput input, ClientWatch watch);
  void sendEvents(ReplyKind kind, const ChatInput& input, ClientWatch& watch,
                  api::StreamWriter& writer);
  /// The answer to a plain chat request when every one gets the same: needs no look at the request.
  api::Response fixedAnswer(ClientWatch watch);

  api::Response guarded(api::Context& context, const api::Request& request,
                        const api::Handler& next);
  platform::SteadyTime tokenDue(platform::SteadyTime start, int tokens) const;
  ClientWatch watchFor(const api::Context& context);

  const Options& options_;
  const ModelStore& models_;
  const std::optional<Upstream>& upstream_;
  net::HttpClient& client_;
  Stats& stats_;
  const std::atomic<bool>& stopping_;
  const AnswerStyle style_;
  const std::int64_t started_;  ///< seconds since the epoch
  FaultPlan faults_;
  std::string fixed_tail_;  ///< empty: answers depend on the request
  int fixed_tokens_ = 0;
};

}  // namespace tavrel::dev_worker
