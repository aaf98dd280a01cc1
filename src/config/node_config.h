#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::config {

enum class ConfigNodeType : std::int32_t {
  kController,
  kRouter,
  kWorker,
  kEdge,
  kData,
  kAgent,
  kMedia,
  kComm,
  kScience,
  kTraining,
};

/// "controller", "router" and so on; empty for a text that names none.
std::string configNodeTypeToString(ConfigNodeType type);
std::optional<ConfigNodeType> configNodeTypeFromString(std::string_view text);
/// The system service that runs on a node of this type; "" where the node installs its own.
std::string serviceUnitOf(ConfigNodeType type);

/// 64 lower-case hexadecimal digits of SHA-256.
std::string computeConfigHash(const std::string& text);

/// Which version of a configuration this is, and who made it.
struct ConfigMetadata {
  std::uint32_t version = 0;
  std::string hash;
  std::int64_t timestamp = 0;  ///< seconds since the epoch
  std::string author;
  std::string change_summary;

  /// "v3-9f86d081", or "v0" as long as there is no hash.
  std::string configId() const;
  nlohmann::json toJson() const;
};

/// The configuration of one node. A plain value.
struct NodeConfig {
  std::string node_id;
  ConfigNodeType node_type = ConfigNodeType::kController;
  ConfigMetadata metadata;
  nlohmann::json config;  ///< the node's own affair
  bool dirty = false;     ///< always false: nodes do not report back

  nlohmann::json toListJson() const;
};

/// What a node that pulls its configuration is answered.
struct ConfigPullResponse {
  bool success = false;
  std::string error;
  ConfigMetadata metadata;
  nlohmann::json config;
  std::string systemd_unit;
  bool restart_required = false;
  std::int32_t apply_delay_seconds = 0;

  nlohmann::json toJson() const;
};

/// The configurations of all nodes, by node id. Lives in memory only.
/// Threads: any; mu_ is a leaf lock. Time: callers pass `now`.
class NodeConfigs {
 public:
  /// Takes over what the body has of "node_type", "author", "change_summary" and "config" and
  /// counts the version up. Values of a wrong type throw nlohmann's exception and change nothing.
  /// Returns the new version's id.
  std::string set(const std::string& node_id, const nlohmann::json& body, platform::WallTime now)
      TV_EXCLUDES(mu_);
  std::optional<ConfigPullResponse> pull(const std::string& node_id) const TV_EXCLUDES(mu_);
  /// Which version the node should run with; empty when there is none for it.
  std::string configId(const std::string& node_id) const TV_EXCLUDES(mu_);
  bool remove(const std::string& node_id) TV_EXCLUDES(mu_);
  /// What a list shows of each, in id order.
  nlohmann::json list() const TV_EXCLUDES(mu_);

 private:
  mutable platform::Mutex mu_;
  std::map<std::string, NodeConfig> configs_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::config
