#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "config/backend_profile_manager.h"
#include "config/local_backends.h"
#include "config/node_config.h"
#include "controller/routes/families.h"
#include "platform/files.h"
#include "platform/random.h"
#include "support/json_client.h"
#include "support/mock_peer.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

struct ConfigServer {
  std::filesystem::path home =
      std::filesystem::temp_directory_path() / ("tavrel-" + platform::randomHex(8));
  std::string file = home / "deep" / "backend_profiles.json";
  net::HttpClient http;
  config::NodeConfigs configs;
  config::BackendProfileManager profiles{file};
  TestServer server{[this](api::RouteBook& routes) {
    controller::addConfigRoutes(routes, configs);
    controller::addBackendRoutes(routes, profiles, http);
  }};
  JsonClient client{server};

  ~ConfigServer() { std::filesystem::remove_all(home); }

  json saved() const { return json::parse(platform::readFile(file).value_or("")); }
};

TEST(ConfigRoutes, EveryStoreIsANewVersion) {
  ConfigServer server;
  const auto set = [&](json body) {
    body["node_id"] = "n1";
    return server.client.post("/api/v1/config/set", body).json.at("config_id").get<std::string>();
  };
  const std::string first = set({{"node_type", "edge"}, {"config", {{"a", 1}}}, {"author", "ann"}});
  EXPECT_EQ(first, "v1-015abd7f");  // SHA-256 of {"a":1}
  EXPECT_EQ(set({{"config", {{"a", 1}}}}), "v2-015abd7f");
  EXPECT_EQ(set({{"node_type", "boat"}, {"change_summary", "none"}}), "v3-015abd7f");

  const json pulled = server.client.get("/api/v1/config/pull?node_id=n1").json;
  EXPECT_EQ(pulled["config"], json({{"a", 1}}));
  EXPECT_EQ(pulled["systemd_unit"], "tavrel-edge.service");
  EXPECT_EQ(pulled["metadata"]["author"], "ann");
  EXPECT_EQ(pulled["metadata"]["change_summary"], "none");
  EXPECT_EQ(pulled["metadata"]["hash"].get<std::string>().size(), 64U);
  EXPECT_EQ(pulled["success"], true);
  EXPECT_EQ(pulled["restart_required"], false);

  const json list = server.client.get("/api/v1/config/list").json;
  EXPECT_EQ(list["count"], 1);
  EXPECT_EQ(list["configs"][0]["node_type"], "edge");
  EXPECT_EQ(list["configs"][0]["version"], 3);
  EXPECT_EQ(list["configs"][0]["dirty"], false);

  // A body with a wrong type changes nothing.
  EXPECT_EQ(server.client.post("/api/v1/config/set", {{"node_id", "n1"}, {"author", 5}}).status,
            500);
  EXPECT_EQ(server.client.get("/api/v1/config/list").json, list);

  EXPECT_EQ(server.client.del("/api/v1/config/n1").json,
            json({{"status", "deleted"}, {"node_id", "n1"}}));
  EXPECT_EQ(server.client.del("/api/v1/config/n1").error(), "No config found for node: n1");
  EXPECT_EQ(set({}), "v1-74234e98");  // of null
}

TEST(ConfigRoutes, BadRequestsAreRefused) {
  ConfigServer server;
  EXPECT_EQ(server.client.postText("/api/v1/config/set", "{").error(), "Invalid JSON body");
  EXPECT_EQ(server.client.post("/api/v1/config/set", {{"x", 1}}).error(), "Missing node_id");
  EXPECT_EQ(server.client.get("/api/v1/config/pull").error(), "Missing node_id parameter");
  const JsonReply unknown = server.client.get("/api/v1/config/pull?node_id=x");
  EXPECT_EQ(unknown.refusal(), "404 No config found for node: x");
}

TEST(BackendRoutes, ProfilesAreCreatedReplacedAndRemoved) {
  ConfigServer server;
  const JsonReply made = server.client.post(
      "/api/v1/backends/profiles",
      json::parse(R"({"name": "a", "type": "grok", "api_key": "sk-1", "priority": 7,
          "aws_credentials": {"access_key": "AK", "secret_key": "SK", "session_token": "ST"},
          "azure_settings": {"deployment_id": "d"}})"));
  EXPECT_EQ(made.status, 201);
  EXPECT_EQ(made.json["type"], "xai");
  EXPECT_EQ(made.json["has_api_key"], true);
  EXPECT_EQ(made.json["aws_credentials"], json({{"access_key", "***REDACTED***"},
                                                {"region", "us-east-1"},
                                                {"has_session_token", true}}));
  EXPECT_EQ(made.json["azure_settings"]["api_version"], "2024-02-15-preview");
  const std::string id = made.json["id"];
  EXPECT_EQ(id.substr(0, 3), "bp-");
  EXPECT_EQ(id.size(), 15U);

  const json stored = server.saved();
  EXPECT_EQ(stored["profiles"][0]["api_key"], "sk-1");
  EXPECT_EQ(stored["profiles"][0]["aws_credentials"]["secret_key"], "SK");
  struct stat status {};
  ASSERT_EQ(::stat(server.file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);

  httplib::Client client = server.server.client();
  const auto put = [&](const std::string& path, const char* body) {
    return client.Put(("/api/v1/backends/profiles/" + path).c_str(), body, "application/json");
  };
  const json replaced = json::parse(put(id, R"({"id":"other","name":"b"})")->body);
  EXPECT_EQ(replaced["id"], id);
  EXPECT_EQ(replaced["priority"], 100);
  EXPECT_EQ(replaced["type"], "unknown");
  EXPECT_EQ(replaced["has_api_key"], false);
  EXPECT_EQ(replaced["created_at"], made.json["created_at"]);
  EXPECT_EQ(put("no", "{}")->status, 404);
  EXPECT_EQ(put(id, "{")->status, 400);
  EXPECT_EQ(put(id, R"({"name":1})")->status, 400);

  EXPECT_EQ(server.client.del("/api/v1/backends/profiles/" + id).json,
            json({{"success", true}, {"deleted", id}}));
  EXPECT_EQ(server.client.get("/api/v1/backends/profiles/" + id).error(),
            "Profile not found: " + id);
  EXPECT_TRUE(server.saved()["profiles"].empty());
}

TEST(BackendRoutes, ChangesAtOnceAreAllInTheFile) {
  ConfigServer server;
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 4; ++caller) {
    callers.emplace_back([&server, caller] {
      JsonClient client(server.server);
      for (int i = 0; i < 10; ++i) {
        const std::string id = std::to_string(caller) + '-' + std::to_string(i);
        client.post("/api/v1/backends/profiles", {{"id", id}});
        if (i % 2 == 1) client.del("/api/v1/backends/profiles/" + id);
        client.post("/api/v1/backends/assign", {{"worker_id", id}});
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(server.saved()["profiles"].size(), 20U);
  EXPECT_EQ(server.saved()["worker_assignments"].size(), 40U);
  // Nothing half-written is left beside it.
  const std::filesystem::directory_iterator folder(server.home / "deep");
  EXPECT_EQ(std::distance(begin(folder), end(folder)), 1);
}

TEST(BackendRoutes, AWorkerGetsItsProfilesAndSecretsOnlyWithAKey) {
  ConfigServer server;
  for (const json& profile :
       {json{{"id", "low"}, {"priority", 9}, {"api_key", "s"}},
        json{{"id", "off"}, {"enabled", false}}, json{{"id", "first"}, {"priority", 1}}}) {
    server.client.post("/api/v1/backends/profiles", profile);
  }
  const json ids = {"low", "gone", "off", "first"};
  EXPECT_EQ(server.client
                .post("/api/v1/backends/assign",
                      {{"worker_id", "w"}, {"profile_ids", ids}, {"auto_detect_local", true}})
                .json,
            json({{"success", true},
                  {"worker_id", "w"},
                  {"profile_ids", ids},
                  {"auto_detect_local", true}}));
  EXPECT_EQ(server.client.post("/api/v1/backends/assign", {{"x", 1}}).error(),
            "worker_id is required");

  const json found = server.client.get("/api/v1/backends/worker/w?secrets=TRUE").json;
  ASSERT_EQ(found["profiles"].size(), 2U);
  EXPECT_EQ(found["profiles"][0]["id"], "first");
  EXPECT_EQ(found["profiles"][1]["has_api_key"], true);
  EXPECT_FALSE(found["profiles"][1].contains("api_key"));
  EXPECT_EQ(found["auto_detect_local"], true);

  const JsonReply refused = server.client.get("/api/v1/backends/worker/w?secrets=true");
  EXPECT_EQ(refused.refusal(), "403 API key required to retrieve secrets");
  httplib::Client client = server.server.client();
  const auto open = client.Get("/api/v1/backends/worker/w?secrets=true", {{"X-API-Key", "any"}});
  EXPECT_EQ(json::parse(open->body)["profiles"][1]["api_key"], "s");
  EXPECT_EQ(
      server.client.get("/api/v1/backends/worker/none").json,
      json({{"worker_id", "none"}, {"profiles", json::array()}, {"auto_detect_local", false}}));

  // Another manager can take over what the file has.
  config::BackendProfileManager other("/nowhere");
  EXPECT_TRUE(other.loadProfiles(server.file));
  EXPECT_EQ(other.getProfilesForWorker("w").size(), 2U);
  EXPECT_EQ(other.getProfile("low")->api_key, "s");
  EXPECT_FALSE(other.loadProfiles("/nowhere"));
}

TEST(BackendRoutes, TellsTheKindsItKnows) {
  ConfigServer server;
  const json types = server.client.get("/api/v1/backends/types").json["types"];
  ASSERT_EQ(types.size(), 21U);
  EXPECT_EQ(types[0]["default_port"], 11434);
  EXPECT_EQ(types[9]["requires_deployment_id"], true);
  EXPECT_EQ(types[20]["category"], "generic");
  for (const json& type : types) {
    EXPECT_NE(config::backendTypeFromString(type["type"].get<std::string>()),
              config::BackendType::kUnknown);
  }
}

TEST(LocalBackends, WhoeverAnswersLikeAKindIsThatKind) {
  MockPeer peer([](MockConnection& connection) {
    const std::string request = connection.readRequest();
    if (request.find("/health") != std::string::npos) {
      connection.send(httpAnswer(200, R"({"version":"1.2"})", "Connection: close\r\n"));
    } else if (request.find("/models") != std::string::npos) {
      connection.send(
          httpAnswer(200, R"({"models":[{"name":"m"},{"name":3},7]})", "Connection: close\r\n"));
    } else {
      connection.send(httpAnswer(503, "", "Connection: close\r\n"));
    }
    connection.close();
  });
  const RefusingPort nobody;
  net::HttpClient http;
  const std::string url = peer.url("");
  const auto found = config::detectLocalBackends(
      http,
      {{config::BackendType::kOllama, url, "/health", "/models"},
       {config::BackendType::kTgi, url, "/starting", "/models"},
       {config::BackendType::kMlx, "http://127.0.0.1:" + std::to_string(nobody.port()), "/", "/"},
       {config::BackendType::kVllm, url, "/health", "/health"}});
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0].toJson(), json({{"type", "ollama"},
                                     {"url", url},
                                     {"version", "1.2"},
                                     {"available_models", {"m"}},
                                     {"healthy", true}}));
  EXPECT_EQ(found[1].type, config::BackendType::kVllm);
  EXPECT_TRUE(found[1].available_models.empty());
}

}  // namespace
}  // namespace tavrel::test
