#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cluster/router_registry.h"
#include "config/node_config.h"
#include "controller/controller_identity.h"
#include "controller/routes/families.h"
#include "events/event_stream_service.h"
#include "metrics/metrics_data_point.h"
#include "metrics/metrics_history.h"
#include "net/worker_client.h"
#include "pipeline/pipeline_coordinator.h"
#include "support/json_client.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using test::JsonReply;
using testing::HasSubstr;

class WorkerRoutes : public testing::Test {
 protected:
  WorkerRoutes() { history_.initialize(60, 10); }

  JsonReply registerWorker(const std::string& id, const std::string& name) {
    return client_.post("/api/v1/workers/register",
                        {{"worker_id", id},
                         {"worker_name", name},
                         {"ip_address", "10.0.0.1"},
                         {"capabilities", {{"available_backends", {"vllm"}}}}});
  }
  JsonReply heartbeat(const std::string& id, const json& body) {
    return client_.post("/api/v1/workers/" + id + "/heartbeat", body);
  }

  const ControllerIdentity self_{"id", "name"};
  worker::WorkerRegistry workers_;
  worker::TypedWorkerRegistries typed_;
  cluster::RouterRegistry routers_;
  events::EventStreamService events_;
  metrics::MetricsHistory history_;
  config::NodeConfigs configs_;
  net::HttpClient http_;
  net::WorkerClient worker_client_{http_};
  pipeline::PipelineCoordinator pipelines_{worker_client_, workers_, [] { return ""; }};
  std::vector<std::string> refreshed_;
  test::TestServer server_{[this](api::RouteBook& book) {
    addWorkerRoutes(book, workers_, routers_, events_, history_, configs_, pipelines_,
                    [this](const std::string& id) { refreshed_.push_back(id); });
    addStatusRoutes(book, self_, workers_, routers_, typed_, nullptr);
    addRouterRoutes(book, routers_);
  }};
  test::JsonClient client_{server_};
};

TEST_F(WorkerRoutes, RegistrationIsStoredPrintedAndAnnounced) {
  testing::internal::CaptureStdout();
  const JsonReply reply = registerWorker("w1", "rig");
  registerWorker("w2", "rig");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[Workers] Registered worker: rig (w1) from 10.0.0.1\n"
            "[Workers] Removing stale worker: w1\n"
            "[Workers] Registered worker: rig (w2) from 10.0.0.1\n");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, R"({"status":"registered","worker_id":"w1"})");
  const auto events = events_.getRecentEvents(10);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_THAT(events[1]->sse(), HasSubstr("worker_online"));
  EXPECT_THAT(events[1]->sse(), HasSubstr(R"({"backends":["vllm"],"ip":"10.0.0.1","name":"rig"})"));
}

TEST_F(WorkerRoutes, ListGetDiscoverAndDelete) {
  EXPECT_EQ(client_.get("/api/v1/workers").body, R"({"count":0,"workers":[]})");
  registerWorker("b", "1");
  registerWorker("a", "2");
  const JsonReply list = client_.get("/api/v1/workers");
  EXPECT_EQ(list.json["count"], 2);
  ASSERT_EQ(list.json["workers"].size(), 2u);
  EXPECT_EQ(list.json["workers"][0]["worker_id"], "a");
  EXPECT_EQ(client_.get("/api/v1/workers/a").json, list.json["workers"][0]);
  EXPECT_EQ(client_.post("/api/v1/workers/discover", json::object()).body,
            R"({"discovered":2,"status":"ok"})");

  testing::internal::CaptureStdout();
  EXPECT_EQ(client_.del("/api/v1/workers/a").body, R"({"status":"removed"})");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Workers] Removed worker: a\n");
  for (const JsonReply& reply :
       {client_.del("/api/v1/workers/a"), client_.get("/api/v1/workers/a")}) {
    EXPECT_EQ(reply.refusal(), "404 Worker not found");
  }
}

TEST_F(WorkerRoutes, AComponentIsLinkedOnlyWhenItsAddressIsOne) {
  const auto url_for = [&](const json& address, int port) {
    client_.post(
        "/api/v1/workers/register",
        {{"worker_id", "w"}, {"ip_address", address}, {"hostname", "rig"}, {"port", port}});
    return client_.get("/api/v1/components").json["components"][0]["url"];
  };
  EXPECT_EQ(url_for("fd00::1", 8090), "http://[fd00::1]:8090");
  EXPECT_EQ(url_for("", 8090), "http://rig:8090");
  EXPECT_EQ(url_for("10.0.0.1/?", 8090), "");
  EXPECT_EQ(url_for("10.0.0.1", 65536), "");
}

TEST_F(WorkerRoutes, HeartbeatRefreshesTheWorkerAndItsHistory) {
  registerWorker("w", "rig");
  EXPECT_EQ(heartbeat("w", json::object()).body, R"({"status":"ok"})");
  EXPECT_FALSE(history_.getLatestWorkerMetrics("w").has_value());
  heartbeat("w", json::parse(R"({"installed_models": ["m"],
    "metrics": {"cpu": {"usage_percent": 50, "cores": 4}, "memory": {"total": 200, "used": 50},
     "system": {"load_average": [1, 2, 3]},
     "gpus": [{"memory_total": 10, "memory_used": 1, "utilization": 20, "temperature": 60},
              {"memory_total": 10, "memory_used": 3, "utilization": 40, "temperature": 50}]}})"));
  const auto point = history_.getLatestWorkerMetrics("w");
  ASSERT_TRUE(point.has_value());
  EXPECT_EQ(point->cpu_usage, 50);
  EXPECT_EQ(point->memory_usage_percent, 25);
  EXPECT_EQ(point->load_15m, 3);
  EXPECT_EQ(point->gpu_count, 2);
  EXPECT_EQ(point->gpu_usage, 30);
  EXPECT_EQ(point->gpu_memory_used, 4u);
  EXPECT_EQ(point->gpu_temperature, 60);
  EXPECT_TRUE(workers_.modelAvailable("m"));
}

TEST_F(WorkerRoutes, HeartbeatOfAnUnknownWorkerRegistersIt) {
  registerWorker("old", "rig");
  testing::internal::CaptureStdout();
  heartbeat("new", {{"worker_name", "rig"},
                    {"ip_address", "10.0.0.2"},
                    {"port", 9},
                    {"capabilities", {{"installed_models", {"m"}}}}});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[Workers] Removing stale worker: old\n"
            "[Workers] Registered worker: rig (new) from 10.0.0.2\n");
  EXPECT_EQ(workers_.find("new")->port, 9);
  EXPECT_EQ(workers_.find("new")->status, worker::WorkerStatus::kOnline);
  EXPECT_TRUE(workers_.modelAvailable("m"));
  EXPECT_EQ(events_.getRecentEvents(10).size(), 2u);
  // Without a name nobody is displaced; by a registration everybody without a name is.
  heartbeat("n1", json::object());
  heartbeat("n2", json::object());
  EXPECT_EQ(workers_.size(), 3u);
  registerWorker("n3", "");
  EXPECT_EQ(workers_.size(), 2u);
}

TEST_F(WorkerRoutes, BadBodiesAreRefusedAndChangeNothing) {
  registerWorker("w", "rig");
  const worker::WorkerPtr before = workers_.find("w");
  for (const char* path : {"/api/v1/workers/register", "/api/v1/workers/w/heartbeat",
                           "/api/v1/cluster/nodes/heartbeat"}) {
    const JsonReply reply = client_.postText(path, "{");
    EXPECT_EQ(reply.refusal(), "400 Invalid JSON body") << path;
  }
  const JsonReply no_id = client_.post("/api/v1/workers/register", {{"port", "x"}});
  EXPECT_EQ(no_id.refusal(), "400 worker_id is required");
  EXPECT_EQ(client_.post("/api/v1/cluster/nodes/heartbeat", {{"type", "router"}}).error(),
            "id is required");

  const JsonReply raised = heartbeat("w", {{"backend_type", "x"}, {"running_models", 1}});
  EXPECT_EQ(raised.status, 500);
  EXPECT_EQ(raised.body, "");
  EXPECT_EQ(workers_.find("w"), before);
  EXPECT_EQ(heartbeat("%FF", json::object()).status, 400);
  EXPECT_EQ(heartbeat("fresh", {{"metrics", 1}}).status, 500);
  EXPECT_EQ(workers_.size(), 1u);
}

TEST_F(WorkerRoutes, NodeHeartbeatReachesNodeAndRouter) {
  routers_.heartbeat("r", json::object(), platform::WallTime{});
  const JsonReply reply = client_.post("/api/v1/cluster/nodes/heartbeat",
                                       {{"id", "r"}, {"type", "router"}, {"version", "4.1.0"}});
  EXPECT_EQ(reply.body, R"({"node_id":"r","success":true,"type":"router","version":"4.1.0"})");
  EXPECT_GT(routers_.find("r")->last_heartbeat, platform::WallTime{});
  client_.post("/api/v1/cluster/nodes/heartbeat", {{"id", "n"}});
  EXPECT_EQ(refreshed_, (std::vector<std::string>{"r", "n"}));
  EXPECT_EQ(routers_.size(), 1u);
}

TEST_F(WorkerRoutes, RoutersComeAndGoWithTheirRules) {
  testing::internal::CaptureStdout();
  const JsonReply added = client_.post(
      "/api/v1/routers/add",
      {{"address", "10.0.0.9:8081"}, {"ai_mode", "advisory"}, {"decision_timeout_ms", 700}});
  EXPECT_EQ(added.json["success"], true);
  const std::string id = added.json["id"];
  const std::string path = "/api/v1/routers/" + id;
  const JsonReply rules = client_.post(path + "/rules", {{"rules", {{{"name", "r"}}}}});
  EXPECT_EQ(rules.body, R"({"rules_count":1,"success":true})");
  EXPECT_EQ(client_.post("/api/v1/routers/r2/heartbeat", {{"hostname", "h"}}).body,
            R"({"router_id":"r2","success":true})");
  client_.post("/api/v1/routers/r2/heartbeat", json::object());

  const JsonReply list = client_.get("/api/v1/routers");
  EXPECT_EQ(list.json["count"], 2);
  EXPECT_EQ(list.json["routers"][0]["status"], "healthy");
  EXPECT_EQ(list.json["routers"][0]["hostname"], "h");
  EXPECT_EQ(list.json["routers"][1]["ai_mode"], "advisory");
  EXPECT_EQ(list.json["routers"][1]["llm_model"], "llama3.2:1b");
  const JsonReply kept = client_.get(path + "/rules");
  EXPECT_EQ(kept.json["router_id"], id);
  EXPECT_THAT(std::string(kept.json["rules"][0]["id"]), testing::StartsWith("rule-"));
  EXPECT_EQ(client_.post("/api/v1/routers/remove", {{"id", id}}).body, R"({"success":true})");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[Routers] Added router: 10.0.0.9:8081 with AI mode: advisory\n"
            "[Routers] Updated 1 rules for router: " +
                id +
                "\n"
                "[Routers] Registered new router: r2 (h)\n"
                "[Routers] Removed router: " +
                id + "\n");
}

TEST_F(WorkerRoutes, WhatCannotBeDoneWithARouterIsRefused) {
  const auto refused = [&](const std::string& path, const json& body) {
    const JsonReply reply = client_.post("/api/v1/routers/" + path, body);
    return std::to_string(reply.status) + " " + reply.error();
  };
  routers_.heartbeat("r", json::object(), platform::WallTime{});
  EXPECT_EQ(refused("add", json::object()), "400 address is required");
  EXPECT_EQ(refused("add", {{"address", "a"}, {"ai_mode", "full"}}),
            "400 Invalid mode. Use: none, advisory, or autonomous");
  EXPECT_EQ(refused("remove", json::object()), "400 id is required");
  EXPECT_EQ(refused("remove", {{"id", "x"}}), "404 Router not found");
  EXPECT_EQ(refused("x/rules", {{"rules", json::array()}}), "404 Router not found");
  EXPECT_EQ(refused("r/rules", json::object()), "400 rules array is required");
  EXPECT_EQ(client_.get("/api/v1/routers/x/rules").error(), "Router not found");
  for (const char* path : {"add", "remove", "r/rules", "r/heartbeat"}) {
    EXPECT_EQ(client_.postText(std::string("/api/v1/routers/") + path, "").error(),
              "Invalid JSON body");
  }
}

TEST_F(WorkerRoutes, AHeartbeatTellsOfAConfigurationThatWaits) {
  registerWorker("w?", "other");
  configs_.set("w?", {{"config", {{"threads", 4}}}}, platform::wallNow());
  const std::string expected = configs_.configId("w?");
  EXPECT_EQ(heartbeat("w%3F", {{"config_id", "v0"}}).json,
            json({{"status", "ok"},
                  {"config_update_required", true},
                  {"expected_config_id", expected},
                  {"config_pull_url", "/api/v1/config/pull?node_id=w%3F"},
                  {"restart_required", false}}));
  EXPECT_EQ(heartbeat("w%3F", {{"config_id", expected}}).body, R"({"status":"ok"})");
  EXPECT_EQ(heartbeat("w%3F", json::object()).body, R"({"status":"ok"})");
}

}  // namespace
}  // namespace tavrel::controller
