#include "cluster/router_registry.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/json_fields.h"
#include "platform/random.h"

namespace tavrel::cluster {

using nlohmann::json;
using platform::MutexLock;
using platform::readField;

namespace {

constexpr std::size_t kIdDigits = 8;

void readDescription(const json& body, RouterInfo& router) {
  readField(body, "hostname", router.hostname);
  readField(body, "address", router.address);
  readField(body, "port", router.port);
  readField(body, "version", router.version);
}

std::size_t textBytes(const RouterInfo& router) {
  return router.id.size() + router.hostname.size() + router.address.size() + router.version.size() +
         router.ai_control.model.size();
}

}  // namespace

json RouterInfo::toJson() const {
  return {{"id", id},
          {"hostname", hostname},
          {"address", address},
          {"port", port},
          {"version", version},
          {"status", nodeStatusToString(status)},
          {"ai_mode", aiControlModeToString(ai_control.mode)},
          {"llm_model", ai_control.model},
          {"decision_timeout_ms", ai_control.decision_timeout_ms},
          {"rules", platform::jsonArray(rules)},
          {"last_heartbeat", platform::toEpochSeconds(last_heartbeat)}};
}

std::string RouterInfo::baseUrl() const {
  if (address.empty()) return "";
  if (port <= 0) return "http://" + address;
  const bool bare_ipv6 = std::count(address.begin(), address.end(), ':') > 1 && address[0] != '[';
  return "http://" + (bare_ipv6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

std::vector<RouterRule> routerRulesFrom(const json& rules) {
  std::vector<RouterRule> result;
  for (const json& value : rules.get_ref<const json::array_t&>()) {
    RouterRule rule;
    readField(value, "id", rule.id);
    readField(value, "name", rule.name);
    readField(value, "condition", rule.condition);
    readField(value, "target_capability", rule.target_capability);
    readField(value, "target_node", rule.target_node);
    readField(value, "priority", rule.priority);
    readField(value, "enabled", rule.enabled);
    if (rule.id.empty()) rule.id = "rule-" + platform::randomHex(kIdDigits);
    result.push_back(std::move(rule));
  }
  return result;
}

std::optional<RouterInfo> RouterRegistry::add(RouterInfo router) {
  if (textBytes(router) > kMaxTextBytes) return std::nullopt;
  MutexLock lock(mu_);
  if (routers_.size() >= kMostRouters) return std::nullopt;
  do {
    router.id = "rtr-" + platform::randomHex(kIdDigits);
  } while (!routers_.try_emplace(router.id, router).second);
  return router;
}

RouterRegistry::Heartbeat RouterRegistry::heartbeat(const std::string& id, const json& body,
                                                    platform::WallTime now) {
  RouterInfo checked;
  checked.id = id;
  readDescription(body, checked);  // raises here, while nothing is touched
  if (textBytes(checked) > kMaxTextBytes) return {std::move(checked), false, true};
  MutexLock lock(mu_);
  if (routers_.size() >= kMostRouters && !routers_.contains(id)) {
    return {std::move(checked), false, true};
  }
  const auto [place, added] = routers_.try_emplace(id);
  RouterInfo& router = place->second;
  router.id = id;
  readDescription(body, router);
  router.status = NodeStatus::kHealthy;
  router.last_heartbeat = now;
  return {router, added};
}

bool RouterRegistry::touch(const std::string& id, platform::WallTime now) {
  MutexLock lock(mu_);
  const auto place = routers_.find(id);
  if (place == routers_.end()) return false;
  place->second.last_heartbeat = now;
  return true;
}

bool RouterRegistry::setRules(const std::string& id, std::vector<RouterRule> rules) {
  MutexLock lock(mu_);
  const auto place = routers_.find(id);
  if (place == routers_.end()) return false;
  place->second.rules = std::move(rules);
  return true;
}

bool RouterRegistry::remove(const std::string& id) {
  MutexLock lock(mu_);
  return routers_.erase(id) == 1;
}

std::optional<RouterInfo> RouterRegistry::find(const std::string& id) const {
  MutexLock lock(mu_);
  const auto place = routers_.find(id);
  return place == routers_.end() ? std::nullopt : std::optional(place->second);
}

std::optional<RouterInfo> RouterRegistry::firstHealthy() const {
  MutexLock lock(mu_);
  for (const auto& [id, router] : routers_) {
    if (router.status == NodeStatus::kHealthy) return router;
  }
  return std::nullopt;
}

std::vector<RouterInfo> RouterRegistry::all() const {
  std::vector<RouterInfo> routers;
  MutexLock lock(mu_);
  routers.reserve(routers_.size());
  for (const auto& [id, router] : routers_) routers.push_back(router);
  return routers;
}

std::size_t RouterRegistry::size() const {
  MutexLock lock(mu_);
  return routers_.size();
}

std::size_t RouterRegistry::healthyCount() const {
  MutexLock lock(mu_);
  return static_cast<std::size_t>(
      std::count_if(routers_.begin(), routers_.end(),
                    [](const auto& item) { return item.second.status == NodeStatus::kHealthy; }));
}

}  // namespace tavrel::cluster
