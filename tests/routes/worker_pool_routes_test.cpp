#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <stop_token>
#include <thread>

#include "api/route_book.h"
#include "cluster/load_balancer.h"
#include "cluster/task_executor.h"
#include "cluster/worker_pool.h"
#include "controller/routes/families.h"
#include "net/http_client.h"
#include "support/json_client.h"
#include "support/mock_peer.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

struct WorkerPoolRoutes : testing::Test {
  explicit WorkerPoolRoutes(bool with_pool = true)
      : server([&](api::RouteBook& book) {
          controller::addWorkerPoolRoutes(book, with_pool ? &balancer : nullptr,
                                          with_pool ? &pool : nullptr, executor);
        }) {
    pool.start(1);
  }
  json execute(const json& task) { return client.post("/worker/execute", task).json; }

  std::stop_source programs;
  net::HttpClient http;
  cluster::HttpClusterTransport transport{http, ""};
  cluster::NodeRegistry registry;
  cluster::LoadBalancer balancer{registry, cluster::LoadBalanceStrategy::kLeastLoad};
  cluster::TaskExecutor executor{http, programs.get_token()};
  cluster::WorkerPool pool{registry, balancer, transport};
  TestServer server;
  JsonClient client{server};
};

TEST_F(WorkerPoolRoutes, ATaskGoesFromTheQueueToANodesShellAndItsResultBack) {
  cluster::NodeInfo self;
  self.id = "self";
  self.address = "127.0.0.1";
  self.port = server.port();
  self.type = cluster::NodeType::kWorker;
  self.status = cluster::NodeStatus::kHealthy;
  const json waiting =
      client
          .post("/api/v1/cluster/workers/submit",
                {{"type", "bash"}, {"payload", {{"command", "printf hi"}}}, {"priority", 3}})
          .json;
  const std::string id = waiting["task_id"];
  const json listed = client.get("/api/v1/cluster/workers/tasks").json["tasks"];
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]["task_id"], id);
  EXPECT_EQ(listed[0]["priority"], 3);
  EXPECT_EQ(listed[0]["status"], "pending");

  registry.registerNode(self);
  json task;
  for (int i = 0; i < 200 && task["status"] != "completed"; ++i) {
    task = client.get("/api/v1/cluster/workers/tasks/" + id).json;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(task["result"]["stdout"], "hi");
  EXPECT_EQ(task["node_id"], "self");
  EXPECT_EQ(client.get("/api/v1/cluster/workers/stats").json["total_completed"], 1);
  EXPECT_EQ(client.get("/api/v1/cluster/loadbalancer/stats").json["strategy"], 2);
  EXPECT_EQ(client.get("/api/v1/cluster/workers/tasks/unknown").status, 404);
  EXPECT_EQ(client.postText("/api/v1/cluster/workers/submit", "{").error(), "Invalid JSON body");
}

TEST_F(WorkerPoolRoutes, CommandsTellTheirOutputAndStatus) {
  EXPECT_EQ(execute({{"type", "shell"}, {"params", {{"command", "echo a; echo b >&2; exit 4"}}}}),
            json::parse(R"({"success": false, "result": "a\n", "exit_code": 4,
                "stdout": "a\n", "stderr": ""})"));
  const json late = execute(
      {{"type", "bash"}, {"params", {{"command", "echo x; sleep 60"}}}, {"timeout_ms", 100}});
  EXPECT_EQ(late["success"], false);
  EXPECT_EQ(late["stdout"], "x\n");
  EXPECT_EQ(late["error"], "Command timed out after 100 ms");
  EXPECT_EQ(execute({{"type", "bash"}, {"payload", {{"command", "printf '\\377'"}}}})["stdout"],
            "\xEF\xBF\xBD");
  const JsonReply refused = client.post("/worker/execute", {{"type", "bash"}});
  EXPECT_EQ(refused.refusal(), "400 command is required for bash task");
  EXPECT_EQ(client.postText("/worker/execute", "{").error(), "Invalid JSON body");
  programs.request_stop();
  EXPECT_EQ(execute({{"type", "bash"}, {"params", {{"command", "sleep 60"}}}})["success"], false);
}

TEST_F(WorkerPoolRoutes, HealthModelsAndUnknownTypesAreAnswered) {
  EXPECT_EQ(execute({{"type", "health_check"}}), json::parse(R"({"success": true,
      "result": {"status": "healthy"}, "exit_code": 0, "stdout": "Health check passed",
      "stderr": ""})"));
  EXPECT_EQ(execute({{"type", "dance"}})["stdout"], "Task type 'dance' acknowledged");
  const MockPeer models(
      MockPeer::answeringOnce(httpAnswer(200, R"({"models":[{"name":"a"},{"name":"b"}]})")));
  const json list =
      execute({{"type", "model_list"}, {"params", {{"ollama_url", models.url("/")}}}});
  EXPECT_EQ(list["stdout"], "Model list retrieved (2 models)");
  EXPECT_EQ(list["result"]["models"][1]["name"], "b");
  EXPECT_NE(models.requests().at(0).find("GET /api/tags "), std::string::npos);
  const json file = execute({{"type", "model_list"}, {"params", {{"ollama_url", "file:///etc"}}}});
  EXPECT_EQ(file["success"], false);
}

struct WithoutWorkerPool : WorkerPoolRoutes {
  WithoutWorkerPool() : WorkerPoolRoutes(false) {}
};

TEST_F(WithoutWorkerPool, TheRoutesSaySo) {
  for (const char* path : {"/api/v1/cluster/workers/stats", "/api/v1/cluster/workers/tasks",
                           "/api/v1/cluster/workers/tasks/x"}) {
    EXPECT_EQ(client.get(path).refusal(), "503 Worker pool not initialized") << path;
  }
  EXPECT_EQ(client.post("/api/v1/cluster/workers/submit", json::object()).error(),
            "Worker pool not initialized");
  EXPECT_EQ(client.get("/api/v1/cluster/loadbalancer/stats").error(),
            "Load balancer not initialized");
  EXPECT_EQ(execute({{"type", "health_check"}})["success"], true);
}

}  // namespace
}  // namespace tavrel::test
