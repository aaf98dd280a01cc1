#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ai/moe_router.h"
#include "controller/routes/families.h"
#include "support/json_client.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

struct MoeServer {
  ai::MoeRouter experts;
  TestServer server{[this](api::RouteBook& routes) { controller::addMoeRoutes(routes, experts); }};
  JsonClient client{server};
};

TEST(MoeRoutes, ExpertsAreAddedMatchedAndRemoved) {
  MoeServer server;
  EXPECT_EQ(server.client.get("/api/v1/moe/config").body,
            R"({"default_expert":"","enabled":false,"experts":[],"router_model":""})");
  const std::string stored = R"({"categories":["dev"],"description":"","enabled":true,)"
                             R"("id":"code","keywords":["python"],"model":"coder"})";
  EXPECT_EQ(
      server.client
          .postText("/api/v1/moe/experts",
                    R"({"id":"code","model":"coder","keywords":["python"],"categories":["dev"]})")
          .body,
      stored);
  EXPECT_EQ(server.client.postText("/api/v1/moe/route", R"({"query":"python"})").body,
            R"({"default_expert":"","reason":"MoE routing is disabled","routed":false})");
  EXPECT_EQ(
      server.client.postText("/api/v1/moe/config", R"({"enabled":true})").body,
      R"({"default_expert":"","enabled":true,"experts":[)" + stored + R"(],"router_model":""})");
  EXPECT_EQ(server.client.postText("/api/v1/moe/route", R"({"query":"Fix my Python bug"})").body,
            R"({"expert_id":"code","model":"coder","query_preview":"Fix my Python bug",)"
            R"("routed":true,"score":1})");
  EXPECT_EQ(server.client.del("/api/v1/moe/experts/code").body, R"({"status":"removed"})");
  EXPECT_EQ(server.client.del("/api/v1/moe/experts/code").status, 404);
}

TEST(MoeRoutes, BadRequestsAreRefused) {
  MoeServer server;
  const auto expect = [&](const char* path, const char* body, const std::string& text) {
    EXPECT_EQ(server.client.postText(path, body).refusal(), "400 " + text) << path << body;
  };
  for (const char* path : {"/api/v1/moe/config", "/api/v1/moe/experts", "/api/v1/moe/route"}) {
    expect(path, "{", "Invalid JSON body");
  }
  expect("/api/v1/moe/experts", R"({"id":"x"})", "id and model are required");
  expect("/api/v1/moe/experts", R"({"model":"x"})", "id and model are required");
  expect("/api/v1/moe/route", "{}", "query is required");
  EXPECT_EQ(server.client.postText("/api/v1/moe/experts", R"({"id":1,"model":"x"})").status, 500);
  EXPECT_EQ(server.client.get("/api/v1/moe/config").json["experts"].size(), 0U);
}

}  // namespace
}  // namespace tavrel::test
