#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "api/auth_middleware.h"
#include "controller/routes/account_access.h"
#include "controller/routes/families.h"
#include "support/json_client.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using test::JsonReply;

constexpr char kAdminKey[] = "root-key-0123456789";

api::AuthConfig guardedConfig() {
  api::AuthConfig config;
  config.admin_key = kAdminKey;
  config.public_paths = api::publicPaths();
  return config;
}

class AuthRoutesTest : public testing::Test {
 protected:
  explicit AuthRoutesTest(const api::AuthConfig& config = guardedConfig())
      : server_([&](api::HttpServer& server) {
          auth_.initialize(config);
          server.use(auth_.getMiddleware());
          server.guardStreams(auth_.getStreamGuard());
          api::RouteBook book;
          addAuthRoutes(book, auth_, AccountAccess{nullptr, "admin"});
          book.postStream("/api/v1/chat/completions/stream",
                          [](api::Context&, const api::Request&, api::StreamWriter& writer) {
                            writer.write("data: hello\n\n");
                          });
          server.addRoutes(book);
        }) {}

  JsonReply get(const std::string& path, const std::string& key = kAdminKey) {
    return client_.send("GET", path, "", {{"X-API-Key", key}});
  }
  JsonReply post(const std::string& path, const std::string& body,
                 const std::string& key = kAdminKey) {
    return client_.send("POST", path, body, {{"X-API-Key", key}});
  }
  static std::string refusal(const JsonReply& reply) { return reply.refusal(); }

  api::AuthMiddleware auth_;
  test::TestServer server_;
  test::JsonClient client_{server_};
};

TEST_F(AuthRoutesTest, AKeyIsMadeUsedListedAndRevoked) {
  const auto made =
      post("/api/v1/auth/keys",
           R"({"name": "ci", "type": "service", "roles": ["admin"], "permissions": 7})");
  ASSERT_EQ(made.status, 201);
  const json answer = made.json;
  const std::string key = answer.at("key");
  EXPECT_EQ(answer.at("message"), "Store this key securely - it cannot be retrieved later");
  EXPECT_EQ(answer.size(), 4U);

  const json listed = get("/api/v1/auth/keys", key).json;
  ASSERT_EQ(listed.at("keys").size(), 2U);
  EXPECT_EQ(listed["keys"][0].at("key_prefix"), "root-key-012...");
  EXPECT_EQ(listed["keys"][1], json({{"name", "ci"},
                                     {"type", "service"},
                                     {"roles", {"admin"}},
                                     {"permissions", json::array()},
                                     {"revoked", false},
                                     {"request_count", 1},
                                     {"key_prefix", key.substr(0, 12) + "..."}}));
  EXPECT_EQ(listed.at("stats").at("authenticated_requests"), 2);
  EXPECT_EQ(listed.dump().find(key), std::string::npos);

  EXPECT_EQ(post("/api/v1/auth/keys/revoke", json({{"key", key}}).dump()).body,
            R"({"status":"revoked"})");
  EXPECT_EQ(refusal(get("/api/v1/auth/keys", key)), "401 Invalid API key");
  EXPECT_EQ(get("/api/v1/auth/stats").json.at("api_keys_count"), 2);
}

TEST_F(AuthRoutesTest, AShortKeyIsNeverShownWhole) {
  for (const std::string key : {"k", "abcdefghijkl", "a\xC3\xA9\xFFz"}) {
    api::ApiKeyEntry entry;
    entry.key = key;
    auth_.addApiKey(entry);
  }
  std::vector<std::string> shown;
  const json listed = get("/api/v1/auth/keys").json;
  for (const json& key : listed.at("keys")) {
    shown.push_back(key.at("key_prefix"));
  }
  EXPECT_THAT(shown, testing::ElementsAre("abcdef...", "a\xC3\xA9\xEF\xBF\xBD...", "...",
                                          "root-key-012..."));
}

TEST_F(AuthRoutesTest, RefusalsNameWhatIsMissing) {
  const std::string viewer = auth_.generateApiKey("v", "client", {"viewer"}, {"*"});
  const char* keys = "/api/v1/auth/keys";
  const char* revoke = "/api/v1/auth/keys/revoke";
  const char* worker = "/api/v1/auth/tokens/worker";
  EXPECT_EQ(refusal(get(keys, viewer)), "403 Admin access required");
  EXPECT_EQ(refusal(post(keys, "{}", viewer)), "403 Admin access required");
  EXPECT_EQ(refusal(post(revoke, "{}", viewer)), "403 Admin access required");
  for (const char* path : {keys, revoke, worker}) {
    EXPECT_EQ(refusal(post(path, "{")), "400 Invalid JSON body");
  }
  for (const char* member : {"name", "type", "key", "worker_id"}) {
    for (const json& wrong : {json(nullptr), json(7), json::array({"x"}), json::object()}) {
      json body = {{"name", "x"}, {"key", viewer}, {"worker_id", "w"}};
      body[member] = wrong;
      const std::string name = member;
      const char* path = name == "key" ? revoke : name == "worker_id" ? worker : keys;
      EXPECT_EQ(refusal(post(path, body.dump())), "400 Invalid JSON body") << body;
      EXPECT_EQ(refusal(post(path, wrong.is_object() ? "[]" : wrong.dump())),
                "400 Invalid JSON body");
    }
  }
  EXPECT_EQ(auth_.listApiKeys().size(), 2U);
  EXPECT_EQ(refusal(post(keys, "{}")), "400 'name' is required");
  EXPECT_EQ(refusal(post(revoke, "{}")), "400 'key' is required");
  EXPECT_EQ(refusal(post(revoke, R"({"key": "x"})")), "404 API key not found");
  EXPECT_EQ(refusal(post(worker, "{}")), "400 'worker_id' is required");
}

TEST_F(AuthRoutesTest, AWorkerTokenIsABearerCredential) {
  const json answer = post("/api/v1/auth/tokens/worker", R"({"worker_id": "w1"})").json;
  EXPECT_EQ(answer.at("expires_in_seconds"), 86400);
  EXPECT_EQ(answer.at("type"), "worker");
  EXPECT_EQ(answer.at("worker_id"), "w1");
  const std::string token = answer.at("token");
  EXPECT_THAT(auth_.validateToken(token)->identity.permissions,
              testing::ElementsAre("inference", "heartbeat", "status"));
  const JsonReply stats =
      client_.send("GET", "/api/v1/auth/stats", "", {{"Authorization", "Bearer " + token}});
  EXPECT_EQ(stats.status, 200);
  EXPECT_EQ(stats.json.at("active_tokens_count"), 1);
}

TEST_F(AuthRoutesTest, InfoTellsWhoIsCalling) {
  EXPECT_EQ(get("/api/v1/auth/mode", "").body, R"({"auth_mode":"admin"})");
  EXPECT_EQ(get("/api/v1/auth/setup-status", "").body, R"({"first_time_setup":false})");
  EXPECT_EQ(get("/api/v1/auth/info", "wrong").body,
            R"({"auth_mode":"admin","authenticated":false})");
  EXPECT_EQ(get("/api/v1/auth/info").json,
            json::parse(R"({"auth_mode": "admin", "authenticated": true, "user": {"id":
                "Admin Key", "type": "admin", "roles": ["admin", "operator", "viewer"],
                "permissions": ["*"]}})"));
}

class GuestRoutesTest : public AuthRoutesTest {
 protected:
  GuestRoutesTest()
      : AuthRoutesTest([] {
          api::AuthConfig config = guardedConfig();
          config.require_auth = false;
          config.guest_requests_per_minute = 2;
          return config;
        }()) {}
};

TEST_F(GuestRoutesTest, GuestsAreToldWhenToComeBack) {
  EXPECT_EQ(refusal(post("/api/v1/auth/tokens/worker", "{}")), "401 Authentication required");
  EXPECT_EQ(refusal(get("/api/v1/auth/keys")), "403 Admin access required");
  const auto refused = get("/api/v1/auth/stats");
  EXPECT_EQ(refusal(refused), "429 Rate limit exceeded");
  EXPECT_GT(std::stoi(refused.header("Retry-After")), 50);
}

class ProtectedStreamTest : public AuthRoutesTest {
 protected:
  ProtectedStreamTest()
      : AuthRoutesTest([] {
          api::AuthConfig config = guardedConfig();
          config.protect_inference = true;
          return config;
        }()) {}
};

TEST_F(ProtectedStreamTest, AStreamNeedsTheKeyBeforeItBegins) {
  const auto refused = post("/api/v1/chat/completions/stream", "{}", "wrong");
  EXPECT_EQ(refusal(refused), "401 Invalid API key");
  EXPECT_EQ(refused.header("Content-Type"), "application/json");
  EXPECT_EQ(refused.header("Access-Control-Allow-Origin"), "*");
  const auto streamed = post("/api/v1/chat/completions/stream", "{}");
  EXPECT_EQ(streamed.status, 200);
  EXPECT_EQ(streamed.body, "data: hello\n\n");
}

}  // namespace
}  // namespace tavrel::controller
