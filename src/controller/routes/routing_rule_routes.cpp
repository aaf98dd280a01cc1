#include <functional>
#include <nlohmann/json.hpp>
#include <utility>

#include "ai/theme_detector.h"
#include "api/route_book.h"
#include "cluster/routing_rule.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

constexpr std::size_t kIdDigits = 8;

/// A theme condition is written "theme=" and the theme's name.
std::string conditionFrom(const json& body) {
  if (body.contains("theme")) return "theme=" + body.at("theme").get<std::string>();
  const json* condition = platform::jsonMember(body, "condition");
  return condition == nullptr || condition->is_null() ? "" : condition->get<std::string>();
}

/// "rule-" and the first digits of a hash over the name and the second.
std::string generateRuleId(const std::string& name) {
  const std::string seed = name + std::to_string(platform::toEpochSeconds(platform::wallNow()));
  return "rule-" + std::to_string(std::hash<std::string>{}(seed)).substr(0, kIdDigits);
}

cluster::RoutingRule ruleFrom(const json& body) {
  cluster::RoutingRule rule;
  platform::readField(body, "name", rule.name);
  rule.id = generateRuleId(rule.name);
  platform::readField(body, "id", rule.id);
  platform::readField(body, "priority", rule.priority);
  platform::readField(body, "enabled", rule.enabled);
  rule.condition = conditionFrom(body);
  platform::readField(body, "target_model", rule.target_model);
  platform::readField(body, "target_worker", rule.target_node);
  platform::readField(body, "target_node", rule.target_node);
  platform::readField(body, "target_capability", rule.target_capability);
  platform::readField(body, "detect_theme", rule.detect_theme);
  return rule;
}

struct RoutingRuleRoutes {
  cluster::RoutingRules& rules;
  const ai::LazyThemeDetector& detector;

  Response list() const { return counted("rules", platform::jsonArray(rules.all())); }

  Response add(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    cluster::RoutingRule rule = ruleFrom(*req.json());
    if (rule.name.empty()) return Response::error(400, "Rule name is required");
    const std::string line =
        "[Routing] Added rule: " + rule.name + " (theme condition: " + rule.condition + ")";
    json reply = {{"success", true}, {"rule_id", rule.id}};
    rules.add(std::move(rule));
    platform::printLine(line);
    return Response::ok(reply);
  }

  Response remove(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    const std::string id = req.json()->value("id", "");
    if (id.empty()) return Response::error(400, "Rule ID is required");
    if (!rules.remove(id)) return Response::error(404, "Rule not found");
    return Response::ok({{"success", true}});
  }

  /// The controller routes nothing by these rules: its counters stay at zero.
  Response stats() const {
    json reply = {{"total_requests", 0},
                  {"routed_by_theme", 0},
                  {"routed_by_rule", 0},
                  {"default_routed", 0}};
    if (const auto themes = detector.get()) reply["theme_stats"] = themes->getStats();
    return Response::ok(reply);
  }
};

}  // namespace

void addRoutingRuleRoutes(api::RouteBook& book, cluster::RoutingRules& rules,
                          const ai::LazyThemeDetector& detector) {
  const RoutingRuleRoutes h{rules, detector};
  book.get("/api/v1/routing/rules", [h](auto&, auto&) { return h.list(); });
  book.post("/api/v1/routing/rules", [h](auto&, auto& req) { return h.add(req); });
  book.post("/api/v1/routing/rules/delete", [h](auto&, auto& req) { return h.remove(req); });
  book.get("/api/v1/routing/stats", [h](auto&, auto&) { return h.stats(); });
}

}  // namespace tavrel::controller
