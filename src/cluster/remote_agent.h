#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tavrel::cluster {

/// What an agent is for. Travels as its number.
enum class AgentType : std::int32_t {
  kGeneral = 0,
  kCoder = 1,
  kExplorer = 2,
  kPlanner = 3,
  kSearcher = 4,
  kRunner = 5,
  kDatabase = 6,
  kNetwork = 7,
  kLearner = 8,
};

/// "unknown" for a value outside the enumeration.
std::string agentTypeToString(AgentType type);

/// An agent that a node of the cluster hosts. A plain value.
struct RemoteAgent {
  std::string id;
  std::string name;
  AgentType type = AgentType::kGeneral;
  std::string agent_type_id;
  std::string node_id;
  bool available = true;
  std::int32_t active_tasks = 0;
  std::string model;

  // Never in JSON.
  std::int32_t max_concurrent_tasks = 10;
  double load = 0;  ///< share of its tasks that run; lower is preferred
  std::vector<std::string> allowed_tools;

  nlohmann::json toJson() const;
};

/// A prompt for an agent. A plain value.
struct AgentInvocation {
  static constexpr std::int32_t kDefaultTimeoutMs = 300'000;

  std::string invocation_id;
  std::optional<std::string> agent_id;  ///< this agent and no other
  std::string prompt;
  std::string context;
  nlohmann::json parameters = nlohmann::json::object();
  std::int32_t max_iterations = 10;
  std::int32_t timeout_ms = kDefaultTimeoutMs;  ///< below 1: the default
  std::optional<std::string> session_id;
  AgentType preferred_type = AgentType::kGeneral;
  nlohmann::json metadata = nlohmann::json::object();
};

/// What came of an invocation.
struct AgentResult {
  bool success = false;
  std::string response;
  nlohmann::json tool_calls = nlohmann::json::array();
  std::int32_t iterations = 0;
  std::string error;
  std::string agent_id;  ///< empty when there was no agent
  double total_time_ms = 0;
};

}  // namespace tavrel::cluster
