#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "net/http_client.h"
#include "worker/worker_registry.h"

namespace tavrel::inference {

/// Runs an agent's prompt for another node: one chat with a worker that has the model, else with
/// the local model server.
/// Threads: any; calls block, at most for the times below. Failure: told by the answer.
class AgentHost {
 public:
  static constexpr const char* kDefaultModel = "llama3.2:3b";
  static constexpr std::chrono::milliseconds kConnectTimeout{5000};
  static constexpr std::chrono::milliseconds kChatTimeout{120'000};

  /// All must outlive it.
  AgentHost(const worker::WorkerRegistry& workers, net::HttpClient& http,
            std::string local_model_server)
      : workers_(workers), http_(http), local_model_server_(std::move(local_model_server)) {}

  nlohmann::json run(const std::string& agent_type, const std::string& model,
                     const std::string& prompt) const;

 private:
  std::string baseUrlFor(const std::string& model) const;

  const worker::WorkerRegistry& workers_;
  net::HttpClient& http_;
  const std::string local_model_server_;
};

}  // namespace tavrel::inference
