#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ai/ai_control.h"
#include "ai/theme_detector.h"
#include "cluster/routing_rule.h"
#include "controller/routes/families.h"
#include "support/json_client.h"
#include "support/mock_peer.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

struct ThemeServer {
  net::HttpClient http;
  ai::AiControl control{http};
  ai::LazyThemeDetector detector{http};
  cluster::RoutingRules rules;
  TestServer server{[this](api::RouteBook& routes) {
    controller::addThemeRoutes(routes, detector, control);
    controller::addRoutingRuleRoutes(routes, rules, detector);
  }};
  JsonClient client{server};
};

TEST(ThemeRoutes, ThemesAreListedAddedAndDeleted) {
  ThemeServer server;
  for (const char* path : {"/api/v1/themes/delete", "/api/v1/themes/save"}) {
    const JsonReply early = server.client.post(path, {{"name", "x"}, {"path", "x"}});
    EXPECT_EQ(early.refusal(), "400 Theme detector not initialized");
  }
  EXPECT_FALSE(server.client.get("/api/v1/routing/stats").json.contains("theme_stats"));
  const JsonReply list = server.client.get("/api/v1/themes");
  EXPECT_EQ(list.json["count"], 7);
  EXPECT_EQ(list.json["themes"][0]["name"], "code");
  EXPECT_EQ(list.json["themes"][0]["keyword_threshold"], 0.1);
  EXPECT_EQ(list.json["stats"]["llm_fallback_threshold"], 0.6);

  EXPECT_EQ(server.client.post("/api/v1/themes", {{"name", "boats"}, {"keywords", {"keel"}}}).json,
            json({{"success", true}, {"theme", "boats"}}));
  const JsonReply found =
      server.client.post("/api/v1/themes/detect", {{"content", "A keel"}, {"use_llm", false}});
  EXPECT_EQ(found.json["theme"], "boats");
  EXPECT_EQ(found.json["confidence"], 1.0);
  EXPECT_EQ(found.json["matched_keywords"], json({"keel"}));
  EXPECT_FALSE(found.json.contains("specializations"));  // only for those who ask
  EXPECT_EQ(server.client
                .post("/api/v1/themes/detect", {{"content", "Docker behind nginx, nginx"},
                                                {"use_llm", false},
                                                {"specializations", true}})
                .json["specializations"],
            json({"nginx", "docker"}));
  EXPECT_EQ(server.client.post("/api/v1/themes/delete", {{"name", "never was"}}).json,
            json({{"success", true}, {"deleted", "never was"}}));
  EXPECT_EQ(server.client.get("/api/v1/routing/stats").json["theme_stats"]["total_detections"], 2);
}

TEST(ThemeRoutes, OnlyADetectorMadeForDetectionLearnsOfTheModel) {
  MockPeer model(
      MockPeer::answering(httpAnswer(200, R"({"response":"THEME: code\nCONFIDENCE: 1"})")));
  cluster::AIControlConfig config;
  config.mode = cluster::AIControlMode::kAdvisory;
  config.ollama_url = model.url("");
  config.decision_timeout_ms = 5000;
  {
    ThemeServer server;
    server.control.configure(config);
    const json asked = server.client.post("/api/v1/themes/detect", {{"content", "a poem"}}).json;
    EXPECT_EQ(asked["method"], "llm") << "the keywords say little";
    EXPECT_EQ(asked["theme"], "code");
    EXPECT_NE(model.requests().at(0).find(R"(\"\"\"a poem\"\"\")"), std::string::npos);
  }
  ThemeServer server;
  server.control.configure(config);
  server.client.get("/api/v1/themes");
  EXPECT_EQ(server.client.post("/api/v1/themes/detect", {{"content", "?"}}).json["method"],
            "llm_failed");
}

TEST(ThemeRoutes, BadRequestsAreRefused) {
  ThemeServer server;
  server.client.get("/api/v1/themes");
  const auto refused = [&](const char* path, const char* body, const char* text, int status = 400) {
    const JsonReply reply = server.client.postText(path, body);
    EXPECT_EQ(reply.status, status) << path << ' ' << body;
    EXPECT_EQ(reply.error(), text) << path << ' ' << body;
  };
  for (const char* path :
       {"/api/v1/themes", "/api/v1/themes/delete", "/api/v1/themes/detect", "/api/v1/themes/load",
        "/api/v1/themes/save", "/api/v1/routing/rules", "/api/v1/routing/rules/delete"}) {
    refused(path, "{", "Invalid JSON body");
    EXPECT_EQ(server.client.postText(path, "[1]").status, 500) << path;
  }
  refused("/api/v1/themes", "{}", "Theme name is required");
  refused("/api/v1/themes/detect", "{}", "Content is required");
  refused("/api/v1/themes/load", "{}", "Path is required");
  refused("/api/v1/themes/save", "{}", "Path is required");
  refused("/api/v1/routing/rules", "{}", "Rule name is required");
  refused("/api/v1/routing/rules/delete", "{}", "Rule ID is required");
  refused("/api/v1/routing/rules/delete", R"({"id":"no"})", "Rule not found", 404);
  EXPECT_EQ(server.client.post("/api/v1/themes/load", {{"path", "/no/such"}}).json["success"],
            false);
  const std::string cut_off = testing::TempDir() + "tavrel-themes" + '\0' + ".json";
  EXPECT_EQ(server.client.post("/api/v1/themes/save", {{"path", cut_off}}).json["success"], false);
}

TEST(RoutingRuleRoutes, RulesAreKeptByPriority) {
  ThemeServer server;
  const auto add = [&](const json& body) {
    return server.client.post("/api/v1/routing/rules", body).json.at("rule_id");
  };
  const std::string made = add({{"name", "low"}, {"target_worker", "w1"}, {"theme", "legal"}});
  EXPECT_EQ(made.size(), 13U);
  EXPECT_EQ(add({{"name", "high"}, {"id", "r"}, {"priority", 5}, {"condition", nullptr}}), "r");
  add({{"name", "again"},
       {"id", "r"},
       {"detect_theme", true},
       {"target_node", "n"},
       {"target_worker", "w"}});
  const json list = server.client.get("/api/v1/routing/rules").json;
  EXPECT_EQ(list["count"], 3);
  EXPECT_EQ(list["rules"][0]["name"], "high");
  EXPECT_EQ(list["rules"][1], json({{"id", made},
                                    {"name", "low"},
                                    {"condition", "theme=legal"},
                                    {"target_capability", ""},
                                    {"target_node", "w1"},
                                    {"target_model", ""},
                                    {"priority", 0},
                                    {"enabled", true},
                                    {"detect_theme", false}}));
  EXPECT_EQ(list["rules"][2]["target_node"], "n");
  EXPECT_EQ(server.client.post("/api/v1/routing/rules/delete", {{"id", "r"}}).json,
            json({{"success", true}}));
  EXPECT_EQ(server.client.get("/api/v1/routing/rules").json["count"], 1);
}

}  // namespace
}  // namespace tavrel::test
