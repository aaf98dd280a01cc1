#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"

// The records that describe one member of the cluster. Plain copyable values; whoever keeps them
// guards them.
namespace tavrel::cluster {

/// What a node is. Travels as its number.
enum class NodeType : std::int32_t {
  kController = 0,
  kWorker = 1,
  kRouter = 2,
  kLlm = 3,
  kImage = 4,
  kAgent = 5,
  kData = 6,
  kMedia = 7,
  kComm = 8,
  kScience = 9,
  kTraining = 10,
  kInference = 11,
};

/// "unknown" for a value outside the enumeration.
std::string nodeTypeToString(NodeType type);

/// How a node is doing. Travels as its number.
enum class NodeStatus : std::int32_t {
  kUnknown = 0,
  kStarting = 1,
  kHealthy = 2,
  kDegraded = 3,
  kUnhealthy = 4,
  kOffline = 5,
};

/// "unknown" for a value outside the enumeration.
std::string nodeStatusToString(NodeStatus status);

/// Whether work may be given to a node of this status.
constexpr bool isAvailable(NodeStatus status) {
  return status == NodeStatus::kHealthy || status == NodeStatus::kDegraded;
}

/// Whether a language model advises on, or decides, where work goes.
enum class AIControlMode : std::int32_t { kNone = 0, kAdvisory = 1, kAutonomous = 2 };

/// "unknown" for a value outside the enumeration.
std::string aiControlModeToString(AIControlMode mode);
std::optional<AIControlMode> aiControlModeFromString(std::string_view text);

/// The model that routers and controllers ask unless another is configured.
inline constexpr const char* kDefaultDecisionModel = "llama3.2:1b";
inline constexpr const char* kDefaultDecisionUrl = "http://localhost:11434";

/// How a node uses its decision model. JSON: `mode` as text, the model as `llm_mode`.
struct AIControlConfig {
  AIControlMode mode = AIControlMode::kNone;
  std::string model = kDefaultDecisionModel;
  std::string ollama_url = kDefaultDecisionUrl;
  std::int32_t decision_timeout_ms = 0;
  float temperature = 0;
  bool log_decisions = false;
  std::vector<std::string> allowed_actions;

  nlohmann::json toJson() const;
};

/// What only a controller node has.
struct ControllerInfo {
  std::int32_t tier = 0;
  std::int32_t managed_workers = 0;
  std::int32_t managed_routers = 0;
  AIControlConfig ai_config;
  bool is_leader = false;
  std::string cluster_id;

  nlohmann::json toJson() const;
};

/// What only a worker node has.
struct WorkerExtendedInfo {
  std::int32_t tier = 0;
  std::string controller_id;
  std::string backend_type;
  AIControlConfig ai_config;

  nlohmann::json toJson() const;
};

/// A rule that a router applies; the controller only keeps it.
struct RouterRule {
  std::string id;
  std::string name;
  std::string condition;
  std::string target_capability;
  std::string target_node;
  std::int32_t priority = 0;
  bool enabled = true;

  nlohmann::json toJson() const;
};

/// What only a router node has. JSON: the rules as `routing_rules`.
struct RouterConfig {
  std::vector<RouterRule> routing_rules;
  AIControlConfig ai_config;

  nlohmann::json toJson() const;
};

/// One member of the cluster.
struct NodeInfo {
  std::string id;
  std::string hostname;
  std::string address;  ///< host name or IP
  std::int32_t port = 0;
  std::int32_t api_port = 0;  ///< used where `port` is 0; in JSON only when it is not 0
  NodeType type = NodeType::kController;
  NodeStatus status = NodeStatus::kUnknown;
  std::string region_id;
  std::string zone;
  std::vector<std::string> capabilities;
  std::vector<std::string> models;
  double cpu_usage = 0;     ///< as the node reports it
  double memory_usage = 0;  ///< as the node reports it
  std::int32_t active_jobs = 0;
  double load_factor = 0;
  std::int32_t weight = 1;
  std::string version;
  std::string parent_id;
  std::vector<std::string> child_ids;
  AIControlConfig ai_control;
  std::int32_t controller_tier = 0;  ///< JSON only for a controller
  ControllerInfo controller_info;    ///< JSON only for a controller
  std::int32_t worker_tier = 0;      ///< JSON only for a worker
  WorkerExtendedInfo worker_info;    ///< JSON only for a worker
  RouterConfig router_config;        ///< JSON only for a router

  // Never in JSON.
  std::int32_t max_concurrent_jobs = 10;
  platform::SteadyTime last_heartbeat;  ///< last sign of life
  std::int32_t consecutive_failures = 0;
  std::int32_t consecutive_successes = 0;
  double latency_ms = 0;  ///< smoothed probe latency

  nlohmann::json toJson() const;
};

}  // namespace tavrel::cluster
