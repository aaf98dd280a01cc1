#include "config/node_config.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/json_fields.h"
#include "platform/sha256.h"

namespace tavrel::config {

using nlohmann::json;
using platform::MutexLock;
using platform::readField;

namespace {

constexpr std::size_t kShownHashDigits = 8;

struct TypeRow {
  const char* text;
  const char* unit;
};

/// In the order of the enumeration.
constexpr std::array<TypeRow, 10> kTypes = {{
    {"controller", "tavrel-controller.service"},
    {"router", "tavrel-router.service"},
    {"worker", "tavrel-workerd.service"},
    {"edge", "tavrel-edge.service"},
    {"data", ""},
    {"agent", ""},
    {"media", ""},
    {"comm", ""},
    {"science", ""},
    {"training", ""},
}};

}  // namespace

std::string configNodeTypeToString(ConfigNodeType type) {
  const auto index = static_cast<std::size_t>(type);
  return index < kTypes.size() ? kTypes[index].text : "unknown";
}

std::optional<ConfigNodeType> configNodeTypeFromString(std::string_view text) {
  const auto row = std::find_if(kTypes.begin(), kTypes.end(),
                                [&](const TypeRow& one) { return text == one.text; });
  if (row == kTypes.end()) return std::nullopt;
  return static_cast<ConfigNodeType>(row - kTypes.begin());
}

std::string serviceUnitOf(ConfigNodeType type) {
  const auto index = static_cast<std::size_t>(type);
  return index < kTypes.size() ? kTypes[index].unit : "";
}

std::string computeConfigHash(const std::string& text) {
  return platform::sha256Hex(text);
}

std::string ConfigMetadata::configId() const {
  const std::string id = "v" + std::to_string(version);
  return hash.empty() ? id : id + '-' + hash.substr(0, kShownHashDigits);
}

json ConfigMetadata::toJson() const {
  return {{"version", version},
          {"hash", hash},
          {"timestamp", timestamp},
          {"author", author},
          {"change_summary", change_summary},
          {"config_id", configId()}};
}

json NodeConfig::toListJson() const {
  return {{"node_id", node_id},
          {"node_type", configNodeTypeToString(node_type)},
          {"config_id", metadata.configId()},
          {"version", metadata.version},
          {"timestamp", metadata.timestamp},
          {"dirty", dirty}};
}

json ConfigPullResponse::toJson() const {
  return {{"success", success},
          {"error", error},
          {"metadata", metadata.toJson()},
          {"config", config},
          {"systemd_unit", systemd_unit},
          {"restart_required", restart_required},
          {"apply_delay_seconds", apply_delay_seconds}};
}

std::string NodeConfigs::set(const std::string& node_id, const json& body, platform::WallTime now) {
  const MutexLock lock(mu_);
  const auto known = configs_.find(node_id);
  NodeConfig changed = known == configs_.end() ? NodeConfig{} : known->second;
  changed.node_id = node_id;
  std::string type;
  readField(body, "node_type", type);
  changed.node_type = configNodeTypeFromString(type).value_or(changed.node_type);
  readField(body, "author", changed.metadata.author);
  readField(body, "change_summary", changed.metadata.change_summary);
  readField(body, "config", changed.config);
  ++changed.metadata.version;
  changed.metadata.timestamp = platform::toEpochSeconds(now);
  changed.metadata.hash = computeConfigHash(changed.config.dump());
  std::string id = changed.metadata.configId();
  configs_[node_id] = std::move(changed);
  return id;
}

std::optional<ConfigPullResponse> NodeConfigs::pull(const std::string& node_id) const {
  const MutexLock lock(mu_);
  const auto known = configs_.find(node_id);
  if (known == configs_.end()) return std::nullopt;
  ConfigPullResponse response;
  response.success = true;
  response.metadata = known->second.metadata;
  response.config = known->second.config;
  response.systemd_unit = serviceUnitOf(known->second.node_type);
  return response;
}

std::string NodeConfigs::configId(const std::string& node_id) const {
  const MutexLock lock(mu_);
  const auto found = configs_.find(node_id);
  return found == configs_.end() ? "" : found->second.metadata.configId();
}

bool NodeConfigs::remove(const std::string& node_id) {
  const MutexLock lock(mu_);
  return configs_.erase(node_id) == 1;
}

json NodeConfigs::list() const {
  const MutexLock lock(mu_);
  json array = json::array();
  for (const auto& [id, config] : configs_) array.push_back(config.toListJson());
  return array;
}

}  // namespace tavrel::config
