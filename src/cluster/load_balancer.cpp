#include "cluster/load_balancer.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

namespace tavrel::cluster {

using platform::MutexLock;

namespace {

bool contains(const std::vector<std::string>& list, const std::string& text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

bool hasAll(const NodeInfo& node, const std::vector<std::string>& capabilities) {
  return std::all_of(capabilities.begin(), capabilities.end(),
                     [&](const std::string& name) { return contains(node.capabilities, name); });
}

std::int64_t weightOf(const NodeInfo& node) {
  return std::max(node.weight, 0);
}

}  // namespace

LoadBalancer::LoadBalancer(const NodeRegistry& registry, LoadBalanceStrategy strategy,
                           std::uint32_t seed)
    : registry_(registry), strategy_(strategy), random_(seed) {}

void LoadBalancer::setStrategy(LoadBalanceStrategy strategy) {
  const MutexLock lock(mu_);
  strategy_ = strategy;
}

void LoadBalancer::setStickySessions(bool enabled) {
  const MutexLock lock(mu_);
  sticky_sessions_ = enabled;
}

NodePtr LoadBalancer::selectNode(NodeType type) {
  return selectNode({}, "", type);
}

NodePtr LoadBalancer::selectNode(const std::vector<std::string>& capabilities,
                                 const std::string& model, std::optional<NodeType> type) {
  std::vector<NodePtr> nodes = registry_.getAllNodes();
  std::erase_if(nodes, [&](const NodePtr& node) {
    return !isAvailable(node->status) || (type && node->type != *type) ||
           !hasAll(*node, capabilities) || (!model.empty() && !contains(node->models, model));
  });
  return choose(nodes);
}

NodePtr LoadBalancer::selectNodeForSession(const std::string& session, NodeType type) {
  std::string remembered;
  bool sticky = false;
  {
    const MutexLock lock(mu_);
    sticky = sticky_sessions_;
    const auto known = sessions_.find(session);
    if (known != sessions_.end()) remembered = known->second;
  }
  if (!sticky) return selectNode(type);
  NodePtr node = remembered.empty() ? nullptr : registry_.getNode(remembered);
  if (node != nullptr && isAvailable(node->status) && node->type == type) return node;
  node = selectNode(type);
  if (node == nullptr) return nullptr;
  const MutexLock lock(mu_);
  if (sessions_.size() < kMaxSessions || sessions_.contains(session)) sessions_[session] = node->id;
  return node;
}

void LoadBalancer::clearSession(const std::string& session) {
  const MutexLock lock(mu_);
  sessions_.erase(session);
}

void LoadBalancer::incrementConnections(const std::string& node_id) {
  const MutexLock lock(mu_);
  ++connections_[node_id];
}

void LoadBalancer::decrementConnections(const std::string& node_id) {
  const MutexLock lock(mu_);
  std::int32_t& count = connections_[node_id];
  count = std::max(count - 1, 0);
}

nlohmann::json LoadBalancer::getStats() const {
  const MutexLock lock(mu_);
  nlohmann::json counts = nlohmann::json::object();
  for (const auto& [id, count] : connections_) counts[id] = count;
  return {{"strategy", static_cast<std::int32_t>(strategy_)},
          {"sticky_sessions_enabled", sticky_sessions_},
          {"active_sessions", sessions_.size()},
          {"connection_counts", std::move(counts)}};
}

NodePtr LoadBalancer::choose(const std::vector<NodePtr>& nodes) {
  if (nodes.empty()) return nullptr;
  const MutexLock lock(mu_);
  switch (strategy_) {
    case LoadBalanceStrategy::kRoundRobin:
      return nextInTurn(nodes);
    case LoadBalanceStrategy::kLeastConnections:
      return byConnections(nodes);
    case LoadBalanceStrategy::kRandom:
      return nodes[std::uniform_int_distribution<std::size_t>(0, nodes.size() - 1)(random_)];
    case LoadBalanceStrategy::kWeighted:
      return byWeight(nodes);
    default:
      return *std::min_element(nodes.begin(), nodes.end(), [](const NodePtr& a, const NodePtr& b) {
        return a->load_factor < b->load_factor;
      });
  }
}

/// The position is advanced before it is used: the first of several is not the first to be chosen.
const NodePtr& LoadBalancer::nextInTurn(const std::vector<NodePtr>& nodes) {
  std::size_t& position = positions_[nodes.front()->type];
  position = (position + 1) % nodes.size();
  return nodes[position];
}

const NodePtr& LoadBalancer::byWeight(const std::vector<NodePtr>& nodes) {
  std::int64_t total = 0;
  for (const NodePtr& node : nodes) total += weightOf(*node);
  if (total == 0) return nextInTurn(nodes);
  std::int64_t drawn = std::uniform_int_distribution<std::int64_t>(0, total - 1)(random_);
  for (const NodePtr& node : nodes) {
    drawn -= weightOf(*node);
    if (drawn < 0) return node;
  }
  return nodes.back();
}

/// Both the nodes and the counts are in id order, so one walk finds all counts.
const NodePtr& LoadBalancer::byConnections(const std::vector<NodePtr>& nodes) const {
  const NodePtr* best = &nodes.front();
  std::int32_t fewest = std::numeric_limits<std::int32_t>::max();
  auto count = connections_.begin();
  for (const NodePtr& node : nodes) {
    while (count != connections_.end() && count->first < node->id) ++count;
    const bool listed = count != connections_.end() && count->first == node->id;
    const std::int32_t here = listed ? count->second : 0;
    if (here >= fewest) continue;
    fewest = here;
    best = &node;
  }
  return *best;
}

}  // namespace tavrel::cluster
