#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/clock.h"

// The records of the master/sub hierarchy of controllers. Plain copyable values; whoever keeps them
// guards them.
namespace tavrel::controller {

enum class ControllerRole : std::int32_t { kMaster = 0, kSub = 1 };

/// "master", "sub", or "unknown" for a value outside the enumeration.
std::string controllerRoleToString(ControllerRole role);

/// What a controller may do to the hierarchy. The first eight are the master's alone.
enum class ControllerOperation : std::int32_t {
  kClusterScan,
  kAddSubController,
  kRemoveSubController,
  kDeployGlobal,
  kDeployEdge,
  kManageRegistry,
  kGlobalHealthCheck,
  kModifyTopology,
  kDeployLocalWorker,
  kDeployLocalRouter,
  kLocalHealthCheck,
  kReportStatus,
  kExecuteCommand,
  kMirrorRegistry,
};

/// E.g. "deploy_edge"; "unknown" for a value outside the enumeration.
std::string controllerOperationToString(ControllerOperation op);

/// A master may do everything, a sub what concerns itself.
bool isOperationAllowed(ControllerRole role, ControllerOperation op);

class PermissionDeniedException : public std::runtime_error {
 public:
  PermissionDeniedException(ControllerOperation op, ControllerRole role);

  const ControllerOperation operation;
  const ControllerRole role;
};

enum class SubControllerStatus : std::int32_t {
  kUnknown = 0,
  kActive = 1,
  kDegraded = 2,
  kOffline = 3,
};

/// What a master knows of one of its sub-controllers.
struct SubControllerInfo {
  std::string id;
  std::string name;
  std::string address;
  std::int32_t port = 8080;
  std::string region;
  std::string tier_id;
  SubControllerStatus status = SubControllerStatus::kUnknown;  ///< JSON: its number
  std::int32_t worker_count = 0;
  std::int32_t router_count = 0;
  double avg_response_time_ms = 0;  ///< of the probes, smoothed

  platform::SteadyTime last_heartbeat;    ///< never in JSON
  std::int32_t consecutive_failures = 0;  ///< never in JSON

  nlohmann::json toJson() const;
  /// "http://address:port" + path; empty when the address cannot be one.
  std::string url(const std::string& path) const;
  /// Whether the address and port can be some. A port of 0 is not known yet: a sub that leaves its
  /// port to the system tells it with its first sign of life.
  bool hasPlace() const;
};

/// Puts what `body` carries into the record. Values of a wrong type throw nlohmann's exception.
void readSubController(const nlohmann::json& body, SubControllerInfo& sub);

struct EdgeRateLimits {
  std::int32_t global_rpm = 0;
  std::int32_t per_ip_rpm = 0;
  std::int32_t per_key_rpm = 0;
};

/// A planned public entry point in front of routers.
struct EdgeNodeInfo {
  std::string id;
  std::string name;
  std::string address;
  std::int32_t http_port = 80;
  std::int32_t https_port = 443;
  bool tls_enabled = false;
  std::vector<std::string> router_urls;
  std::string status = "unknown";
  std::uint64_t requests_total = 0;
  double requests_per_minute = 0;
  double avg_latency_ms = 0;

  // For the installer; never in JSON.
  std::string tls_cert_path;
  std::string tls_key_path;
  EdgeRateLimits rate_limits;

  nlohmann::json toJson() const;
};

/// The same for an edge node.
void readEdgeNode(const nlohmann::json& body, EdgeNodeInfo& edge);

/// What a sub knows of its master.
struct MasterControllerRef {
  std::string id;
  std::string address;
  std::int32_t port = 0;
  bool connected = false;

  nlohmann::json toJson() const;
};

/// An order of the master to one sub-controller.
struct MasterCommand {
  std::string id;
  std::string type;
  nlohmann::json payload = nlohmann::json::object();
  std::string status = "pending";
  nlohmann::json result;
  std::string error_message;

  platform::WallTime issued_at;  ///< on the master; not in toJson

  nlohmann::json toJson() const;
};

/// What came of a command.
struct CommandResult {
  std::string command_id;
  std::string sub_id;
  bool success = false;
  nlohmann::json result;
  std::string error;
  platform::WallTime time;

  /// {"command_id", "sub_id", "success", "result", "error", "timestamp", "completed": true}
  nlohmann::json toJson() const;
};

struct HierarchyConfig {
  ControllerRole role = ControllerRole::kMaster;
  std::string controller_id;
  std::string master_address;  ///< of a sub
  std::int32_t master_port = 8880;
  std::string master_api_key;  ///< travels with every call of the hierarchy
  std::vector<SubControllerInfo> initial_sub_controllers;
  std::vector<EdgeNodeInfo> initial_edge_nodes;
  std::int32_t heartbeat_interval_ms = 30000;
  std::int32_t max_failures = 3;  ///< failed probes in a row that make a sub offline

  // What a sub tells about itself.
  std::string name;
  std::string address;
  std::int32_t port = 0;
  std::string region;
  std::string tier_id;
};

/// Reads "host:port", "http://host:port" or "host" into the master's address and port; without a
/// port it is 8880. Throws std::invalid_argument when it is none of these.
void readMasterUrl(const std::string& url, HierarchyConfig& config);

}  // namespace tavrel::controller
