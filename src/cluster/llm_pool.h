#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "cluster/cluster_transport.h"
#include "cluster/load_balancer.h"
#include "cluster/node_registry.h"

namespace tavrel::cluster {

/// The language-model nodes of the cluster: what they offer, and chats with one of them.
/// Threads: any. Calls block without a lock. Failure: told by the answer.
class LLMPool {
 public:
  static constexpr const char* kDefaultModel = "llama3.1:8b";
  static constexpr std::int32_t kMaxRetries = 3;
  static constexpr std::chrono::milliseconds kTimeout{60'000};  ///< of each attempt

  /// All must outlive it.
  LLMPool(const NodeRegistry& registry, LoadBalancer& balancer, ClusterTransport& transport)
      : registry_(registry), balancer_(balancer), transport_(transport) {}

  /// In the order in which the nodes list them, each once.
  std::vector<std::string> getAvailableModels() const;
  bool isModelAvailable(const std::string& model) const;
  std::vector<NodePtr> getNodesForModel(const std::string& model) const;

  /// Sends a chat body (the default model is entered when it names none) to a node that has the
  /// model, and to another when that fails, unless failover is off. The error tells of the last.
  ClusterAnswer chat(nlohmann::json body);
  void setFailover(bool enabled) { failover_enabled_ = enabled; }

  nlohmann::json getStats() const;

 private:
  const NodeRegistry& registry_;
  LoadBalancer& balancer_;
  ClusterTransport& transport_;
  std::atomic<bool> failover_enabled_{true};
  std::atomic<std::int32_t> total_requests_{0};
  std::atomic<std::int32_t> failed_requests_{0};
  std::atomic<std::int32_t> pending_requests_{0};  ///< begun and not yet answered
  std::atomic<std::int32_t> active_requests_{0};   ///< under way at a node
};

}  // namespace tavrel::cluster
