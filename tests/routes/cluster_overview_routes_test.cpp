#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "cluster/cluster_manager.h"
#include "cluster/controller_tiers.h"
#include "cluster/router_registry.h"
#include "controller/routes/families.h"
#include "net/http_client.h"
#include "support/daemons.h"
#include "support/json_client.h"
#include "worker/worker_registry.h"

namespace tavrel::test {
namespace {

using nlohmann::json;
using std::chrono::seconds;
using worker::WorkerKind;

struct ClusterOverviewRoutes : testing::Test {
  void addWorker(json body, worker::WorkerStatus status = worker::WorkerStatus::kOnline) {
    worker::WorkerInfo info = worker::workerFromRegistration(body, platform::wallNow());
    info.status = status;
    workers.registerWorker(std::move(info), true);
  }
  JsonReply get(const std::string& path, const cluster::ClusterManager* manager = nullptr) {
    api::RouteBook book;
    controller::addClusterOverviewRoutes(book, manager, tiers, workers, routers, typed);
    const TestServer server(book);
    return JsonClient(server).get(path);
  }

  worker::WorkerRegistry workers;
  cluster::RouterRegistry routers;
  worker::TypedWorkerRegistries typed;
  net::HttpClient http;
  cluster::HttpControllerTransport calls{http, ""};
  cluster::ControllerTiers tiers{{}, workers, routers, {calls}};
};

TEST_F(ClusterOverviewRoutes, NodesAreThoseOfTheClusterAndThenTheWorkers) {
  addWorker({{"worker_id", "w1"}, {"worker_name", "one"}, {"os", "linux"}, {"port", 9}});
  addWorker({{"worker_id", "w2"}, {"worker_name", "two"}}, worker::WorkerStatus::kDegraded);
  json nodes = get("/api/v1/cluster/nodes").json["nodes"];
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0], (json{{"worker_id", "w1"},
                            {"worker_name", "one"},
                            {"hostname", ""},
                            {"ip_address", ""},
                            {"port", 9},
                            {"type", "worker"},
                            {"status", "online"},
                            {"os", "linux"},
                            {"arch", ""},
                            {"version", ""}}));
  EXPECT_EQ(nodes[1]["status"], "offline");

  cluster::HttpClusterTransport transport(http, "");
  cluster::NodeRegistry registry;
  cluster::ClusterConfig config;
  config.node_id = "self";
  cluster::ClusterManager manager(config, registry, cluster::ClusterEnvironment{transport});
  registry.registerNode(manager.getSelfNode());
  nodes = get("/api/v1/cluster/nodes", &manager).json["nodes"];
  ASSERT_EQ(nodes.size(), 3u);
  EXPECT_EQ(nodes[0]["id"], "self");
}

TEST_F(ClusterOverviewRoutes, StatusCountsEveryKind) {
  addWorker({{"worker_id", "w1"}, {"worker_name", "1"}});
  addWorker({{"worker_id", "w2"}, {"worker_name", "2"}}, worker::WorkerStatus::kBusy);
  routers.heartbeat("r", json::object(), platform::wallNow());
  routers.add({});
  addDaemon(typed, WorkerKind::kData, "d1", "http://a:1", json::object());
  addDaemon(typed, WorkerKind::kTraining, "t1", "http://a:2", json::object(), seconds(100'000));
  const json status = get("/api/v1/cluster/status").json;
  EXPECT_EQ(status["status"], "healthy");
  EXPECT_EQ(status["total_nodes_online"], 4);
  const json& components = status["components"];
  EXPECT_EQ(components.size(), 9u);
  EXPECT_EQ(components["controllers"], (json{{"count", 1}, {"online", 1}}));
  EXPECT_EQ(components["workers"], (json{{"count", 2}, {"online", 1}, {"offline", 1}}));
  EXPECT_EQ(components["routers"], (json{{"count", 2}, {"online", 1}, {"offline", 1}}));
  EXPECT_EQ(components["data_workers"], (json{{"count", 1}, {"online", 1}, {"offline", 0}}));
  EXPECT_EQ(components["training_workers"], (json{{"count", 1}, {"online", 0}, {"offline", 1}}));
}

TEST_F(ClusterOverviewRoutes, ResourcesAreWhatCanRunModelsNow) {
  addWorker({{"worker_id", "local"},
             {"worker_name", "local"},
             {"ip_address", "10.0.0.1"},
             {"port", 80},
             {"capabilities", {{"installed_models", {"chat", "nomic-EMBED-text"}}}}});
  addWorker({{"worker_id", "away"}, {"worker_name", "away"}}, worker::WorkerStatus::kOffline);
  addWorker({{"worker_id", "cloud"}, {"worker_name", "cloud"}, {"backend_type", "groq"}});
  addDaemon(typed, WorkerKind::kNativeInference, "native", "http://n:1",
            {{"loaded_models", {"a"}}, {"available_models", {"a", "b"}}});
  const json resources = get("/api/v1/cluster/resources").json;
  ASSERT_EQ(resources["inference_workers"].size(), 1u);
  EXPECT_EQ(resources["inference_workers"][0]["url"], "http://10.0.0.1:80");
  EXPECT_EQ(resources["inference_workers"][0]["available_models"].size(), 2u);
  ASSERT_EQ(resources["cloud_workers"].size(), 1u);
  EXPECT_EQ(resources["cloud_workers"][0]["backend_type"], "groq");
  ASSERT_EQ(resources["native_inference_workers"].size(), 1u);
  EXPECT_EQ(resources["native_inference_workers"][0]["models"], json{"a"});
  ASSERT_EQ(resources["embedding_providers"].size(), 1u);
  EXPECT_EQ(resources["embedding_providers"][0]["models"], json{"nomic-EMBED-text"});
}

}  // namespace
}  // namespace tavrel::test
