#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "controller/routes/families.h"
#include "models/model_registry.h"
#include "pipeline/pipeline_coordinator.h"
#include "platform/random.h"
#include "support/daemons.h"
#include "support/gguf_file.h"
#include "support/json_client.h"
#include "support/messages.h"
#include "support/mock_peer.h"
#include "support/workers.h"
#include "worker/worker_registry.h"

namespace tavrel::test {
namespace {

using nlohmann::json;
using worker::WorkerStatus;

const char* const kMetadata = R"({"total_layers":32,"hidden_size":4096,"architecture":"llama",
    "quantization":"Q4_K_M","file_size_bytes":3200,"embed_size":7,"output_size":9,
    "gguf_path":"/models/big.gguf","filename":"big.gguf"})";

struct PipelineServer {
  net::HttpClient http;
  net::WorkerClient client{http};
  worker::WorkerRegistry workers;
  worker::TypedWorkerRegistries typed;
  models::ModelRegistry registry{client, typed.of(worker::WorkerKind::kData)};
  pipeline::PipelineCoordinator pipelines{
      client, workers, [this] { return registry.storageWorkerUrl(platform::wallNow()); }};
  std::map<std::string, std::unique_ptr<MockPeer>> peers;
  TestServer server{[this](api::RouteBook& routes) {
    controller::addPipelineRoutes(routes, pipelines, registry);
  }};
  JsonClient api{server};

  void addWorker(const std::string& id, std::uint64_t gib,
                 MockPeer::Script script = MockPeer::answering(httpAnswer(200, "{}"))) {
    peers[id] = std::make_unique<MockPeer>(std::move(script));
    worker::WorkerInfo info = onlineWorker(id, peers[id]->port());
    info.worker_name = "name of " + id;
    if (gib > 0) {
      info.metrics.gpus.resize(2);
      for (auto& gpu : info.metrics.gpus) gpu.memory_total = gib << 29;
      info.metrics.gpus[0].memory_free = 5;
    }
    workers.registerWorker(info, false);
  }
  void setOnline(const std::string& id, bool online) {
    workers.update(id, [&](worker::WorkerInfo& info) {
      info.status = online ? WorkerStatus::kOnline : WorkerStatus::kOffline;
    });
  }
  void setAddress(const std::string& id, const std::string& address) {
    workers.update(id, [&](worker::WorkerInfo& info) { info.ip_address = address; });
  }
  void addStore(const MockPeer& store) {
    addDaemon(typed, worker::WorkerKind::kData, "d", store.url(""), {{"storage_enabled", true}});
  }

  JsonReply deploy(json body) { return api.post("/api/v1/pipeline/deploy", body); }
  JsonReply act(const std::string& what, const std::string& id) {
    return api.post("/api/v1/pipeline/" + what, {{"pipeline_id", id}});
  }
  json show(const std::string& id) { return api.get("/api/v1/pipeline/" + id).json; }

  json bodyAt(const std::string& worker, std::size_t request) {
    return json::parse(bodyOf(peers.at(worker)->requests().at(request)));
  }
  /// Which layers each shard of a pipeline has.
  static json layers(const json& pipeline) {
    json list = json::array();
    for (const json& shard : pipeline.at("shards")) {
      list.push_back({shard.at("layer_start"), shard.at("layer_end")});
    }
    return list;
  }
};

TEST(PipelineRoutes, AModelOfTheRegistryIsSpreadOverWorkersByTheirMemory) {
  PipelineServer server;
  MockPeer store(MockPeer::answering(httpAnswer(200, kMetadata)));
  server.addStore(store);
  server.addWorker("a", 24);
  server.addWorker("b", 8);
  server.addWorker("c", 8);
  json deployed = server.deploy({{"model_id", "org/big"}, {"workers", {"a", "b", "c"}}}).json;
  const std::string id = deployed.at("pipeline_id");
  EXPECT_EQ(id.size(), 12U);
  EXPECT_TRUE(id.starts_with("pip-"));
  EXPECT_TRUE(store.requests()[0].starts_with("GET /api/v1/models/org%2Fbig/metadata HTTP/1.1"));
  EXPECT_EQ(server.show(id), deployed);
  EXPECT_EQ(server.layers(deployed), json::parse("[[0,19],[19,25],[25,32]]"));
  EXPECT_EQ(deployed["status"], "loading");
  EXPECT_EQ(deployed["strategy"], "vram_proportional");
  EXPECT_EQ(deployed["shards"][0]["role"], "head");
  EXPECT_EQ(deployed["shards"][2]["role"], "tail");
  EXPECT_EQ(deployed["model_name"], "big.gguf");
  EXPECT_EQ(deployed["shards"][0]["worker_vram_total"], std::uint64_t{24} << 30);
  EXPECT_EQ(deployed["shards"][0]["worker_vram_free"], 5);
  EXPECT_EQ(deployed["shards"][0]["estimated_vram_bytes"], 2090 + 7);
  EXPECT_EQ(deployed["shards"][1]["worker_name"], "name of b");
  EXPECT_EQ(deployed["shards"][1]["upstream_url"], "tcp://127.0.0.1:50052");

  EXPECT_TRUE(server.peers["b"]->requests()[0].starts_with("POST /api/v1/pipeline/load HTTP/1.1"));
  EXPECT_EQ(server.bodyAt("b", 0), json({{"pipeline_id", id},
                                         {"model_name", "big.gguf"},
                                         {"model_path", "/models/big.gguf"},
                                         {"data_worker_url", store.url("")},
                                         {"role", "middle"},
                                         {"layer_start", 19},
                                         {"layer_end", 25},
                                         {"include_embedding", false},
                                         {"include_output", false},
                                         {"total_layers", 32},
                                         {"hidden_size", 4096},
                                         {"upstream_worker", "a"},
                                         {"downstream_worker", "c"},
                                         {"upstream_url", "tcp://127.0.0.1:50052"},
                                         {"downstream_url", "tcp://127.0.0.1:50052"},
                                         {"tensor_port", 50052},
                                         {"transport", "tcp"}}));
  EXPECT_EQ(server.bodyAt("a", 0)["upstream_worker"], "");

  // The workers say how their shards fare.
  const auto report = [&](const std::string& worker, const std::string& status) {
    server.pipelines.reportShards(
        worker, json::parse(R"([{"pipeline_id":")" + id + R"(","status":")" + status +
                            R"(","error":"no memory"},7,{"pipeline_id":5,"status":"ready"},
                            {"pipeline_id":"other","status":"ready"},{"status":[]}])"));
    return server.show(id)["status"];
  };
  EXPECT_EQ(report("a", "ready"), "loading");
  EXPECT_EQ(report("b", "error"), "degraded");
  EXPECT_EQ(server.show(id)["shards"][1]["error"], "no memory");
  EXPECT_EQ(report("c", "ready"), "degraded");
  EXPECT_EQ(report("stranger", "error"), "degraded");
  EXPECT_EQ(report("b", "shining"), "degraded");
  EXPECT_EQ(server.show(id)["ready_at"], "");
  EXPECT_EQ(report("b", "ready"), "ready");
  EXPECT_NE(server.show(id)["ready_at"], "");
  EXPECT_EQ(server.api.get("/api/v1/pipeline/status").json["pipelines"],
            json::array({server.show(id)}));
}

TEST(PipelineRoutes, RebalancingUsesTheWorkersThatAreOnline) {
  PipelineServer server;
  MockPeer store(MockPeer::answering(httpAnswer(200, kMetadata)));
  server.addStore(store);
  for (const char* id : {"a", "b", "c"}) server.addWorker(id, 0);
  const json deployed = server
                            .deploy({{"model_id", "m"},
                                     {"workers", {"a", "b", "c"}},
                                     {"strategy", "manual"},
                                     {"manual_layers", {20, json::array({20, 31}), 1}}})
                            .json;
  EXPECT_EQ(server.layers(deployed), json::parse("[[0,20],[20,31],[31,32]]"));
  const std::string id = deployed.at("pipeline_id");
  server.setOnline("b", false);
  EXPECT_EQ(server.act("rebalance", id).json,
            json({{"status", "rebalanced"}, {"shard_count", 2}, {"workers_online", 2}}));
  EXPECT_EQ(server.layers(server.show(id)), json::parse("[[0,16],[16,32]]"));
  // What "c" sent before it heard of its new layers says nothing of them.
  const auto ready = [&](const std::string& worker, json report) {
    report.update({{"pipeline_id", id}, {"status", "ready"}});
    server.pipelines.reportShards(worker, json::array({report}));
    return server.show(id)["status"];
  };
  ready("a", {{"layer_start", 0}, {"layer_end", 16}});
  EXPECT_EQ(ready("c", {{"layer_start", 31}, {"layer_end", 32}}), "loading");
  EXPECT_EQ(ready("c", {{"layer_start", 16}, {"layer_end", "32"}}), "loading");
  EXPECT_EQ(ready("c", {{"layer_start", 16}, {"layer_end", 32}}), "ready");
  EXPECT_TRUE(server.peers["b"]->requests()[1].starts_with("POST /api/v1/pipeline/unload "));
  EXPECT_EQ(server.bodyAt("b", 1), json({{"pipeline_id", id}}));
  EXPECT_EQ(server.bodyAt("c", 2)["upstream_worker"], "a");
  server.setOnline("b", true);
  server.act("rebalance", id);
  EXPECT_EQ(server.layers(server.show(id)), json::parse("[[0,20],[20,31],[31,32]]"));

  // One that is reached nowhere now gets no layers, and loses its old ones where it was.
  server.setAddress("b", "b/?");
  EXPECT_EQ(server.act("rebalance", id).json["workers_online"], 2);
  EXPECT_TRUE(server.peers["b"]->requests().back().starts_with("POST /api/v1/pipeline/unload "));

  for (const char* worker : {"a", "b", "c"}) server.setOnline(worker, false);
  const JsonReply nobody = server.act("rebalance", id);
  EXPECT_EQ(nobody.refusal(), "400 No online workers available for rebalance");

  EXPECT_EQ(server.act("undeploy", id).json, json({{"status", "undeployed"}, {"pipeline_id", id}}));
  EXPECT_EQ(server.act("undeploy", id).error(), "Pipeline not found: " + id);
  EXPECT_EQ(server.act("rebalance", id).status, 404);
  EXPECT_EQ(server.api.del("/api/v1/pipeline/" + id).status, 404);
  EXPECT_EQ(server.api.get("/api/v1/pipeline/" + id).error(), "Pipeline not found: " + id);
  EXPECT_EQ(server.act("undeploy", "").error(), "pipeline_id is required");
}

TEST(PipelineRoutes, AFailedPushDegradesThePipelineAndIsShown) {
  PipelineServer server;
  MockPeer store(MockPeer::answering(httpAnswer(200, kMetadata)));
  server.addStore(store);
  server.addWorker("good", 0);
  server.addWorker("bad", 0, MockPeer::answering(httpAnswer(200, R"({"error":"no GPU"})")));
  const JsonReply reply = server.deploy({{"model_id", "m"}, {"workers", {"good", "bad"}}});
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.json["status"], "degraded");
  EXPECT_EQ(reply.json["shards"][0]["status"], "loading");
  EXPECT_EQ(reply.json["shards"][1]["status"], "error");
  EXPECT_EQ(reply.json["shards"][1]["error"], "Failed to push shard config to worker");
  EXPECT_EQ(server.api.del("/api/v1/pipeline/" + reply.json["pipeline_id"].get<std::string>()).json,
            json({{"status", "deleted"}}));
  EXPECT_EQ(server.peers["good"]->requests().size(), 2U);
}

TEST(PipelineRoutes, OneCallerAtATimeChangesAPipeline) {
  PipelineServer server;
  MockPeer store(MockPeer::answering(httpAnswer(200, kMetadata)));
  server.addStore(store);
  Gate gate;
  server.addWorker("w", 0, [&](MockConnection& connection) {
    connection.readRequest();
    connection.waitFor(gate);
    connection.send(httpAnswer(200, "{}"));
  });
  std::thread deploying([&] {
    JsonClient(server.server)
        .post("/api/v1/pipeline/deploy", {{"model_id", "m"}, {"workers", {"w"}}});
  });
  ASSERT_TRUE(server.peers["w"]->waitForRequests(1));
  const json status = server.api.get("/api/v1/pipeline/status").json["pipelines"][0];
  EXPECT_EQ(status["status"], "deploying");
  const std::string id = status["pipeline_id"];
  const JsonReply busy = server.act("undeploy", id);
  EXPECT_EQ(busy.status, 409);
  // The worker is ready before its answer arrives.
  server.pipelines.reportShards("w", {{{"pipeline_id", id}, {"status", "ready"}}});
  gate.open();
  deploying.join();
  EXPECT_EQ(server.show(id)["status"], "ready");
}

TEST(PipelineRoutes, LocalFilesAreReadAndListedBesideTheRegistry) {
  PipelineServer server;
  const auto file =
      std::filesystem::temp_directory_path() / ("tavrel-" + platform::randomHex(8) + "-Q8_0.gguf");
  GgufFile().text("general.architecture", "llama").number("llama.block_count", 4).write(file);
  server.addWorker("w", 0);
  const json deployed =
      server.deploy({{"model_path", file.string()}, {"workers", {"w"}}, {"strategy", "even"}}).json;
  EXPECT_EQ(deployed["total_layers"], 4);
  EXPECT_EQ(deployed["quantization"], "Q8_0");
  EXPECT_EQ(deployed["strategy"], "balanced");
  EXPECT_EQ(deployed["model_size_bytes"], std::filesystem::file_size(file));
  std::filesystem::remove(file);

  MockPeer store(MockPeer::answering(httpAnswer(
      200, R"({"models":[{"id":"m","format":"gguf"},{"id":"s","format":"safetensors"},5]})")));
  server.addStore(store);
  const json models = server.api.get("/api/v1/pipeline/models").json;
  EXPECT_EQ(models["count"], 2);
  EXPECT_EQ(models["models"][0], json({{"id", "m"}, {"format", "gguf"}, {"source", "registry"}}));
  EXPECT_EQ(models["models"][1]["model_path"], file.string());
  EXPECT_EQ(models["models"][1]["source"], "local");
}

TEST(PipelineRoutes, AWrongWishIsRefusedWithItsReason) {
  PipelineServer server;
  server.addWorker("w", 0);
  server.addWorker("v", 0);
  server.addWorker("off", 0);
  server.setOnline("off", false);
  const auto refusal = [&](const json& body, int status = 400) {
    const JsonReply reply = server.deploy(body);
    EXPECT_EQ(reply.status, status) << body;
    return reply.error();
  };
  EXPECT_EQ(server.api.postText("/api/v1/pipeline/deploy", "{").error(), "Invalid JSON body");
  EXPECT_EQ(refusal({{"workers", {"w"}}}), "model_id or model_path is required");
  EXPECT_EQ(refusal({{"model_id", "m"}}), "workers array is required");
  EXPECT_EQ(refusal({{"model_id", "m"}, {"workers", "w"}}), "workers array is required");
  EXPECT_EQ(refusal({{"model_id", "m"}, {"workers", {"x"}}}), "Worker not found: x");
  EXPECT_EQ(refusal({{"model_id", "m"}, {"workers", {"off"}}}), "Worker not online: off");
  EXPECT_EQ(refusal({{"model_id", "m"}, {"workers", {"w", "w"}}}), "Worker listed twice: w");
  EXPECT_EQ(refusal({{"model_path", "/dev/null"}, {"workers", {"w"}}}),
            "Failed to parse GGUF file: /dev/null");
  server.addWorker("odd", 0);
  server.setAddress("odd", "h/x?");
  EXPECT_EQ(refusal({{"model_id", "m"}, {"workers", {"odd"}}}), "Worker has no valid address: odd");
  const json wanted = {{"model_id", "m"}, {"workers", {"w", "v"}}};
  const char* const kFetch = "Failed to fetch model metadata from data worker";
  EXPECT_EQ(refusal(wanted, 502), kFetch);

  for (const char* answer : {"<html>", "[]", R"({"total_layers":"many"})"}) {
    MockPeer store(MockPeer::answering(httpAnswer(200, answer)));
    server.addStore(store);
    EXPECT_EQ(refusal(wanted, 502), kFetch);
  }
  for (const char* answer :
       {"{}", R"({"total_layers":-5})", R"({"total_layers":null,"filename":null})"}) {
    MockPeer store(MockPeer::answering(httpAnswer(200, answer)));
    server.addStore(store);
    EXPECT_EQ(refusal(wanted), "Could not determine model layer count");
  }
  MockPeer terse(MockPeer::answering(httpAnswer(200, R"({"total_layers":2})")));
  server.addStore(terse);
  json placed = wanted;
  placed["model_path"] = "/known/to/workers";
  json deployed = server.deploy(placed).json;
  EXPECT_EQ(deployed["model_path"], "/known/to/workers");
  EXPECT_EQ(deployed["model_name"], "m");
  EXPECT_EQ(server.act("undeploy", deployed["pipeline_id"]).status, 200);

  MockPeer store(MockPeer::answering(httpAnswer(200, kMetadata)));
  server.addStore(store);
  json manual = wanted;
  manual["strategy"] = "manual";
  for (const char* layers : {"[32]", "[16,15]", "[16,17]", "[[0,16],[17,32]]", R"(["a","b"])"}) {
    manual["manual_layers"] = json::parse(layers);
    EXPECT_NE(refusal(manual), "") << layers;
  }
  for (const char* member : {R"({"model_id":7})", R"({"strategy":null})", R"({"tensor_port":"x"})",
                             R"({"workers":[1]})"}) {
    json body = wanted;
    body.update(json::parse(member));
    EXPECT_EQ(server.deploy(body).status, 500) << member;
  }
  json elsewhere = wanted;
  for (const std::string& url : {std::string("file:///etc/passwd"), store.url("/?x="),
                                 store.url("/#"), "http://u:p@" + store.url("").substr(7)}) {
    elsewhere["data_worker_url"] = url;
    EXPECT_EQ(refusal(elsewhere), "data_worker_url must be an http or https URL") << url;
  }
  EXPECT_EQ(server.api.get("/api/v1/pipeline/status").json["count"], 0);
}

}  // namespace
}  // namespace tavrel::test
