#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "controller/routes/families.h"
#include "events/event_stream_service.h"
#include "support/json_client.h"
#include "worker/typed_worker_registry.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using test::JsonReply;
using testing::HasSubstr;
using worker::WorkerKind;

class TypedWorkerRoutes : public testing::Test {
 protected:
  worker::TypedWorkerRegistries typed_;
  worker::WorkerRegistry workers_;
  events::EventStreamService events_;
  test::TestServer server_{
      [this](api::RouteBook& book) { addTypedWorkerRoutes(book, typed_, workers_, events_); }};
  test::JsonClient client_{server_};
};

TEST_F(TypedWorkerRoutes, DataWorkerComesAndLeaves) {
  testing::internal::CaptureStdout();
  const JsonReply reply = client_.post("/api/v1/data-workers/register", json::parse(R"({"id":
      "d1", "name": "store", "ip_address": "10.0.0.7", "port": 8892, "storage_enabled": true,
      "nfs_enabled": true, "nfs_port": 2049})"));
  EXPECT_EQ(reply.body, R"({"data_worker_id":"d1",)"
                        R"("message":"Data worker registered successfully","success":true})");
  EXPECT_EQ(client_.post("/api/v1/data-workers/d1/deregister", json::object()).body,
            R"({"message":"Data worker deregistered","success":true})");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[DataWorkers] Registered data worker: d1 at http://10.0.0.7:8892 "
            "(storage: filesystem) (nfs:2049)\n"
            "[DataWorkers] Deregistered data worker: d1\n");
  const auto events = events_.getRecentEvents(10);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_THAT(events[0]->sse(), HasSubstr("data_worker_online"));
  EXPECT_THAT(events[0]->sse(), HasSubstr(R"("storage_backend":"filesystem")"));
  EXPECT_THAT(events[1]->sse(), HasSubstr("data_worker_offline"));
}

TEST_F(TypedWorkerRoutes, EveryKindServesItsSixRoutes) {
  for (const worker::TypedWorkerKind& kind : worker::typedWorkerKinds()) {
    SCOPED_TRACE(kind.prefix);
    const std::string prefix = kind.prefix;
    const std::string not_found = std::string(kind.title) + " not found";
    const std::string line_end = std::string(" ") + kind.noun + ": x\n";

    const JsonReply reply =
        client_.post(prefix + "/register", {{kind.id_alias, "x"}, {"url", "http://box:1"}});
    EXPECT_EQ(reply.json[kind.id_key], "x");
    EXPECT_EQ(reply.json["message"], std::string(kind.title) + " registered successfully");
    EXPECT_EQ(client_.post(prefix + "/x/heartbeat", json::object()).json,
              (json{{"success", true}, {kind.id_key, "x"}}));
    EXPECT_EQ(client_.post(prefix + "/y/heartbeat", {{"url", "http://box:2"}}).status, 200);

    const JsonReply list = client_.get(prefix);
    EXPECT_EQ(list.json["count"], 2);
    EXPECT_EQ(list.json[kind.list_key][0], client_.get(prefix + "/x").json);
    EXPECT_EQ(list.json[kind.list_key][1]["url"], "http://box:2");

    testing::internal::CaptureStdout();
    EXPECT_EQ(client_.del(prefix + "/x").body, R"({"status":"removed"})");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[" + std::string(kind.label) + "] Removed" + line_end);
    for (const JsonReply& gone : {client_.get(prefix + "/x"), client_.del(prefix + "/x"),
                                  client_.post(prefix + "/x/deregister", json::object())}) {
      EXPECT_EQ(gone.status, 404);
      EXPECT_EQ(gone.error(), not_found);
    }

    EXPECT_EQ(client_.post(prefix + "/register", {{"url", "http://box:1"}}).error(),
              kind.required_error);
    EXPECT_EQ(client_.post(prefix + "/register", {{"id", "z"}, {"url", "ftp://box"}}).status, 400);
    EXPECT_EQ(client_.postText(prefix + "/register", "no").error(), "Invalid JSON body");
    EXPECT_EQ(client_.postText(prefix + "/x/heartbeat", "no").error(), "Invalid JSON body");
    EXPECT_EQ(client_.post(prefix + "/%C0/heartbeat", json::object()).status, 400);
    EXPECT_EQ(typed_.of(kind.kind).size(), 1u);
  }
}

TEST_F(TypedWorkerRoutes, NativeInferenceWorkerReplacesItsFormerSelf) {
  testing::internal::CaptureStdout();
  for (const char* id : {"n1", "n2"}) {
    client_.post("/api/v1/inference-workers/register", {{"id", id},
                                                        {"name", "rig"},
                                                        {"url", "http://box:1"},
                                                        {"has_cuda", true},
                                                        {"loaded_models", {"m"}}});
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[InferenceWorkers] Registered inference worker: n1 at http://box:1 (models: m) "
            "(GPU: CUDA)\n"
            "[InferenceWorkers] Purging replaced inference worker: n1 (rig)\n"
            "[InferenceWorkers] Registered inference worker: n2 at http://box:1 (models: m) "
            "(GPU: CUDA)\n");
  EXPECT_TRUE(events_.getRecentEvents(10).empty());
  const auto logs = events_.getRecentLogs(10);
  ASSERT_EQ(logs.size(), 2u);
  EXPECT_THAT(logs[0]->sse(), HasSubstr("Inference worker online: rig"));
}

TEST_F(TypedWorkerRoutes, ScienceWorkerLearnsWhereTheOthersAre) {
  worker::WorkerInfo inference;
  inference.worker_id = inference.worker_name = "w";
  inference.ip_address = "10.0.0.3";
  inference.status = worker::WorkerStatus::kOnline;
  workers_.registerWorker(inference, true);
  for (const char* odd : {"10.0.0.4/?", "10.0.0.5"}) {
    inference.worker_id = inference.worker_name = inference.ip_address = odd;
    inference.port = inference.ip_address == "10.0.0.5" ? 65536 : 8090;
    workers_.registerWorker(inference, true);
  }
  inference.worker_id = inference.worker_name = "busy";
  inference.status = worker::WorkerStatus::kBusy;
  workers_.registerWorker(inference, true);
  client_.post("/api/v1/inference-workers/register", {{"id", "n"}, {"url", "http://native:1"}});
  client_.post("/api/v1/data-workers/d/heartbeat", {{"hostname", "data.lan"}});
  client_.post("/api/v1/agent-workers/a/heartbeat", {{"hostname", "agent.lan"}});
  client_.post("/api/v1/science-workers/register", {{"id", "s1"}, {"url", "http://s1:1"}});
  const JsonReply reply =
      client_.post("/api/v1/science-workers/register", {{"id", "s2"}, {"url", "http://s2:1"}});
  EXPECT_EQ(reply.json["cluster_topology"], json::parse(R"({
    "inference_worker_urls": ["http://10.0.0.3:8090", "http://native:1"],
    "data_worker_urls": ["http://data.lan:8892"], "agent_worker_urls": ["http://agent.lan:8893"],
    "peers": ["http://s1:1"]})"));
}

}  // namespace
}  // namespace tavrel::controller
