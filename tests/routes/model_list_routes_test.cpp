#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "inference/model_catalogue.h"
#include "routes/chat_services.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

struct ModelLists {
  worker::WorkerRegistry workers;
  net::HttpClient http;
  inference::LocalModelServer local;
  std::vector<inference::RemoteCatalogue> remotes;
  inference::ModelCatalogue models{workers, local, http, [this] { return remotes; }};
  TestServer server{
      [this](api::RouteBook& routes) { controller::addModelListRoutes(routes, models); }};

  explicit ModelLists(const std::string& local_url) : local(http, local_url) {}

  void addWorker(const std::string& id, std::vector<std::string> installed, bool online = true) {
    worker::WorkerInfo info = onlineWorker(id, 0, std::move(installed));
    if (!online) info.status = worker::WorkerStatus::kOffline;
    workers.registerWorker(std::move(info), false);
  }
  json get(const std::string& path) const {
    return json::parse(server.client().Get(path.c_str())->body);
  }
};

const char* const kLocalModels =
    R"({"models":[{"name":"z","size":12},{"name":"a"},{"size":3},"x"]})";

TEST(ModelListRoutes, TheOpenAiListHasTheClustersModelsElseTheLocalOnes) {
  MockPeer local(answeringByPath({{"/api/tags", httpAnswer(200, kLocalModels)}}));
  ModelLists lists(local.url(""));
  EXPECT_EQ(lists.get("/v1/models"), json::parse(R"({"object":"list","data":[
      {"id":"a","object":"model","owned_by":"local"},
      {"id":"z","object":"model","owned_by":"local"}]})"));
  lists.addWorker("w2", {"b", "a"});
  lists.addWorker("w1", {"b"});
  lists.addWorker("off", {"c"}, false);
  EXPECT_EQ(lists.get("/v1/models"), json::parse(R"({"object":"list","data":[
      {"id":"a","object":"model","owned_by":"cluster"},
      {"id":"b","object":"model","owned_by":"cluster"}]})"));
}

TEST(ModelListRoutes, TheDetailedListGathersEveryModelOnce) {
  MockPeer local(answeringByPath({{"/api/tags", httpAnswer(200, kLocalModels)}}));
  MockPeer router(answeringByPath(
      {{"GET /api/v1/models?scope=own ",
        httpAnswer(200, R"({"models":[{"id":"r","size":5},{"name":"a"},{"id":7},null]})")}}));
  MockPeer broken(MockPeer::answeringOnce(httpAnswer(200, "<html>")));
  MockPeer registry(MockPeer::answeringOnce(
      httpAnswer(200, R"([{"id":"g","name":"a"},{"id":"h","name":"x"},{"id":"i","name":5},
                          {"id":"","name":""},{"name":"z","size":1},{"name":"r"}])")));
  ModelLists lists(local.url(""));
  lists.addWorker("w2", {"a"});
  lists.addWorker("w1", {"a", "a"});
  lists.remotes = {{registry.url("/models"), "registry", "registry", true},
                   {broken.url(""), "cluster", "peer", false},
                   {router.url("/api/v1/models?scope=own"), "cluster", "router", false}};
  EXPECT_EQ(lists.get("/api/v1/models"), json::parse(R"({"object":"list","count":5,"models":[
      {"id":"a","name":"a","object":"model","owned_by":"cluster","source":"worker",
       "workers":["w1","w2"],"worker_count":2},
      {"id":"r","name":"r","object":"model","owned_by":"cluster","source":"router","size":5},
      {"id":"z","name":"z","object":"model","owned_by":"local","source":"local","worker":"local",
       "size":12},
      {"id":"x","name":"x","object":"model","owned_by":"registry","source":"registry"},
      {"id":"i","name":"i","object":"model","owned_by":"registry","source":"registry"}]})"));

  // Two controllers that list each other must not ask in circles.
  EXPECT_EQ(lists.get("/api/v1/models?scope=own")["count"], 2);
  EXPECT_EQ(router.connections(), 1U);
}

TEST(ModelListRoutes, NodesThatDoNotAnswerHoldTheListUpForAMoment) {
  UnansweringPort silent;
  MockPeer hanging([](MockConnection& connection) { connection.readRequest(); });
  ModelLists lists("http://127.0.0.1:" + std::to_string(silent.port()));
  lists.addWorker("w", {"a"});
  for (int i = 0; i < 40; ++i)
    lists.remotes.push_back({hanging.url(""), "cluster", "router", false});
  const auto start = platform::steadyNow();
  EXPECT_EQ(lists.get("/api/v1/models")["count"], 1);
  EXPECT_LT(platform::millisecondsSince(start), 10'000);
}

}  // namespace
}  // namespace tavrel::test
