#include "cluster/node_reader.h"

#include <string>
#include <vector>

#include "platform/json_fields.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;
using platform::readField;

constexpr std::int32_t kDefaultPort = 8080;
constexpr std::int32_t kDefaultWeight = 100;
constexpr std::size_t kMaxTextBytes = 256;
constexpr std::size_t kMaxListLength = 1000;
constexpr std::size_t kMaxListBytes = std::size_t{32} << 10;

void readPlace(const json& object, std::int32_t default_port, NodeInfo& node) {
  node.port = default_port;
  readField(object, "id", node.id);
  readField(object, "hostname", node.hostname);
  readField(object, "address", node.address);
  readField(object, "port", node.port);
  readField(object, "api_port", node.api_port);
  node.type = static_cast<NodeType>(platform::jsonNumberOr<std::int32_t>(object, "type", 0));
  if (node.port == 0) node.port = node.api_port;
}

bool isShort(const std::string& text) {
  return text.size() <= kMaxTextBytes;
}

bool isShort(const std::vector<std::string>& list) {
  std::size_t size = 0;
  for (const std::string& text : list) size += text.size();
  return list.size() <= kMaxListLength && size <= kMaxListBytes;
}

std::optional<NodeInfo> checked(NodeInfo node) {
  if (node.id.empty() || !isShort(node.id) || !isShort(node.hostname) || !isShort(node.address) ||
      !isShort(node.version) || !isShort(node.models) || !isShort(node.capabilities)) {
    return std::nullopt;
  }
  return node;
}

}  // namespace

std::optional<NodeInfo> joinedNode(const json& object, platform::SteadyTime now) {
  NodeInfo node;
  readPlace(object, kDefaultPort, node);
  readField(object, "version", node.version);
  node.status = NodeStatus::kHealthy;
  node.last_heartbeat = now;
  return checked(std::move(node));
}

std::optional<NodeInfo> announcedNode(const json& object, const NodeInfo* known,
                                      platform::SteadyTime now) {
  NodeInfo sent;
  readPlace(object, kDefaultPort, sent);
  NodeInfo node = known == nullptr ? NodeInfo{} : *known;
  node.id = std::move(sent.id);
  node.hostname = std::move(sent.hostname);
  node.address = std::move(sent.address);
  node.port = sent.port;
  node.api_port = sent.api_port;
  node.type = sent.type;
  node.status = NodeStatus::kHealthy;
  node.last_heartbeat = now;
  node.consecutive_failures = 0;
  node.consecutive_successes = 0;
  return checked(std::move(node));
}

std::optional<NodeInfo> gossipedNode(const json& object, NodeDetail detail) {
  NodeInfo node;
  readPlace(object, 0, node);
  node.status = static_cast<NodeStatus>(platform::jsonNumberOr<std::int32_t>(object, "status", 0));
  if (detail != NodeDetail::kPlace) {
    readField(object, "cpu_usage", node.cpu_usage);
    readField(object, "memory_usage", node.memory_usage);
    readField(object, "active_jobs", node.active_jobs);
  }
  if (detail == NodeDetail::kFull) {
    node.weight = kDefaultWeight;
    readField(object, "weight", node.weight);
    readField(object, "version", node.version);
    readField(object, "models", node.models);
    readField(object, "capabilities", node.capabilities);
  }
  return checked(std::move(node));
}

}  // namespace tavrel::cluster
