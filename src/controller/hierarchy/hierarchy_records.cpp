#include "controller/hierarchy/hierarchy_records.h"

#include <iterator>
#include <string_view>

#include "cluster/cluster_transport.h"
#include "platform/json_fields.h"

namespace tavrel::controller {

using nlohmann::json;
using platform::readField;

namespace {

// The place in the table is the value of the enumerator.
constexpr std::string_view kOperationTexts[] = {
    "cluster_scan",        "add_sub_controller",  "remove_sub_controller", "deploy_global",
    "deploy_edge",         "manage_registry",     "global_health_check",   "modify_topology",
    "deploy_local_worker", "deploy_local_router", "local_health_check",    "report_status",
    "execute_command",     "mirror_registry",
};
static_assert(std::size(kOperationTexts) ==
              static_cast<std::size_t>(ControllerOperation::kMirrorRegistry) + 1);

constexpr std::int32_t kDefaultMasterPort = 8880;

}  // namespace

std::string controllerRoleToString(ControllerRole role) {
  switch (role) {
    case ControllerRole::kMaster:
      return "master";
    case ControllerRole::kSub:
      return "sub";
  }
  return "unknown";
}

std::string controllerOperationToString(ControllerOperation op) {
  const auto place = static_cast<std::size_t>(op);
  return std::string(place < std::size(kOperationTexts) ? kOperationTexts[place] : "unknown");
}

bool isOperationAllowed(ControllerRole role, ControllerOperation op) {
  return role == ControllerRole::kMaster || (op >= ControllerOperation::kDeployLocalWorker &&
                                             op <= ControllerOperation::kMirrorRegistry);
}

PermissionDeniedException::PermissionDeniedException(ControllerOperation denied,
                                                     ControllerRole denied_role)
    : std::runtime_error("Operation '" + controllerOperationToString(denied) +
                         "' not allowed for " + controllerRoleToString(denied_role) +
                         " controller"),
      operation(denied),
      role(denied_role) {}

json SubControllerInfo::toJson() const {
  return {{"id", id},
          {"name", name},
          {"address", address},
          {"port", port},
          {"region", region},
          {"tier_id", tier_id},
          {"status", static_cast<std::int32_t>(status)},
          {"worker_count", worker_count},
          {"router_count", router_count},
          {"avg_response_time_ms", avg_response_time_ms}};
}

std::string SubControllerInfo::url(const std::string& path) const {
  return cluster::endpointUrl({address, port}, path);
}

bool SubControllerInfo::hasPlace() const {
  return !cluster::endpointUrl({address, port == 0 ? 1 : port}, "").empty();
}

void readSubController(const json& body, SubControllerInfo& sub) {
  readField(body, "id", sub.id);
  readField(body, "name", sub.name);
  readField(body, "address", sub.address);
  readField(body, "port", sub.port);
  readField(body, "region", sub.region);
  readField(body, "tier_id", sub.tier_id);
  readField(body, "worker_count", sub.worker_count);
  readField(body, "router_count", sub.router_count);
  const json* status = platform::jsonMember(body, "status");
  if (status == nullptr || !status->is_number_integer()) return;  // some tell it as a text
  const auto number = platform::jsonNumber<std::int32_t>(*status);
  if (number >= 0 && number <= static_cast<std::int32_t>(SubControllerStatus::kOffline)) {
    sub.status = static_cast<SubControllerStatus>(number);
  }
}

json EdgeNodeInfo::toJson() const {
  return {{"id", id},
          {"name", name},
          {"address", address},
          {"http_port", http_port},
          {"https_port", https_port},
          {"tls_enabled", tls_enabled},
          {"router_urls", router_urls},
          {"status", status},
          {"requests_total", requests_total},
          {"requests_per_minute", requests_per_minute},
          {"avg_latency_ms", avg_latency_ms}};
}

void readEdgeNode(const json& body, EdgeNodeInfo& edge) {
  readField(body, "id", edge.id);
  readField(body, "name", edge.name);
  readField(body, "address", edge.address);
  readField(body, "http_port", edge.http_port);
  readField(body, "https_port", edge.https_port);
  readField(body, "tls_enabled", edge.tls_enabled);
  readField(body, "tls_cert_path", edge.tls_cert_path);
  readField(body, "tls_key_path", edge.tls_key_path);
  readField(body, "router_urls", edge.router_urls);
  if (const json* limits = platform::jsonMember(body, "rate_limits")) {
    readField(*limits, "global_rpm", edge.rate_limits.global_rpm);
    readField(*limits, "per_ip_rpm", edge.rate_limits.per_ip_rpm);
    readField(*limits, "per_key_rpm", edge.rate_limits.per_key_rpm);
  }
}

json MasterControllerRef::toJson() const {
  return {{"id", id}, {"address", address}, {"port", port}, {"connected", connected}};
}

json MasterCommand::toJson() const {
  return {{"id", id},         {"type", type},     {"payload", payload},
          {"status", status}, {"result", result}, {"error_message", error_message}};
}

json CommandResult::toJson() const {
  return {{"command_id", command_id}, {"sub_id", sub_id}, {"success", success},
          {"result", result},         {"error", error},   {"timestamp", platform::toUtcText(time)},
          {"completed", true}};
}

void readMasterUrl(const std::string& url, HierarchyConfig& config) {
  std::string_view text = url;
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (text.starts_with(scheme)) text.remove_prefix(scheme.size());
  }
  while (text.ends_with('/')) text.remove_suffix(1);
  const cluster::Endpoint master = cluster::parseEndpoint(text, kDefaultMasterPort);
  config.master_address = master.host;
  config.master_port = master.port;
}

}  // namespace tavrel::controller
