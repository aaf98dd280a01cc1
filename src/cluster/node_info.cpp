#include "cluster/node_info.h"

#include <nlohmann/json.hpp>

#include "platform/enum_text.h"
#include "platform/json_fields.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;

constexpr std::string_view kTypeTexts[] = {"controller", "worker",  "router",   "llm",
                                           "image",      "agent",   "data",     "media",
                                           "comm",       "science", "training", "inference"};
constexpr std::string_view kStatusTexts[] = {"unknown",  "starting",  "healthy",
                                             "degraded", "unhealthy", "offline"};
constexpr std::string_view kModeTexts[] = {"none", "advisory", "autonomous"};

}  // namespace

std::string nodeTypeToString(NodeType type) {
  return platform::enumText(type, kTypeTexts);
}

std::string nodeStatusToString(NodeStatus status) {
  return platform::enumText(status, kStatusTexts);
}

std::string aiControlModeToString(AIControlMode mode) {
  return platform::enumText(mode, kModeTexts);
}

std::optional<AIControlMode> aiControlModeFromString(std::string_view text) {
  return platform::enumFromText<AIControlMode>(text, kModeTexts);
}

json AIControlConfig::toJson() const {
  return {{"mode", aiControlModeToString(mode)},
          {"llm_mode", model},
          {"ollama_url", ollama_url},
          {"decision_timeout_ms", decision_timeout_ms},
          {"temperature", temperature},
          {"log_decisions", log_decisions},
          {"allowed_actions", allowed_actions}};
}

json ControllerInfo::toJson() const {
  return {{"tier", tier},
          {"managed_workers", managed_workers},
          {"managed_routers", managed_routers},
          {"ai_config", ai_config.toJson()},
          {"is_leader", is_leader},
          {"cluster_id", cluster_id}};
}

json WorkerExtendedInfo::toJson() const {
  return {{"tier", tier},
          {"controller_id", controller_id},
          {"backend_type", backend_type},
          {"ai_config", ai_config.toJson()}};
}

json RouterRule::toJson() const {
  return {{"id", id},
          {"name", name},
          {"condition", condition},
          {"target_capability", target_capability},
          {"target_node", target_node},
          {"priority", priority},
          {"enabled", enabled}};
}

json RouterConfig::toJson() const {
  return {{"routing_rules", platform::jsonArray(routing_rules)}, {"ai_config", ai_config.toJson()}};
}

json NodeInfo::toJson() const {
  json node{{"id", id},
            {"hostname", hostname},
            {"address", address},
            {"port", port},
            {"type", static_cast<std::int32_t>(type)},
            {"status", static_cast<std::int32_t>(status)},
            {"region_id", region_id},
            {"zone", zone},
            {"capabilities", capabilities},
            {"models", models},
            {"cpu_usage", cpu_usage},
            {"memory_usage", memory_usage},
            {"active_jobs", active_jobs},
            {"load_factor", load_factor},
            {"weight", weight},
            {"version", version},
            {"parent_id", parent_id},
            {"child_ids", child_ids},
            {"ai_control", ai_control.toJson()}};
  if (api_port != 0) node["api_port"] = api_port;
  switch (type) {
    case NodeType::kController:
      node["controller_tier"] = controller_tier;
      node["controller_info"] = controller_info.toJson();
      break;
    case NodeType::kWorker:
      node["worker_tier"] = worker_tier;
      node["worker_info"] = worker_info.toJson();
      break;
    case NodeType::kRouter:
      node["router_config"] = router_config.toJson();
      break;
    default:
      break;
  }
  return node;
}

}  // namespace tavrel::cluster
