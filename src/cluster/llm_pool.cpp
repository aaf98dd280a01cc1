#include "cluster/llm_pool.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::cluster {
namespace {

/// One more for the length of a scope.
class Counted {
 public:
  explicit Counted(std::atomic<std::int32_t>& count) : count_(count) { ++count_; }
  ~Counted() { --count_; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  std::atomic<std::int32_t>& count_;
};

}  // namespace

std::vector<std::string> LLMPool::getAvailableModels() const {
  std::vector<std::string> models;
  std::set<std::string> seen;
  for (const NodePtr& node : registry_.getNodesByType(NodeType::kLlm)) {
    for (const std::string& model : node->models) {
      if (seen.insert(model).second) models.push_back(model);
    }
  }
  return models;
}

bool LLMPool::isModelAvailable(const std::string& model) const {
  return !getNodesForModel(model).empty();
}

std::vector<NodePtr> LLMPool::getNodesForModel(const std::string& model) const {
  std::vector<NodePtr> nodes = registry_.getNodesWithModel(model);
  std::erase_if(nodes, [](const NodePtr& node) { return node->type != NodeType::kLlm; });
  return nodes;
}

ClusterAnswer LLMPool::chat(nlohmann::json body) {
  ++total_requests_;
  const Counted pending(pending_requests_);
  std::string model = kDefaultModel;
  platform::readField(body, "model", model);
  body["model"] = model;
  ClusterCall call;
  call.path = "/api/chat";
  call.body = platform::dumpJson(body);
  call.connect = kConnectTimeout;
  call.total = kTimeout;

  ClusterAnswer answer{"No node for model: " + model, 0, {}};
  std::set<std::string> tried;
  const int attempts = failover_enabled_ ? 1 + kMaxRetries : 1;
  for (int i = 0; i < attempts && !answer.ok(); ++i) {
    NodePtr node = balancer_.selectNode({}, model, NodeType::kLlm);
    if (node != nullptr && tried.contains(node->id)) {
      // The balancer insists: any other will do.
      const std::vector<NodePtr> others = getNodesForModel(model);
      const auto fresh = std::find_if(others.begin(), others.end(), [&](const NodePtr& other) {
        return isAvailable(other->status) && !tried.contains(other->id);
      });
      node = fresh == others.end() ? nullptr : *fresh;
    }
    if (node == nullptr) break;
    tried.insert(node->id);
    const Counted active(active_requests_);
    balancer_.incrementConnections(node->id);
    call.to = {node->address, node->port};
    answer = transport_.send(call);
    balancer_.decrementConnections(node->id);
  }
  if (!answer.ok()) ++failed_requests_;
  return answer;
}

nlohmann::json LLMPool::getStats() const {
  return {{"total_requests", total_requests_.load()},
          {"failed_requests", failed_requests_.load()},
          {"pending_requests", pending_requests_.load()},
          {"active_requests", active_requests_.load()},
          {"default_model", kDefaultModel},
          {"failover_enabled", failover_enabled_.load()}};
}

}  // namespace tavrel::cluster
