#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "cluster/load_balance_strategy.h"
#include "cluster/node_registry.h"
#include "platform/mutex.h"

namespace tavrel::cluster {

/// Chooses a node of the registry for a piece of work, among those that are healthy or degraded.
/// Sessions may stick to the node they were given.
///
/// Threads: any; mu_ is a leaf lock. Failure: null when no node will do.
class LoadBalancer {
 public:
  /// Sessions that are remembered; later ones are served without being remembered.
  static constexpr std::size_t kMaxSessions = 100'000;

  /// The registry must outlive it.
  LoadBalancer(const NodeRegistry& registry, LoadBalanceStrategy strategy,
               std::uint32_t seed = std::random_device{}());
  LoadBalancer(const LoadBalancer&) = delete;
  LoadBalancer& operator=(const LoadBalancer&) = delete;

  void setStrategy(LoadBalanceStrategy strategy) TV_EXCLUDES(mu_);
  void setStickySessions(bool enabled) TV_EXCLUDES(mu_);

  NodePtr selectNode(NodeType type) TV_EXCLUDES(mu_);
  /// One that has all the capabilities and, unless that is empty, the model.
  NodePtr selectNode(const std::vector<std::string>& capabilities, const std::string& model,
                     std::optional<NodeType> type = std::nullopt) TV_EXCLUDES(mu_);
  NodePtr selectNodeWithModel(const std::string& model) { return selectNode({}, model); }
  NodePtr selectNodeWithCapability(const std::string& name) { return selectNode({name}, ""); }
  NodePtr selectNodeForSession(const std::string& session, NodeType type) TV_EXCLUDES(mu_);
  void clearSession(const std::string& session) TV_EXCLUDES(mu_);

  /// What runs on a node, as its users tell; the least-connections strategy goes by it.
  void incrementConnections(const std::string& node_id) TV_EXCLUDES(mu_);
  void decrementConnections(const std::string& node_id) TV_EXCLUDES(mu_);

  nlohmann::json getStats() const TV_EXCLUDES(mu_);

 private:
  NodePtr choose(const std::vector<NodePtr>& nodes) TV_EXCLUDES(mu_);
  const NodePtr& nextInTurn(const std::vector<NodePtr>& nodes) TV_REQUIRES(mu_);
  const NodePtr& byWeight(const std::vector<NodePtr>& nodes) TV_REQUIRES(mu_);
  const NodePtr& byConnections(const std::vector<NodePtr>& nodes) const TV_REQUIRES(mu_);

  const NodeRegistry& registry_;
  mutable platform::Mutex mu_;
  LoadBalanceStrategy strategy_ TV_GUARDED_BY(mu_);
  bool sticky_sessions_ TV_GUARDED_BY(mu_) = false;
  std::map<std::string, std::string> sessions_ TV_GUARDED_BY(mu_);  ///< to node ids
  std::map<std::string, std::int32_t> connections_ TV_GUARDED_BY(mu_);
  std::map<NodeType, std::size_t> positions_ TV_GUARDED_BY(mu_);
  std::mt19937 random_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::cluster
