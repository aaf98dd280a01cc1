#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "controller/routes/families.h"
#include "events/event_stream_service.h"
#include "models/model_distribution.h"
#include "models/model_registry.h"
#include "models/pull_jobs.h"
#include "support/daemons.h"
#include "support/json_client.h"
#include "support/messages.h"
#include "support/mock_peer.h"
#include "support/workers.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"

namespace tavrel::test {
namespace {

using nlohmann::json;
using worker::WorkerStatus;

struct ModelServer {
  MockPeer local{MockPeer::answering(httpAnswer(404, ""))};
  std::string local_url = local.url("");
  net::HttpClient http;
  net::WorkerClient client{http};
  events::EventStreamService events;
  worker::WorkerRegistry workers;
  worker::TypedWorkerRegistries typed;
  models::ModelRegistry registry{client, typed.of(worker::WorkerKind::kData)};
  models::PullJobs jobs{client, events};
  models::ModelDistribution distribution{client, workers, registry};
  TestServer server{[this](api::RouteBook& routes) {
    controller::addModelRoutes(routes, workers, jobs, distribution, client, local_url);
  }};
  JsonClient api{server};

  ~ModelServer() {
    http.cancelAll();
    jobs.stop();
  }

  void addWorker(const std::string& id, int port, WorkerStatus status = WorkerStatus::kOnline,
                 const std::string& type = "inference", const std::string& address = "127.0.0.1") {
    worker::WorkerInfo info = onlineWorker(id, port);
    info.worker_name = "name of " + id;
    info.ip_address = address;
    info.running_models.emplace_back().name = "loaded on " + id;
    info.status = status;
    info.worker_type = type;
    workers.registerWorker(info, false);
  }

  JsonReply pull(const json& body) { return api.post("/api/v1/models/pull", body); }
  JsonReply distribute(const json& body) { return api.post("/api/v1/models/distribute", body); }

  /// The job once it no longer runs.
  json finished(const std::string& id) {
    for (;;) {
      json job = api.get("/api/v1/models/pull-jobs/" + id).json;
      if (job.at("status") != "running") return job;
      std::this_thread::yield();
    }
  }
  /// Whether the event comes within ten seconds: it may be published after the job shows its end.
  bool announced(const std::string& message) const {
    const auto start = platform::steadyNow();
    while (platform::millisecondsSince(start) < 10'000) {
      for (const auto& event : events.getRecentEvents(100)) {
        if (event->message == message) return true;
      }
      std::this_thread::yield();
    }
    return false;
  }
  json pulled(const json& body) { return finished(pull(body).json.at("job_id")); }
};

json bodyOf(const MockPeer& peer, std::size_t request = 0) {
  return json::parse(test::bodyOf(peer.requests().at(request)));
}

TEST(ModelRoutes, APullJobTellsHowEachWorkerFared) {
  ModelServer server;
  MockPeer good(MockPeer::answeringOnce(httpAnswer(200, R"({"status":"success"})")));
  MockPeer text(MockPeer::answeringOnce(httpAnswer(200, "done")));
  MockPeer complains(MockPeer::answeringOnce(httpAnswer(200, R"({"error":"no space"})")));
  MockPeer broken(MockPeer::answeringOnce(httpAnswer(503, "")));
  RefusingPort dead;
  server.addWorker("a", good.port());
  server.addWorker("b", text.port(), WorkerStatus::kOnline, "");
  server.addWorker("c", complains.port(), WorkerStatus::kOnline, "cloud");
  server.addWorker("d", broken.port());
  server.addWorker("e", dead.port());
  server.addWorker("image", good.port(), WorkerStatus::kOnline, "image");
  server.addWorker("off", good.port(), WorkerStatus::kOffline);

  const JsonReply started = server.pull({{"model", "m:7b"}, {"all", true}});
  const std::string id = started.json.at("job_id");
  EXPECT_EQ(id.size(), 13U);
  EXPECT_EQ(started.json, json({{"job_id", id},
                                {"model", "m:7b"},
                                {"status", "running"},
                                {"workers_total", 5},
                                {"message",
                                 "Pull started in background. Check status at "
                                 "/api/v1/models/pull-jobs/" +
                                     id}}));
  json job = server.finished(id);
  EXPECT_GT(job["created_at"], 1'700'000'000);
  job.erase("created_at");
  const auto result = [](const std::string& worker, const char* error) {
    json entry = {{"worker_id", worker}, {"worker_name", "name of " + worker}};
    entry["status"] = *error == '\0' ? "completed" : "error";
    if (*error != '\0') entry["error"] = error;
    return entry;
  };
  EXPECT_EQ(job, json({{"job_id", id},
                       {"model", "m:7b"},
                       {"status", "partial"},
                       {"workers_total", 5},
                       {"workers_completed", 2},
                       {"workers_failed", 3},
                       {"results",
                        {result("a", ""), result("b", ""), result("c", "no space"),
                         result("d", "HTTP 503"), result("e", "Couldn't connect to server")}}}));
  EXPECT_TRUE(good.requests()[0].starts_with("POST /api/v1/models/pull HTTP/1.1\r\n"));
  EXPECT_EQ(bodyOf(good), json({{"model", "m:7b"}}));

  const json list = server.api.get("/api/v1/models/pull-jobs").json;
  EXPECT_EQ(list["count"], 1);
  EXPECT_EQ(list["jobs"][0]["job_id"], id);
  EXPECT_TRUE(server.announced("Pull job " + id + " finished: partial (2/5 succeeded)"));
}

TEST(ModelRoutes, APullJobEndsAsItsWorkersDid) {
  ModelServer server;
  MockPeer good(MockPeer::answering(httpAnswer(200, "{}")));
  MockPeer bad(MockPeer::answering(httpAnswer(500, "")));
  server.addWorker("good", good.port());
  server.addWorker("bad", bad.port());
  const json wanted = {{"model", "m"}, {"workers", {"nobody", "good", "good"}}};
  EXPECT_EQ(server.pulled(wanted)["workers_total"], 1);
  EXPECT_EQ(server.pulled(wanted)["status"], "completed");
  EXPECT_EQ(server.pulled({{"model", "m"}, {"workers", {"bad"}}})["status"], "failed");

  EXPECT_EQ(server.pull({{"model", "m"}, {"workers", {"nobody"}}}).error(),
            "No online inference workers found");
  EXPECT_EQ(server.pull({{"all", true}}).error(), "model is required");
  EXPECT_EQ(server.api.postText("/api/v1/models/pull", "{").error(), "Invalid JSON body");
  const JsonReply unknown = server.api.get("/api/v1/models/pull-jobs/unknown");
  EXPECT_EQ(unknown.refusal(), "404 Pull job not found: unknown");
}

TEST(ModelRoutes, AWorkerWhoseAddressWouldLeadElsewhereIsNotCalled) {
  ModelServer server;
  MockPeer elsewhere(MockPeer::answering(httpAnswer(200, "{}")));
  const std::string port = std::to_string(elsewhere.port());
  server.addWorker("bad", 8090, WorkerStatus::kOnline, "", "127.0.0.1:" + port + "/x?");
  server.addWorker("high", 65536);
  server.addWorker("user", elsewhere.port(), WorkerStatus::kOnline, "", "u:p@127.0.0.1");
  const char* const kText = "worker has no valid address";
  const json job = server.pulled({{"model", "m"}, {"all", true}});
  EXPECT_EQ(job["status"], "failed");
  for (const json& result : job["results"]) EXPECT_EQ(result["error"], kText);
  for (const char* source : {"ollama", "url"}) {
    const json reply =
        server
            .distribute(
                {{"model", "m"}, {"source", source}, {"source_url", "http://h/m"}, {"all", true}})
            .json;
    for (const json& result : reply["results"]) EXPECT_EQ(result["error"], kText) << reply;
  }
  EXPECT_EQ(
      server
          .distribute(
              {{"model", "m"}, {"source", "worker"}, {"source_id", "user"}, {"workers", {"bad"}}})
          .error(),
      "Source worker 'user' has no valid address");
  server.api.post("/api/v1/models/show", {{"model", "loaded on user"}});
  EXPECT_EQ(server.local.requests().size(), 1U);
  EXPECT_EQ(elsewhere.connections(), 0U);
}

TEST(ModelRoutes, StoppingDoesNotWaitForHangingPulls) {
  ModelServer server;
  MockPeer hanging([](MockConnection& connection) { connection.readRequest(); });
  for (int i = 0; i < 300; ++i) server.addWorker("w" + std::to_string(i), hanging.port());
  server.pull({{"model", "m"}, {"all", true}});
  ASSERT_TRUE(hanging.waitForRequests(models::PullJobs::kMaxPullsAtOnce));
  const auto start = platform::steadyNow();
  server.http.cancelAll();
  server.jobs.stop();
  EXPECT_LT(platform::millisecondsSince(start), 5000);
  EXPECT_EQ(hanging.requests().size(), models::PullJobs::kMaxPullsAtOnce);
}

TEST(ModelRoutes, AModelFromTheLibraryOrAUrlIsInstalledWorkerByWorker) {
  ModelServer server;
  MockPeer good(MockPeer::answering(httpAnswer(200, "{}")));
  MockPeer bad(MockPeer::answering(httpAnswer(507, "disk full")));
  server.addWorker("bad", bad.port());
  server.addWorker("good", good.port(), WorkerStatus::kOnline, "image");
  EXPECT_EQ(server.distribute({{"model", "m"}, {"workers", {"good", "bad", "nobody"}}}).json,
            json::parse(R"({"status":"distributing","model":"m","source":"ollama",
                "workers_count":3,"results":[
                {"worker_id":"good","status":"completed"},
                {"worker_id":"bad","status":"error","error":"HTTP 507"},
                {"worker_id":"nobody","status":"error","error":"worker not found"}]})"));
  EXPECT_TRUE(good.requests()[0].starts_with("POST /api/v1/models/pull "));

  const json from_url = {{"model", "m"},
                         {"source", "url"},
                         {"source_url", "https://models.example/m.bin?x=1"},
                         {"format", "safetensors"},
                         {"backend", "vllm"},
                         {"all", true}};
  EXPECT_EQ(server.distribute(from_url).json,
            json::parse(R"({"status":"distributing","model":"m","source":"url",
                "workers_count":2,"results":[
                {"worker_id":"bad","status":"error","error":"HTTP 507: disk full"},
                {"worker_id":"good","status":"completed"}]})"));
  EXPECT_TRUE(good.requests()[1].starts_with("POST /api/v1/models/install "));
  EXPECT_EQ(bodyOf(good, 1), json::parse(R"({"model":"m","source":"url","format":"safetensors",
      "backend":"vllm","source_url":"https://models.example/m.bin?x=1"})"));

  const auto refusal = [&](json body) {
    body["workers"] = {"good"};
    body.emplace("model", "m");
    const JsonReply reply = server.distribute(body);
    EXPECT_EQ(reply.status, 400);
    return reply.error();
  };
  EXPECT_EQ(refusal({{"model", ""}}), "model is required");
  EXPECT_EQ(refusal({{"source", "url"}}), "source_url is required when source is 'url'");
  for (const char* url : {"file:///etc/passwd", "http://", "ftp://h/m", "http://h/\r\nX: y"}) {
    EXPECT_EQ(refusal({{"source", "url"}, {"source_url", url}}),
              "source_url must be an http or https URL");
  }
  EXPECT_EQ(refusal({{"source", "floppy"}}), "Unknown source: floppy");
  EXPECT_EQ(server.distribute({{"model", "m"}}).error(),
            "No target workers specified or available");
  EXPECT_EQ(good.requests().size(), 2U);
}

TEST(ModelRoutes, AModelFromTheRegistryIsFetchedFromItsDataWorker) {
  ModelServer server;
  MockPeer worker(MockPeer::answering(httpAnswer(200, "{}")));
  server.addWorker("w", worker.port());
  const json wanted = {{"model", "org/m:7b"}, {"source", "registry"}, {"all", true}};
  const auto refused = [&] { return server.distribute(wanted).error(); };
  const char* const kNone = "Model not found in registry or no data worker available";
  EXPECT_EQ(refused(), kNone);

  MockPeer store(MockPeer::answering(httpAnswer(200, R"({"nfs_path":"/nfs/m","format":"onnx"})")));
  addDaemon(server.typed, worker::WorkerKind::kData, "d", store.url("/"),
            {{"storage_enabled", true}});
  EXPECT_EQ(server.distribute(wanted).json,
            json::parse(R"({"status":"distributing","model":"org/m:7b","source":"registry",
                "workers_count":1,"results":[{"worker_id":"w","status":"completed"}]})"));
  EXPECT_TRUE(store.requests()[0].starts_with("GET /api/v1/models/org%2Fm%3A7b HTTP/1.1\r\n"));
  EXPECT_EQ(bodyOf(worker), json({{"model", "org/m:7b"},
                                  {"source", "url"},
                                  {"source_url", store.url("/api/v1/models/org%2Fm%3A7b/download")},
                                  {"nfs_path", "/nfs/m"},
                                  {"format", "onnx"},
                                  {"backend", "ollama"}}));

  // One without storage hands out models too, but not before one that has it.
  const auto first_asked = [&](int silent, const char* status) {
    MockPeer plain(MockPeer::answering(httpAnswer(200, "{}")));
    addDaemon(server.typed, worker::WorkerKind::kData, "c", plain.url(""), {},
              std::chrono::seconds(silent));
    server.typed.of(worker::WorkerKind::kData).update("d", [&](worker::TypedWorkerInfo& info) {
      info.status = status;
    });
    const std::size_t before = store.requests().size();
    server.distribute(wanted);
    return std::string(plain.connections() > 0 ? "c" : "") +
           (store.requests().size() > before ? "d" : "");
  };
  EXPECT_EQ(first_asked(0, "online"), "d");
  EXPECT_EQ(first_asked(120, "offline"), "c");
  EXPECT_EQ(first_asked(121, "offline"), "");

  // Heard of too long ago.
  addDaemon(server.typed, worker::WorkerKind::kData, "d", store.url("/"),
            {{"storage_enabled", true}}, std::chrono::seconds(121));
  EXPECT_EQ(refused(), kNone);
  MockPeer empty(MockPeer::answering(httpAnswer(404, "")));
  addDaemon(server.typed, worker::WorkerKind::kData, "d", empty.url(""),
            {{"storage_enabled", true}});
  EXPECT_EQ(refused(), kNone);
}

TEST(ModelRoutes, AModelOfAnotherWorkerIsFetchedFromThere) {
  ModelServer server;
  MockPeer source(MockPeer::answering(
      httpAnswer(200, R"({"nfs_path":"/nfs/m","format":7,"backend":"llamacpp"})")));
  MockPeer target(MockPeer::answering(httpAnswer(200, R"({"bytes":3})")));
  MockPeer bad(MockPeer::answering(httpAnswer(500, "")));
  server.addWorker("bad", bad.port());
  server.addWorker("source", source.port());
  server.addWorker("target", target.port());
  json wanted = {{"model", "m"}, {"source", "worker"}, {"source_id", "source"}, {"all", true}};
  EXPECT_EQ(server.distribute(wanted).json,
            json::parse(R"({"model":"m","source":"worker","source_worker":"source","results":[
                {"worker_id":"bad","status":"error","error":"HTTP 500: "},
                {"worker_id":"source","status":"skipped","message":"source worker"},
                {"worker_id":"target","status":"success","response":{"bytes":3}}]})"));
  EXPECT_EQ(bodyOf(source), json({{"model", "m"}}));
  EXPECT_EQ(bodyOf(target), json({{"model", "m"},
                                  {"source", "url"},
                                  {"source_url", source.url("/api/v1/models/m/download")},
                                  {"nfs_path", "/nfs/m"},
                                  {"format", "gguf"},
                                  {"backend", "ollama"},
                                  {"backend_hint", "llamacpp"}}));

  MockPeer onnx(MockPeer::answering(httpAnswer(200, R"({"format":"onnx"})")));
  server.addWorker("source", onnx.port());
  wanted["format"] = "safetensors";
  server.distribute(wanted);
  EXPECT_EQ(bodyOf(target, 1)["format"], "onnx");

  wanted["source_id"] = "bad";
  EXPECT_EQ(server.distribute(wanted).error(), "Model 'm' not found on source worker 'bad'");
  wanted["source_id"] = "gone";
  EXPECT_EQ(server.distribute(wanted).error(), "Source worker 'gone' not found");
  wanted["source_id"] = "";
  EXPECT_EQ(server.distribute(wanted).error(),
            "source_id (worker_id) is required when source is 'worker'");
}

TEST(ModelRoutes, ShowAsksTheLocalModelServerAboutAModelThatNoWorkerHasLoaded) {
  ModelServer server;
  const auto show = [&] { return server.api.post("/api/v1/models/show", {{"model", "m"}}); };
  EXPECT_EQ(show().status, 404);
  EXPECT_EQ(show().error(), "Model not found");
  EXPECT_TRUE(server.local.requests()[0].starts_with("POST /api/show HTTP/1.1\r\n"));
  EXPECT_EQ(bodyOf(server.local), json({{"name", "m"}}));

  MockPeer knows(MockPeer::answering(httpAnswer(
      200, R"({"modelfile":"FROM x","template":"t","license":["l"],"details":{"family":"f"}})")));
  server.local_url = knows.url("/");
  EXPECT_EQ(show().json, json::parse(R"({"success":true,"name":"m","modelfile":"FROM x",
      "template":"t","system":"","license":"[\"l\"]","parameters":"","details":{"family":"f"}})"));
  EXPECT_EQ(server.api.post("/api/v1/models/show", {{"model", "codex"}, {"specialization", true}})
                .json["specialization"],
            "code");

  MockPeer garbage(MockPeer::answering(httpAnswer(200, "<html>")));
  server.local_url = garbage.url("");
  EXPECT_EQ(show().status, 500);
  EXPECT_EQ(show().error(), "Failed to get model details: The model server did not send JSON");
  EXPECT_EQ(server.api.post("/api/v1/models/show", json::object()).error(), "model is required");
}

}  // namespace
}  // namespace tavrel::test
