#include "cluster/router_registry.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace tavrel::cluster {
namespace {

using nlohmann::json;
using std::chrono::seconds;

const platform::WallTime kFirstSeen{seconds{1'700'000'000}};

TEST(RouterRegistry, HeartbeatRegistersAndRefreshes) {
  RouterRegistry routers;
  const auto first = routers.heartbeat(
      "r", {{"hostname", "h"}, {"address", "10.0.0.1"}, {"port", 1e300}, {"version", "1"}},
      kFirstSeen);
  EXPECT_TRUE(first.registered);
  EXPECT_EQ(first.router.status, NodeStatus::kHealthy);
  EXPECT_EQ(first.router.port, std::numeric_limits<std::int32_t>::max());

  const auto second = routers.heartbeat("r", {{"port", 81}}, kFirstSeen + seconds{5});
  EXPECT_FALSE(second.registered);
  EXPECT_EQ(second.router.hostname, "h");
  EXPECT_EQ(routers.find("r")->baseUrl(), "http://10.0.0.1:81");
  EXPECT_EQ(routers.find("r")->toJson()["last_heartbeat"], 1'700'000'005);

  EXPECT_THROW(routers.heartbeat("r", {{"hostname", "new"}, {"port", "x"}}, kFirstSeen),
               json::exception);
  EXPECT_THROW(routers.heartbeat("q", {{"version", 1}}, kFirstSeen), json::exception);
  EXPECT_EQ(routers.find("r")->hostname, "h");
  EXPECT_EQ(routers.size(), 1u);

  EXPECT_TRUE(routers.touch("r", kFirstSeen + seconds{9}));
  EXPECT_EQ(routers.find("r")->last_heartbeat, kFirstSeen + seconds{9});
  EXPECT_FALSE(routers.touch("q", kFirstSeen));
}

TEST(RouterRegistry, AFloodOfRoutersIsBounded) {
  RouterRegistry routers;
  RouterInfo large;
  large.address = std::string(RouterRegistry::kMaxTextBytes + 1, 'x');
  EXPECT_FALSE(routers.add(large));
  EXPECT_TRUE(routers.heartbeat("r", {{"hostname", large.address}}, kFirstSeen).refused);
  EXPECT_EQ(routers.size(), 0u);
  for (std::size_t i = 0; i < RouterRegistry::kMostRouters; ++i) {
    routers.heartbeat(std::to_string(i), json::object(), kFirstSeen);
  }
  EXPECT_TRUE(routers.heartbeat("one more", json::object(), kFirstSeen).refused);
  EXPECT_FALSE(routers.add({}));
  EXPECT_FALSE(routers.heartbeat("1", {{"port", 9}}, kFirstSeen).refused);
  EXPECT_EQ(routers.size(), RouterRegistry::kMostRouters);
}

TEST(RouterRegistry, AddedRouterKeepsItsSettingsThroughHeartbeats) {
  RouterRegistry routers;
  RouterInfo described;
  described.address = "10.0.0.2:9000";
  described.ai_control.mode = AIControlMode::kAdvisory;
  const RouterInfo added = *routers.add(described);
  EXPECT_EQ(added.id.substr(0, 4), "rtr-");
  EXPECT_NE(routers.add(described)->id, added.id);
  EXPECT_EQ(added.toJson()["status"], "starting");
  EXPECT_EQ(added.toJson()["llm_model"], "llama3.2:1b");
  EXPECT_EQ(added.baseUrl(), "http://10.0.0.2:9000");
  EXPECT_FALSE(routers.firstHealthy().has_value());

  const auto rules = routerRulesFrom(json::parse(R"([{"id": "own", "name": "n"}, {"priority": 3,
    "enabled": false, "condition": "c", "target_capability": "t", "target_node": "w"}])"));
  ASSERT_TRUE(routers.setRules(added.id, rules));
  EXPECT_FALSE(routers.setRules("unknown", rules));
  routers.heartbeat(added.id, json::object(), kFirstSeen);
  const RouterInfo router = *routers.firstHealthy();
  EXPECT_EQ(router.id, added.id);
  EXPECT_EQ(router.ai_control.mode, AIControlMode::kAdvisory);
  ASSERT_EQ(router.rules.size(), 2u);
  EXPECT_EQ(router.rules[0].id, "own");
  EXPECT_TRUE(router.rules[0].enabled);
  EXPECT_EQ(router.rules[1].id.substr(0, 5), "rule-");
  EXPECT_EQ(router.rules[1].toJson()["target_node"], "w");
  EXPECT_EQ(routers.healthyCount(), 1u);

  EXPECT_TRUE(routers.remove(added.id));
  EXPECT_FALSE(routers.remove(added.id));
}

}  // namespace
}  // namespace tavrel::cluster
