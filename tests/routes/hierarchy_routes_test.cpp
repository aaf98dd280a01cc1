#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "cluster/router_registry.h"
#include "cluster/worker_mirror.h"
#include "controller/hierarchy/command_executor.h"
#include "controller/hierarchy/controller_hierarchy.h"
#include "controller/hierarchy/edge_servers.h"
#include "controller/routes/families.h"
#include "net/http_client.h"
#include "support/json_client.h"
#include "support/mock_peer.h"
#include "support/test_server.h"
#include "worker/worker_registry.h"

namespace tavrel::test {
namespace {

using controller::ControllerHierarchy;
using controller::ControllerRole;
using nlohmann::json;

constexpr const char* kKey = "the master's key";

/// A controller's hierarchy over real HTTP. Its passes are called by the tests.
struct Controller {
  explicit Controller(ControllerRole role, int master_port = 0)
      : transport(http, kKey), hierarchy(config(role, master_port), environment()) {
    hierarchy.initialize();
    api::RouteBook book;
    controller::addHierarchyRoutes(book, hierarchy, installer);
    controller::addEdgeServerRoutes(book, edges);
    book.get("/api/v1/health", [this](auto&, auto& req) {
      probed_with = req.getHeader("X-API-Key");
      return api::Response::ok({{"status", "ok"}});
    });
    book.get("/api/v1/workers", [this](auto&, auto&) {
      return api::Response::ok({{"workers", json::parse(workers.listing().workers)}});
    });
    for (const api::Route& route : book.routes()) server.server().addRoute(route);
  }

  void addWorker(const std::string& id) {
    worker::WorkerInfo worker;
    worker.worker_id = id;
    worker.worker_name = id;
    worker.status = worker::WorkerStatus::kOnline;
    worker.last_heartbeat = platform::wallNow();
    workers.registerWorker(worker, false);
  }

  worker::WorkerRegistry workers;
  cluster::RouterRegistry routers;
  controller::EdgeServers edges;
  std::vector<std::string> installed;
  std::string probed_with;
  controller::EdgeInstaller installer = [this](const controller::EdgeNodeInfo& edge, const json&) {
    installed.push_back(edge.id + " " + edge.address);
    return edge.address != "10.6.6.6";
  };
  TestServer server{api::RouteBook{}};
  net::HttpClient http;
  cluster::HttpControllerTransport transport;
  ControllerHierarchy hierarchy;
  cluster::WorkerMirror mirror{workers, transport};
  JsonClient client{server};

 private:
  controller::HierarchyConfig config(ControllerRole role, int master_port) const {
    controller::HierarchyConfig config;
    config.role = role;
    config.controller_id = role == ControllerRole::kMaster ? "the-master" : "the-sub";
    config.master_address = "127.0.0.1";
    config.master_port = master_port;
    config.address = "127.0.0.1";
    config.port = server.port();
    return config;
  }
  controller::HierarchyEnvironment environment() {
    controller::HierarchyEnvironment env{transport};
    env.counts = [this] { return controller::LocalCounts{workers.size(), routers.size()}; };
    env.print = [](std::string_view) {};
    env.threads = false;
    return env;
  }
};

/// A master and a sub that carries out what it is told.
struct Pair {
  Pair() { started = sub.hierarchy.start(); }
  json order(const std::string& type) {
    const json sent =
        master.client.post("/api/v1/hierarchy/sub-controllers/the-sub/command", {{"type", type}})
            .json;
    return resultOf(sent["command_id"]);
  }
  /// Waits for it.
  json resultOf(const std::string& command_id) {
    const auto deadline = platform::steadyNow() + std::chrono::seconds{10};
    while (platform::steadyNow() < deadline) {
      const JsonReply reply = master.client.get("/api/v1/commands/" + command_id + "/result");
      if (reply.status == 200) return reply.json;
      std::this_thread::sleep_for(std::chrono::milliseconds{2});
    }
    return nullptr;
  }

  Controller master{ControllerRole::kMaster};
  Controller sub{ControllerRole::kSub, master.server.port()};
  controller::CommandExecutor executor{
      sub.hierarchy, controller::localActions(sub.hierarchy, sub.workers, sub.routers, sub.mirror)};
  bool started = false;
};

TEST(HierarchyRoutes, ASubCarriesOutWhatItsMasterOrders) {
  Pair pair;
  ASSERT_TRUE(pair.started);
  EXPECT_EQ(pair.sub.hierarchy.masterRef().id, "the-master");
  pair.sub.addWorker("w1");
  pair.master.hierarchy.checkSubControllerHealth();
  EXPECT_EQ(pair.master.hierarchy.getStatus()["sub_controllers"][0]["status"], 1);
  EXPECT_EQ(pair.sub.probed_with, kKey);

  const json pong = pair.order("ping");
  EXPECT_EQ(pong["success"], true);
  EXPECT_EQ(pong["command_success"], true);
  EXPECT_EQ(pong["completed"], true);
  EXPECT_EQ(pong["sub_id"], "the-sub");
  EXPECT_EQ(pong["result"]["controller_id"], "the-sub");
  EXPECT_EQ(pair.order("list_workers")["result"]["workers"][0]["worker_id"], "w1");
  EXPECT_EQ(pair.order("health_check")["result"]["online_workers"], 1);
  EXPECT_EQ(pair.order("report_status")["result"]["role"], "sub");
  EXPECT_EQ(pair.master.hierarchy.getSubControllers().at(0).worker_count, 1);

  const json deploy = pair.order("deploy_local_worker");
  EXPECT_EQ(deploy["success"], true);
  EXPECT_EQ(deploy["command_success"], false);
  EXPECT_EQ(deploy["error"], "deploy_local_worker is not available on this controller");
  EXPECT_EQ(pair.order("dance")["error"], "Unknown command type: dance");

  pair.master.addWorker("w1");
  pair.master.addWorker("w2");
  EXPECT_EQ(pair.order("mirror_registry")["result"]["workers"], 1);
  EXPECT_NE(pair.sub.workers.find("w2"), nullptr);
  EXPECT_EQ(pair.order("mirror_registry")["result"]["workers"], 1);
}

TEST(HierarchyRoutes, ACommandThatCannotBePushedComesWithTheNextPassAndOnlyOnce) {
  Pair pair;
  controller::SubControllerInfo moved = pair.master.hierarchy.getSubControllers().at(0);
  const RefusingPort nobody;
  moved.port = nobody.port();
  pair.master.hierarchy.registerSubController(moved);
  const json sent =
      pair.master.client
          .post("/api/v1/hierarchy/sub-controllers/the-sub/command", {{"type", "ping"}})
          .json;
  EXPECT_EQ(sent["delivered"], false);
  const std::string id = sent["command_id"];
  for (int i = 0; i < 3; ++i) {  // more than one answer has room for
    controller::MasterCommand large;
    large.id = std::to_string(i);
    large.payload = std::string(controller::CommandBook::kMaxHandedOverBytes / 2 + 1, 'x');
    pair.master.hierarchy.sendCommand("the-sub", large);
  }
  EXPECT_EQ(pair.master.client.get("/api/v1/commands/" + id + "/result").json["error"],
            "not_found");
  pair.sub.hierarchy.commandPass();
  EXPECT_EQ(pair.resultOf(id)["command_success"], true);
  EXPECT_EQ(pair.master.hierarchy.getStatus()["pending_commands"], 0);
  // The heartbeat told where the sub really is.
  EXPECT_EQ(pair.master.hierarchy.getSubControllers().at(0).port, pair.sub.server.port());
}

TEST(HierarchyRoutes, SubControllersAndTheirCallsAreReadOrRefused) {
  Controller master(ControllerRole::kMaster);
  JsonClient& client = master.client;
  const std::string subs = "/api/v1/hierarchy/sub-controllers";
  EXPECT_EQ(client.postText(subs, "{").error(), "Invalid JSON body");
  EXPECT_EQ(client.post(subs, {{"port", 1}}).error(), "address is required");
  EXPECT_EQ(client.post(subs, {{"address", "a/b"}}).error(), "Failed to register sub-controller");
  const std::string id = client.post(subs, {{"address", "127.0.0.1"}, {"port", 1}}).json["id"];
  EXPECT_EQ(id.rfind("sub-", 0), 0u);
  EXPECT_EQ(client.get(subs).json["count"], 1);
  EXPECT_EQ(client.post(subs + "/" + id + "/command", json::object()).error(),
            "command type is required");
  EXPECT_EQ(client.post(subs + "/other/command", {{"type", "ping"}}).status, 500);
  EXPECT_EQ(client.post(subs + "/other/command", {{"type", "ping"}}).error(),
            "Failed to send command");
  EXPECT_EQ(client.del(subs + "/" + id).body, R"({"success":true})");
  EXPECT_EQ(client.del(subs + "/" + id).error(), "Sub-controller not found");

  const json joined =
      client.post("/api/v1/hierarchy/register", {{"id", "s"}, {"status", "online"}}).json;
  EXPECT_EQ(joined,
            (json{{"success", true}, {"master_id", "the-master"}, {"sub_controller_id", "s"}}));
  EXPECT_EQ(client.get(subs).json["sub_controllers"][0]["address"], "127.0.0.1");
  EXPECT_EQ(client.post("/api/v1/hierarchy/heartbeat", {{"id", "s"}}).json["success"], true);
  EXPECT_EQ(client.post("/api/v1/hierarchy/heartbeat", {{"timestamp", 1}}).status, 400);
  EXPECT_EQ(client.get("/api/v1/hierarchy/commands").status, 400);
  EXPECT_EQ(client.post("/api/v1/hierarchy/command/result", {{"success", true}}).error(),
            "command_id is required");
  EXPECT_EQ(client
                .post("/api/v1/hierarchy/command/result",
                      {{"command_id", "c"}, {"success", false}, {"error", nullptr}})
                .json,
            (json{{"success", true}, {"acknowledged", true}, {"command_id", "c"}}));
  EXPECT_EQ(client.get("/api/v1/commands/c/result").json["command_success"], false);
  const JsonReply unknown = client.get("/api/v1/commands/unknown/result");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_EQ(unknown.json["message"], "No result found for command unknown");
  EXPECT_EQ(client.get("/api/v1/hierarchy/status").json["sub_controller_count"], 1);
}

TEST(HierarchyRoutes, ASubRefusesWhatIsTheMasters) {
  Controller sub(ControllerRole::kSub, 1);
  JsonClient& client = sub.client;
  for (const char* path : {"/api/v1/hierarchy/register", "/api/v1/hierarchy/heartbeat",
                           "/api/v1/hierarchy/status", "/api/v1/hierarchy/command/result"}) {
    EXPECT_EQ(client.post(path, json::object()).status, 400) << path;
    EXPECT_EQ(client.post(path, json::object()).error(),
              "This endpoint is for master controller only")
        << path;
  }
  const JsonReply denied = client.post("/api/v1/edges", {{"address", "x"}});
  EXPECT_EQ(denied.status, 403);
  EXPECT_EQ(denied.json,
            (json{{"success", false},
                  {"error", "permission_denied"},
                  {"message", "Operation 'deploy_edge' is not allowed for sub controller"},
                  {"required_role", "master"},
                  {"current_role", "sub"}}));
  EXPECT_EQ(client.post("/api/v1/hierarchy/sub-controllers", json::object()).status, 403);
  EXPECT_EQ(client.del("/api/v1/hierarchy/sub-controllers/x").status, 403);
  EXPECT_EQ(client.post("/api/v1/hierarchy/sub-controllers/x/command", {}).status, 403);

  const std::string push = "/api/v1/hierarchy/command";
  EXPECT_EQ(client.post(push, {{"type", "ping"}}).error(), "id is required");
  EXPECT_EQ(client.post(push, {{"id", "1"}}).error(), "command type is required");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(client.post(push, {{"id", "1"}, {"type", "ping"}}).json["success"], true);
  }
  EXPECT_EQ(client.get("/api/v1/hierarchy/status").json["pending_commands"], 1);
  Controller master(ControllerRole::kMaster);
  EXPECT_EQ(master.client.post(push, {{"id", "1"}, {"type", "ping"}}).status, 400);
}

TEST(HierarchyRoutes, PlannedEdgesAreKeptAndInstalled) {
  Controller master(ControllerRole::kMaster);
  JsonClient& client = master.client;
  EXPECT_EQ(client.post("/api/v1/edges", json::object()).error(), "address is required");
  const json edge = client
                        .post("/api/v1/edges", {{"id", "e"},
                                                {"address", "10.1.1.1"},
                                                {"router_urls", {"http://r"}},
                                                {"rate_limits", {{"global_rpm", 5}}}})
                        .json["edge"];
  EXPECT_EQ(edge["router_urls"][0], "http://r");
  EXPECT_EQ(master.hierarchy.edgeNode("e")->rate_limits.global_rpm, 5);
  EXPECT_EQ(client.post("/api/v1/edges/e/deploy", json::object()).json,
            (json{{"success", true}, {"message", "Edge deployment initiated"}, {"edge_id", "e"}}));
  EXPECT_EQ(client.post("/api/v1/edges/new/deploy", {{"address", "10.6.6.6"}}).error(),
            "Failed to deploy edge node");
  EXPECT_EQ(client.postText("/api/v1/edges/new/deploy", "").error(),
            "address is required for edge deployment");
  EXPECT_THAT(master.installed, ::testing::ElementsAre("e 10.1.1.1", "new 10.6.6.6"));
  EXPECT_EQ(client.del("/api/v1/edges/e").status, 200);
  EXPECT_EQ(client.del("/api/v1/edges/e").error(), "Edge not found");
}

TEST(EdgeServerRoutes, EdgeServersAnnounceThemselves) {
  Controller master(ControllerRole::kMaster);
  JsonClient& client = master.client;
  EXPECT_EQ(client.postText("/api/v1/edges/register", "{").error(), "Invalid JSON body");
  EXPECT_EQ(client.post("/api/v1/edges/register", {{"edge_id", "e"}, {"http_port", 80}}).json,
            (json{{"success", true}, {"edge_id", "e"}, {"status", "registered"}}));
  const std::string named = client.post("/api/v1/edges/register", json::object()).json["edge_id"];
  EXPECT_EQ(named.rfind("edge-", 0), 0u);
  EXPECT_FALSE(client.post("/api/v1/edges/e/heartbeat", {{"metrics", {{"rpm", 3}}}})
                   .json.contains("auto_registered"));
  const json edge = client.get("/api/v1/edges/e").json;
  EXPECT_EQ(edge["metrics"]["rpm"], 3);
  EXPECT_EQ(edge["http_port"], 80);
  EXPECT_EQ(edge["mode"], "single");
  EXPECT_EQ(client.post("/api/v1/edges/new/heartbeat", {{"hostname", "h"}}).json,
            (json{{"status", "ok"}, {"edge_id", "new"}, {"auto_registered", true}}));
  EXPECT_EQ(client.get("/api/v1/edges").json["count"], 3);
  EXPECT_EQ(client.get("/api/v1/edges/unknown").status, 404);
}

TEST(EdgeServerRoutes, AFloodOfEdgesIsBounded) {
  controller::EdgeServers edges;
  const platform::WallTime start = platform::wallNow();
  for (std::size_t i = 0; i <= controller::EdgeServers::kMost; ++i) {
    edges.heartbeat(std::to_string(i), json::object(), start + std::chrono::milliseconds(i));
  }
  EXPECT_EQ(edges.all().size(), controller::EdgeServers::kMost);
  EXPECT_FALSE(edges.find("0"));

  Controller master(ControllerRole::kMaster);
  const json large{{"address", "10.0.0.1"},
                   {"edge_id", "large"},
                   {"router_urls", {std::string(ControllerHierarchy::kMaxEdgeBytes, 'x')}},
                   {"metrics", {{"m", std::string(controller::EdgeServers::kMaxBytes, 'x')}}}};
  for (const char* path : {"/api/v1/edges/register", "/api/v1/edges/large/heartbeat"}) {
    EXPECT_EQ(master.client.post(path, large).status, 413) << path;
  }
  EXPECT_FALSE(master.edges.find("large"));
  EXPECT_EQ(master.client.post("/api/v1/edges", large).error(), "Failed to add edge");
  for (std::size_t i = 0; i < ControllerHierarchy::kMostEdges; ++i) {
    controller::EdgeNodeInfo edge;
    edge.id = std::to_string(i);
    ASSERT_TRUE(master.hierarchy.deployEdge(std::move(edge)));
  }
  EXPECT_EQ(master.client.post("/api/v1/edges", {{"address", "10.0.0.1"}}).error(),
            "Failed to add edge");
  EXPECT_EQ(master.client.post("/api/v1/edges", {{"address", "10.0.0.1"}, {"id", "1"}}).status,
            200);
}

}  // namespace
}  // namespace tavrel::test
