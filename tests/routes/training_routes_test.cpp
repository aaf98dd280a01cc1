#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "controller/routes/families.h"
#include "models/model_registry.h"
#include "models/training_jobs.h"
#include "support/daemons.h"
#include "support/json_client.h"
#include "support/messages.h"
#include "support/mock_peer.h"

namespace tavrel::test {
namespace {

using nlohmann::json;
using worker::WorkerKind;

struct StoreServer {
  net::HttpClient http;
  net::WorkerClient client{http};
  worker::TypedWorkerRegistries typed;
  models::ModelRegistry registry{client, typed.of(WorkerKind::kData)};
  models::TrainingJobs jobs{client, typed.of(WorkerKind::kTraining), registry};
  TestServer server{[this](api::RouteBook& routes) {
    controller::addModelRegistryRoutes(routes, registry);
    controller::addTrainingRoutes(routes, jobs);
  }};
  JsonClient api{server};

  void addStore(const std::string& id, const std::string& url, int silent_seconds = 0) {
    addDaemon(typed, WorkerKind::kData, id, url, {{"storage_enabled", true}},
              std::chrono::seconds(silent_seconds));
  }
  void addTrainer(const std::string& id, const std::string& url, int active_jobs,
                  const std::vector<std::string>& backends, int silent_seconds = 0) {
    addDaemon(typed, WorkerKind::kTraining, id, url, {{"backends", backends}},
              std::chrono::seconds(silent_seconds));
    typed.of(WorkerKind::kTraining).update(id, [&](worker::TypedWorkerInfo& info) {
      info.details["active_jobs"] = active_jobs;
    });
  }
};

std::string requestLine(const MockPeer& peer, std::size_t request = 0) {
  const std::string text = peer.requests().at(request);
  return text.substr(0, text.find(" HTTP/1.1"));
}

std::string bodyOf(const MockPeer& peer, std::size_t request = 0) {
  return test::bodyOf(peer.requests().at(request));
}

TEST(ModelRegistryRoutes, ForwardToTheFirstFreshDataWorkerWithStorage) {
  StoreServer server;
  MockPeer store(MockPeer::answering(httpAnswer(207, R"({"models":[]})")));
  addDaemon(server.typed, WorkerKind::kData, "a", "http://127.0.0.1:1", {});
  server.addStore("b", "http://127.0.0.1:1", 121);
  const JsonReply none = server.api.get("/api/v1/model-registry");
  EXPECT_EQ(none.refusal(), "503 No data worker with storage available");

  server.addStore("c", store.url("/"));
  const JsonReply list = server.api.get("/api/v1/model-registry");
  EXPECT_EQ(list.status, 207);
  EXPECT_EQ(list.body, R"({"models":[]})");
  EXPECT_EQ(requestLine(store), "GET /api/v1/models");

  // No id may leave its place in the path.
  server.api.get("/api/v1/model-registry/%2E%2E");
  EXPECT_EQ(requestLine(store, 1), "GET /api/v1/models/%2E%2E");
  server.api.del("/api/v1/model-registry/a%3Fb%20c%25");
  EXPECT_EQ(requestLine(store, 2), "DELETE /api/v1/models/a%3Fb%20c%25");
  EXPECT_EQ(server.api.get("/api/v1/model-registry/").error(), "Model ID required");

  server.api.postText("/api/v1/model-registry/upload",
                      R"({"name":"m","big":12345678901234567890})");
  EXPECT_EQ(requestLine(store, 3), "POST /api/v1/models");
  EXPECT_EQ(bodyOf(store, 3), R"({"name":"m","big":12345678901234567890})");
  EXPECT_EQ(server.api.postText("/api/v1/model-registry/upload", "x").error(), "Invalid JSON body");
}

TEST(ModelRegistryRoutes, PassOnWhateverADataWorkerSays) {
  StoreServer server;
  const auto answered = [&](MockPeer::Script script) {
    MockPeer store(std::move(script));
    server.addStore("s", store.url(""));
    return server.api.get("/api/v1/model-registry");
  };
  EXPECT_EQ(answered(MockPeer::answering(httpAnswer(500, "oh\xff"))).body,
            "{\"raw_response\":\"oh\xEF\xBF\xBD\"}");
  EXPECT_EQ(answered(MockPeer::answering(httpAnswer(200, ""))).body, "{}");
  EXPECT_EQ(answered(MockPeer::answering(httpAnswer(404, "[1]"))).status, 404);
  const JsonReply nothing = answered(MockPeer::answering("HTTP/1.1 204 No Content\r\n\r\n"));
  EXPECT_EQ(nothing.status, 204);
  EXPECT_EQ(nothing.body, "");
  for (const int odd : {304, 600, 999}) {
    const JsonReply refused = answered(MockPeer::answering(httpAnswer(odd, "")));
    EXPECT_EQ(refused.refusal(), "502 Failed to reach data worker") << odd;
  }
  const JsonReply dropped =
      answered([](MockConnection& connection) { connection.readRequest(), connection.reset(); });
  EXPECT_EQ(dropped.refusal(), "502 Failed to reach data worker");
}

TEST(TrainingRoutes, AJobGoesToTheLeastBusyWorkerWithTheBackend) {
  StoreServer server;
  const auto submit = [&](const json& body) {
    return server.api.post("/api/v1/training/jobs", body);
  };
  EXPECT_EQ(submit({{"epochs", 1}}).error(), "No suitable training worker available");
  MockPeer first(MockPeer::answering(httpAnswer(201, R"({"job_id":"j"})")));
  MockPeer second(MockPeer::answering(httpAnswer(202, "queued")));
  server.addTrainer("stale", "http://127.0.0.1:1", 0, {"deepspeed", "mlx"}, 121);
  server.addTrainer("t1", first.url("/"), 2, {"mlx", "axolotl"});
  server.addTrainer("t2", second.url(""), 0, {"axolotl"});
  server.addTrainer("t3", "http://127.0.0.1:1", 0, {"axolotl"});

  const JsonReply text = submit({{"epochs", 1}});
  EXPECT_EQ(text.status, 202);
  EXPECT_EQ(text.json, json({{"raw_response", "queued"}, {"training_worker_id", "t2"}}));
  EXPECT_EQ(requestLine(second), "POST /api/v1/jobs");
  EXPECT_EQ(bodyOf(second), R"({"epochs":1})");

  server.addStore("d", "http://10.1.1.1:8892");
  const JsonReply object = submit({{"backend", "mlx"}});
  EXPECT_EQ(object.status, 201);
  EXPECT_EQ(object.json, json({{"job_id", "j"}, {"training_worker_id", "t1"}}));
  EXPECT_EQ(bodyOf(first), R"({"backend":"mlx","data_worker_url":"http://10.1.1.1:8892"})");

  EXPECT_EQ(submit({{"backend", nullptr}}).json["training_worker_id"], "t2");

  const JsonReply none = submit({{"backend", "deepspeed"}});
  EXPECT_EQ(none.refusal(),
            "503 No suitable training worker available (requested backend: deepspeed)");
  server.addTrainer("t2", second.url(""), 9, {"axolotl"});
  const JsonReply dead = submit({{"backend", "axolotl"}});
  EXPECT_EQ(dead.refusal(), "502 Training worker request failed: Couldn't connect to server");

  MockPeer odd(MockPeer::answering(httpAnswer(600, "{}")));
  server.addTrainer("t4", odd.url(""), 0, {"odd"});
  const JsonReply passed_over = submit({{"backend", "odd"}});
  EXPECT_EQ(passed_over.refusal(), "502 Training worker request failed: HTTP 600");
}

TEST(TrainingRoutes, JobsAreGatheredAndFoundAgain) {
  StoreServer server;
  MockPeer object(MockPeer::answering(httpAnswer(200, R"({"jobs":[{"id":"a"},5]})")));
  MockPeer array(MockPeer::answering(httpAnswer(200, R"([{"id":"b"}])")));
  MockPeer garbage(MockPeer::answering(httpAnswer(200, "<html>")));
  server.addTrainer("1", array.url(""), 0, {});
  server.addTrainer("2", garbage.url(""), 0, {});
  server.addTrainer("3", "http://127.0.0.1:1", 0, {});
  server.addTrainer("4", object.url(""), 0, {});
  EXPECT_EQ(server.api.get("/api/v1/training/jobs").json,
            json::parse(R"({"count":2,"jobs":[{"id":"b","training_worker_id":"1"},
                                              {"id":"a","training_worker_id":"4"}]})"));

  EXPECT_EQ(server.api.get("/api/v1/training/jobs/a%2Fb%3F").status, 404);
  EXPECT_EQ(server.api.get("/api/v1/training/jobs/j").json["training_worker_id"], "4");
  EXPECT_EQ(requestLine(object, 1), "GET /api/v1/jobs/j");
  const JsonReply cancelled = server.api.post("/api/v1/training/jobs/j/cancel", json::object());
  EXPECT_EQ(cancelled.body, R"({"jobs":[{"id":"a"},5]})");
  EXPECT_EQ(requestLine(object, 3), "POST /api/v1/jobs/j/cancel");
  EXPECT_EQ(bodyOf(object, 3), "{}");

  // Without an id nobody is asked.
  EXPECT_EQ(server.api.get("/api/v1/training/jobs/").error(), "Training job not found: ");
  EXPECT_EQ(server.api.post("/api/v1/training/jobs//cancel", json::object()).error(),
            "Training job not found: ");
  EXPECT_EQ(object.requests().size(), 4U);

  // Workers that keep silent are not asked for ever.
  models::TrainingJobs hurried(server.client, server.typed.of(WorkerKind::kTraining),
                               server.registry, std::chrono::milliseconds(-1));
  EXPECT_EQ(hurried.find("j").status, 404);
  EXPECT_EQ(object.requests().size(), 4U);
  EXPECT_EQ(hurried.list(platform::wallNow()).body["count"], 1);

  server.typed.of(WorkerKind::kTraining).remove("4");
  for (const bool cancel : {false, true}) {
    const JsonReply unknown =
        cancel ? server.api.post("/api/v1/training/jobs/j/cancel", json::object())
               : server.api.get("/api/v1/training/jobs/j");
    EXPECT_EQ(unknown.refusal(), "404 Training job not found: j");
  }
}

}  // namespace
}  // namespace tavrel::test
