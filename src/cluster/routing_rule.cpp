#include "cluster/routing_rule.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace tavrel::cluster {

using platform::MutexLock;

nlohmann::json RoutingRule::toJson() const {
  nlohmann::json object = RouterRule::toJson();
  object["target_model"] = target_model;
  object["detect_theme"] = detect_theme;
  return object;
}

void RoutingRules::add(RoutingRule rule) {
  const MutexLock lock(mu_);
  const auto place = std::upper_bound(
      rules_.begin(), rules_.end(), rule,
      [](const RoutingRule& a, const RoutingRule& b) { return a.priority > b.priority; });
  rules_.insert(place, std::move(rule));
}

bool RoutingRules::remove(const std::string& id) {
  const MutexLock lock(mu_);
  return std::erase_if(rules_, [&](const RoutingRule& rule) { return rule.id == id; }) > 0;
}

std::vector<RoutingRule> RoutingRules::all() const {
  const MutexLock lock(mu_);
  return rules_;
}

}  // namespace tavrel::cluster
