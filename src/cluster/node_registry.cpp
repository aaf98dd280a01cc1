#include "cluster/node_registry.h"

#include <algorithm>
#include <utility>

namespace tavrel::cluster {

using platform::MutexLock;
using platform::SteadyTime;

namespace {

bool isHearsay(const NodeInfo& node) {
  return node.last_heartbeat == SteadyTime{};
}

bool contains(const std::vector<std::string>& list, const std::string& text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

void callAll(const std::vector<NodeRegistry::Callback>& callbacks, const NodeInfo& node) {
  for (const NodeRegistry::Callback& callback : callbacks) callback(node);
}

}  // namespace

void NodeRegistry::setOwnNode(const NodeInfo& own) {
  const MutexLock lock(mu_);
  own_id_ = own.id;
  own_endpoint_ = {own.address, own.api_port};
}

bool NodeRegistry::isOwnNode(const NodeInfo& node) const {
  const MutexLock lock(mu_);
  return (!own_id_.empty() && node.id == own_id_) ||
         (node.api_port != 0 && Endpoint(node.address, node.api_port) == own_endpoint_);
}

void NodeRegistry::dropClaimLocked(const NodeInfo& node) {
  const auto claim = claims_.find({node.address, node.api_port});
  if (claim != claims_.end() && claim->second == node.id) claims_.erase(claim);
}

NodeRegistry::Nodes::iterator NodeRegistry::eraseLocked(Nodes::iterator place) {
  dropClaimLocked(*place->second.node);
  return nodes_.erase(place);
}

void NodeRegistry::assignLocked(Entry& entry, NodePtr node) {
  if (!isHearsay(*node)) given_up_.erase(node->id);
  if (entry.node != nullptr) dropClaimLocked(*entry.node);
  if (node->api_port != 0) claims_.try_emplace({node->address, node->api_port}, node->id);
  entry.node = std::move(node);
}

NodeRegistry::Stored NodeRegistry::storeLocked(const NodePtr& node, const NodePtr* expected) {
  Stored stored;
  auto place = nodes_.find(node->id);
  if (expected != nullptr) {
    stored.outdated = *expected != (place == nodes_.end() ? nullptr : place->second.node);
    if (stored.outdated) return stored;
  }
  const auto claim =
      node->api_port == 0 ? claims_.end() : claims_.find({node->address, node->api_port});
  if (claim != claims_.end() && claim->second != node->id) {
    if (isHearsay(*node)) return stored;
    const auto holder = nodes_.find(claim->second);
    stored.displaced = holder->second.node;
    eraseLocked(holder);
  }
  if (place == nodes_.end()) {
    if (nodes_.size() >= kMaxNodes) return stored;
    place = nodes_.try_emplace(node->id).first;
    stored.added = true;
  }
  assignLocked(place->second, node);
  place->second.version = ++version_;
  stored.done = true;
  return stored;
}

bool NodeRegistry::announceStored(const Stored& stored, const NodeInfo& node) {
  if (stored.displaced != nullptr) callAll(removed_, *stored.displaced);
  if (stored.added) callAll(added_, node);
  return stored.done;
}

bool NodeRegistry::registerNode(NodeInfo node) {
  const auto record = std::make_shared<const NodeInfo>(std::move(node));
  Stored stored;
  {
    const MutexLock lock(mu_);
    stored = storeLocked(record, nullptr);
  }
  return announceStored(stored, *record);
}

bool NodeRegistry::registerNode(
    const std::string& id, const std::function<std::optional<NodeInfo>(const NodeInfo*)>& make) {
  for (;;) {
    const NodePtr current = getNode(id);
    std::optional<NodeInfo> made = make(current.get());
    if (!made) return false;
    made->id = id;
    const auto record = std::make_shared<const NodeInfo>(*std::move(made));
    Stored stored;
    {
      const MutexLock lock(mu_);
      stored = storeLocked(record, &current);
    }
    if (!stored.outdated) return announceStored(stored, *record);
  }
}

bool NodeRegistry::replaceIf(const NodePtr& expected, const NodePtr& node) {
  const MutexLock lock(mu_);
  const auto place = nodes_.find(node->id);
  if (place == nodes_.end() || place->second.node != expected) return false;
  assignLocked(place->second, node);
  return true;
}

bool NodeRegistry::unregisterNode(const std::string& id) {
  NodePtr removed;
  {
    const MutexLock lock(mu_);
    const auto place = nodes_.find(id);
    if (place == nodes_.end()) return false;
    removed = place->second.node;
    eraseLocked(place);
  }
  callAll(removed_, *removed);
  return true;
}

void NodeRegistry::updateNode(const NodeInfo& node) {
  const auto record = std::make_shared<const NodeInfo>(node);
  const MutexLock lock(mu_);
  const auto place = nodes_.find(node.id);
  if (place != nodes_.end()) assignLocked(place->second, record);
}

bool NodeRegistry::update(const std::string& id, const std::function<void(NodeInfo&)>& change) {
  while (const NodePtr current = getNode(id)) {
    NodeInfo changed = *current;
    change(changed);
    changed.id = id;
    const auto record = std::make_shared<const NodeInfo>(std::move(changed));
    if (!replaceIf(current, record)) continue;
    if (record->status != current->status) callAll(status_changed_, *record);
    return true;
  }
  return false;
}

bool NodeRegistry::updateNodeStatus(const std::string& id, NodeStatus status) {
  return update(id, [status](NodeInfo& node) { node.status = status; });
}

void NodeRegistry::updateNodeMetrics(const std::string& id, double cpu, double memory,
                                     std::int32_t active_jobs, SteadyTime now) {
  update(id, [&](NodeInfo& node) {
    node.cpu_usage = cpu;
    node.memory_usage = memory;
    node.active_jobs = active_jobs;
    const double most = std::max(node.max_concurrent_jobs, 1);
    node.load_factor = 0.4 * cpu + 0.3 * memory + 0.3 * (active_jobs / most);
    node.last_heartbeat = now;
  });
}

NodePtr NodeRegistry::getNode(const std::string& id) const {
  const MutexLock lock(mu_);
  const auto place = nodes_.find(id);
  return place == nodes_.end() ? nullptr : place->second.node;
}

template <class Wanted>
std::vector<NodePtr> NodeRegistry::nodesThat(Wanted wanted) const {
  std::vector<NodePtr> nodes = getAllNodes();
  std::erase_if(nodes, [&](const NodePtr& node) { return !wanted(*node); });
  return nodes;
}

std::vector<NodePtr> NodeRegistry::getAllNodes() const {
  std::vector<NodePtr> nodes;
  const MutexLock lock(mu_);
  nodes.reserve(nodes_.size());
  for (const auto& [id, entry] : nodes_) nodes.push_back(entry.node);
  return nodes;
}

std::vector<NodePtr> NodeRegistry::getHealthyNodes() const {
  return nodesThat([](const NodeInfo& node) { return isAvailable(node.status); });
}

std::vector<NodePtr> NodeRegistry::getNodesByType(NodeType type) const {
  return nodesThat([type](const NodeInfo& node) { return node.type == type; });
}

std::vector<NodePtr> NodeRegistry::getNodesByStatus(NodeStatus status) const {
  return nodesThat([status](const NodeInfo& node) { return node.status == status; });
}

std::vector<NodePtr> NodeRegistry::getNodesWithCapability(const std::string& name) const {
  return nodesThat([&](const NodeInfo& node) { return contains(node.capabilities, name); });
}

std::vector<NodePtr> NodeRegistry::getNodesWithModel(const std::string& name) const {
  return nodesThat([&](const NodeInfo& node) { return contains(node.models, name); });
}

std::size_t NodeRegistry::nodeCount() const {
  const MutexLock lock(mu_);
  return nodes_.size();
}

std::size_t NodeRegistry::healthyNodeCount() const {
  return getHealthyNodes().size();
}

std::map<NodeType, int> NodeRegistry::nodeCountByType() const {
  std::map<NodeType, int> counts;
  for (const NodePtr& node : getAllNodes()) ++counts[node->type];
  return counts;
}

std::map<NodeStatus, int> NodeRegistry::nodeCountByStatus() const {
  std::map<NodeStatus, int> counts;
  for (const NodePtr& node : getAllNodes()) ++counts[node->status];
  return counts;
}

std::vector<NodePtr> NodeRegistry::nodesToPassOn() const {
  std::vector<NodePtr> nodes;
  const MutexLock lock(mu_);
  nodes.reserve(nodes_.size());
  for (const auto& [id, entry] : nodes_) {
    if (!isHearsay(*entry.node) || !given_up_.contains(id)) nodes.push_back(entry.node);
  }
  return nodes;
}

std::uint64_t NodeRegistry::version() const {
  const MutexLock lock(mu_);
  return version_;
}

void NodeRegistry::removeStaleNodes(std::chrono::milliseconds max_age, SteadyTime now,
                                    std::uint64_t version) {
  std::vector<NodePtr> removed;
  {
    const MutexLock lock(mu_);
    std::erase_if(given_up_, [&](const auto& item) { return now - item.second > kGivenUpMemory; });
    for (auto place = nodes_.begin(); place != nodes_.end();) {
      const Entry& entry = place->second;
      const auto silence =
          std::chrono::floor<std::chrono::milliseconds>(now - entry.node->last_heartbeat);
      const bool stale = isHearsay(*entry.node) ? entry.version <= version : silence > max_age;
      if (!stale) {
        ++place;
        continue;
      }
      removed.push_back(entry.node);
      if (given_up_.size() < kMaxNodes) given_up_[place->first] = now;
      place = eraseLocked(place);
    }
  }
  for (const NodePtr& node : removed) callAll(removed_, *node);
}

void NodeRegistry::clear() {
  const MutexLock lock(mu_);
  nodes_.clear();
  claims_.clear();
  given_up_.clear();
}

}  // namespace tavrel::cluster
