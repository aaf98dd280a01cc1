#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "ai/ai_control.h"
#include "ai/moe_router.h"
#include "cluster/router_registry.h"
#include "inference/chat_request.h"
#include "inference/load_selector.h"
#include "inference/local_model_server.h"
#include "metrics/metrics_collector.h"
#include "net/http_client.h"
#include "net/worker_connection.h"
#include "platform/clock.h"
#include "worker/worker_registry.h"

namespace tavrel::inference {

/// What a chat request may need. Everything outlives the proxy.
struct ChatServices {
  const worker::WorkerRegistry& workers;
  ai::AiControl& ai_control;
  ai::MoeRouter& experts;
  const cluster::RouterRegistry& routers;
  std::function<std::string()> science_worker_url;  ///< of one that is online; "" when none is
  net::HttpClient& http;
  LocalModelServer& local_server;
  metrics::MetricsCollector& metrics;
};

/// How long a peer may take.
struct ChatTimeouts {
  std::chrono::milliseconds worker{120'000};  ///< to connect, and without progress afterwards
  std::chrono::milliseconds worker_stream{300'000};
  std::chrono::milliseconds router_connect{10'000};
  std::chrono::milliseconds router{120'000};
};

/// On whose behalf a request is made.
struct ChatCaller {
  std::string request_id;
  int client_descriptor = -1;  ///< watched for a hang-up while a worker is waited for; -1: nobody
};

/// What a chat request is answered with: the JSON body when `status` is 200, else `error`.
struct ChatReply {
  int status = 200;
  std::string body;
  std::string error;
};

/// Chat completions: picks a worker that has the model, hands the request on over a connection of
/// its own, and words the answer. Expert rules may change the model before, the decision model may
/// pick the worker, and the local model server steps in where no worker has the model.
///
/// Threads: any number of requests at once, each on its caller's thread; no lock is held while a
/// peer is waited for. Failure: told by the reply; values of a wrong JSON type in the client's body
/// throw out of complete (nlohmann's type_error). When the client leaves, the connection to the
/// worker closes.
class ChatProxy {
 public:
  explicit ChatProxy(ChatServices services, ChatTimeouts timeouts = {});

  /// `raw_body` is the text that `body` was read from.
  ChatReply complete(const nlohmann::json& body, const std::string& raw_body,
                     const ChatCaller& caller);

  using Write = std::function<bool(std::string_view)>;
  /// Relays the answer of the first worker that has the model, piece by piece as it arrives, until
  /// its end or until `write` says that the client has left. `body` is null when there was none.
  void stream(const nlohmann::json* body, const ChatCaller& caller, const Write& write);

 private:
  /// Why a worker, or a model, was chosen.
  struct Routing {
    std::string strategy;
    std::string reason;
    bool by_decision_model = false;
  };

  ChatReply askEnsemble(const std::string& raw_body) const;
  /// Lets the expert rules change the request. The routing is set when an expert's model is used.
  std::optional<Routing> applyExperts(ChatRequest& request, const nlohmann::json& messages);
  worker::WorkerPtr chooseWorker(const std::string& model, Routing& routing);
  worker::WorkerPtr askDecisionModel(const std::string& model, Routing& routing);
  ChatReply forward(const worker::WorkerInfo& worker, const ChatRequest& request,
                    const Routing& routing, const ChatCaller& caller, platform::SteadyTime start);
  ChatReply answerLocally(const ChatRequest& request, const Routing& routing,
                          const ChatCaller& caller, platform::SteadyTime start);
  bool relay(net::WorkerConnection& connection, const Write& write) const;

  const ChatServices services_;
  const ChatTimeouts timeouts_;
  LoadSelector selector_;
};

}  // namespace tavrel::inference
