#include "cluster/member_health.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <limits>
#include <nlohmann/json.hpp>

#include "platform/json_fields.h"
#include "platform/json_text.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;

constexpr double kOldLatencyShare = 0.8;

void countUp(std::int32_t& counter) {
  if (counter < std::numeric_limits<std::int32_t>::max()) ++counter;
}

/// The member's own figures; what is missing or no number stays as it was.
void readLoad(const std::string& body, NodeInfo& node) {
  json report;
  try {
    report = platform::parseForeignJson(body);
  } catch (const std::exception&) {
    return;
  }
  if (!report.is_object()) return;
  const auto number = [&report](const char* key, auto& field) {
    const json* value = platform::jsonMember(report, key);
    if (value != nullptr && value->is_number()) platform::readField(report, key, field);
  };
  number("cpu_usage", node.cpu_usage);
  number("memory_usage", node.memory_usage);
  number("active_jobs", node.active_jobs);
}

bool applyFailure(NodeInfo& node, std::int32_t unhealthy_threshold) {
  node.consecutive_successes = 0;
  countUp(node.consecutive_failures);
  if (node.consecutive_failures >= unhealthy_threshold && node.status != NodeStatus::kUnhealthy) {
    node.status = NodeStatus::kUnhealthy;
    return true;
  }
  if (node.status == NodeStatus::kHealthy) {
    node.status = NodeStatus::kDegraded;
    return true;
  }
  return false;
}

bool applySuccess(NodeInfo& node, const ProbeOutcome& outcome, std::int32_t healthy_threshold) {
  using Milliseconds = std::chrono::duration<double, std::milli>;
  const double elapsed_ms = Milliseconds(outcome.ended - outcome.began).count();
  node.consecutive_failures = 0;
  node.latency_ms = kOldLatencyShare * node.latency_ms + (1 - kOldLatencyShare) * elapsed_ms;
  countUp(node.consecutive_successes);
  node.last_heartbeat = std::max(node.last_heartbeat, outcome.ended);
  readLoad(outcome.body, node);
  if (node.consecutive_successes < healthy_threshold || node.status == NodeStatus::kHealthy) {
    return false;
  }
  node.status = NodeStatus::kHealthy;
  return true;
}

}  // namespace

bool applyProbe(NodeInfo& node, const NodeInfo& probed, const ProbeOutcome& outcome,
                HealthThresholds thresholds) {
  if (node.address != probed.address || node.port != probed.port) return false;
  if (outcome.answered) return applySuccess(node, outcome, thresholds.healthy);
  if (node.last_heartbeat > outcome.began) return false;
  return applyFailure(node, thresholds.unhealthy);
}

}  // namespace tavrel::cluster
