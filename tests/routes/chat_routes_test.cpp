#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "routes/chat_services.h"
#include "support/raw_client.h"

namespace tavrel::test {
namespace {

using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kHello = R"({"model":"m","messages":[{"role":"user","content":"hi"}]})";

std::string errorOf(const httplib::Result& result) {
  return json::parse(result->body).at("error");
}

TEST(ChatRoutes, ARequestGoesToTheWorkerAndComesBackAsACompletion) {
  MockPeer worker(MockPeer::answeringOnce(workerSays("hello")));
  ChatCluster cluster;
  cluster.addWorker("w1", worker.port());
  const auto result = cluster.ask(
      R"({"model":"m","messages":[{"role":"user","content":"hi"}],"stream":true,"max_tokens":5})");
  ASSERT_TRUE(result);
  ASSERT_EQ(result->status, 200) << result->body;

  const std::string host = "127.0.0.1:" + std::to_string(worker.port());
  const std::string body =
      R"({"max_tokens":5,"messages":[{"content":"hi","role":"user"}],"model":"m","stream":false,)"
      R"("temperature":0.7,"top_p":0.9})";
  EXPECT_EQ(worker.received(0), "POST /v1/chat/completions HTTP/1.1\r\nHost: " + host +
                                    "\r\nContent-Type: application/json\r\nContent-Length: " +
                                    std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
                                    body);

  json reply = json::parse(result->body);
  EXPECT_THAT(reply["id"].get<std::string>(), testing::MatchesRegex("chatcmpl-req-[0-9a-f]{16}"));
  EXPECT_GT(reply["created"], 1'700'000'000);
  reply.erase("id");
  reply.erase("created");
  EXPECT_EQ(reply, json::parse(R"({"object":"chat.completion","model":"m","worker":"w1",
      "worker_host":")" + host +
                               R"(","routing":{"strategy":"round_robin","reason":""},
      "choices":[{"index":0,"message":{"role":"assistant","content":"hello"},
                  "finish_reason":"stop"}],
      "usage":{"prompt_tokens":3,"completion_tokens":4,"total_tokens":7}})"));
  EXPECT_THAT(cluster.metrics.getPrometheusMetrics(),
              AllOf(HasSubstr("tavrel_llm_requests_total{"), HasSubstr("\"vllm\"")));
}

TEST(ChatRoutes, WorkersTakeTurns) {
  MockPeer one(MockPeer::answering(workerSays("one")));
  MockPeer two(MockPeer::answering(workerSays("two")));
  ChatCluster cluster;
  cluster.addWorker("a", one.port());
  cluster.addWorker("b", two.port());
  std::string order;
  for (int i = 0; i < 4; ++i) {
    order += json::parse(cluster.ask(kHello)->body)["worker"].get<std::string>();
  }
  EXPECT_EQ(order, "abab");
}

struct Answered {
  std::string bytes;
  const char* text;
};

// However a worker frames its answer, and whatever status it gives it.
TEST(ChatRoutes, AnswersAreReadHoweverTheyAreFramed) {
  const std::string body = R"({"response":"framed"})";
  const std::vector<Answered> answers = {
      {"HTTP/1.1 200 OK\r\nTransfer-Encoding: "
       "chunked\r\n\r\n5\r\n{\"res\r\n10\r\nponse\":\"framed\"}"
       "\r\n0\r\n\r\n",
       "framed"},
      {"HTTP/1.0 200 OK\r\n\r\n" + body, "framed"},
      {"HTTP/1.1 500 Oops\r\nContent-Length: 21\r\n\r\n" + body, "framed"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 4000\r\n\r\n" + body, "framed"},
      {httpAnswer(503, R"({"error":"busy"})"), ""},
      {httpAnswer(200, "{\"response\":\"a\xff\"}"), "a\xef\xbf\xbd"},
  };
  for (const Answered& answer : answers) {
    MockPeer worker(MockPeer::answeringOnce(answer.bytes));
    ChatCluster cluster;
    cluster.addWorker("w", worker.port());
    const auto result = cluster.ask(kHello);
    ASSERT_TRUE(result);
    ASSERT_EQ(result->status, 200) << answer.bytes << result->body;
    EXPECT_EQ(json::parse(result->body)["choices"][0]["message"]["content"], answer.text);
  }
}

TEST(ChatRoutes, WhatAWorkerDoesWrongIsTold) {
  const MockPeer::Script silent = [](MockConnection& connection) { connection.readRequest(); };
  const std::vector<std::pair<MockPeer::Script, const char*>> faults = {
      {MockPeer::answeringOnce("garbage without end"), "Invalid response from worker"},
      {MockPeer::answeringOnce(""), "Invalid response from worker"},
      {silent, "Invalid response from worker"},
      {MockPeer::answeringOnce(httpAnswer(200, "<html>")), "Failed to parse worker response: "},
      {MockPeer::answeringOnce(httpAnswer(200, "")), "Failed to parse worker response: "},
      {MockPeer::answeringOnce(httpAnswer(200, std::string(5000, '['))),
       "Failed to parse worker response: "},
  };
  for (const auto& [script, text] : faults) {
    MockPeer worker(script);
    ChatCluster cluster("", std::chrono::milliseconds(200));
    cluster.addWorker("w", worker.port());
    const auto result = cluster.ask(kHello);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 500);
    EXPECT_THAT(errorOf(result), StartsWith(text));
  }

  ChatCluster cluster;
  cluster.addWorker("w", cluster.nobody.port());
  const auto refused = cluster.ask(kHello);
  EXPECT_EQ(refused->status, 503);
  EXPECT_EQ(errorOf(refused),
            "Failed to connect to worker 127.0.0.1:" + std::to_string(cluster.nobody.port()));
}

TEST(ChatRoutes, BadRequestsAreRefused) {
  ChatCluster cluster;
  const auto expect = [&](const char* body, int status, const char* text) {
    const auto result = cluster.ask(body);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, status) << body;
    EXPECT_EQ(errorOf(result), text) << body;
  };
  expect("{", 400, "Invalid JSON body");
  for (const char* body : {"{}", "[]", "7", R"({"messages":[]})", R"({"messages":{"a":1}})",
                           R"({"messages":"x"})", R"({"messages":null})"}) {
    expect(body, 400, "messages array is required");
  }
  expect(R"({"model":"x","messages":[1]})", 404, "Model 'x' not found on any worker or locally");
  expect(R"({"ensemble_mode":true})", 503, "No healthy router available for ensemble mode");

  const auto wrong = cluster.ask(R"({"model":[],"messages":[1]})");
  EXPECT_EQ(wrong->status, 500);
  EXPECT_EQ(wrong->body, "");
}

TEST(ChatRoutes, WhenTheClientLeavesTheWorkerIsLetGo) {
  for (const char* path : {"/api/v1/chat/completions", "/api/v1/chat/completions/stream"}) {
    MockPeer worker([](MockConnection& connection) { connection.readRequest(); });
    ChatCluster cluster("", std::chrono::seconds(60));
    cluster.addWorker("w", worker.port());
    RawClient client(cluster.server.port());
    client.send(postRequest(path, kHello));
    ASSERT_TRUE(worker.waitForRequests(1)) << path;
    client.close();
    EXPECT_TRUE(worker.waitForHangUp(0)) << path;
  }
}

TEST(ChatStream, TheWorkersEventsReachTheClientAtOnceAndUnchanged) {
  Gate go_on;
  const std::string first = "data: {\"choices\":[{\"delta\":{\"content\":\"\xff\"}}]}\n\n";
  MockPeer worker([&](MockConnection& connection) {
    connection.readRequest();
    connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
    connection.send("2f\r\n" + first + "\r\n");
    if (!connection.waitFor(go_on)) return;
    connection.send("e\r\ndata: [DONE]\n\n\r\n0\r\n\r\n");
    connection.close();
  });
  ASSERT_EQ(first.size(), 0x2fU);
  ChatCluster cluster;
  cluster.addWorker("w", worker.port());
  std::string received;
  httplib::Request request;
  request.method = "POST";
  request.path = "/api/v1/chat/completions/stream";
  request.headers = {{"Content-Type", "application/json"}};
  request.body = kHello;
  request.content_receiver = [&](const char* data, std::size_t size, std::uint64_t, std::uint64_t) {
    received.append(data, size);
    if (received == first) go_on.open();  // the rest is sent only after this arrived
    return true;
  };
  const auto result = cluster.server.client().send(request);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->status, 200);
  EXPECT_EQ(received, first + "data: [DONE]\n\n");
  EXPECT_EQ(jsonOf(worker.requests().at(0))["stream"], true);
}

TEST(ChatStream, ErrorsAreEvents) {
  ChatCluster cluster;
  cluster.addWorker("w", cluster.nobody.port());
  const auto expect = [&](const char* body, const std::string& error) {
    const auto result = cluster.post("/api/v1/chat/completions/stream", body);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200);
    EXPECT_EQ(result->body, "data: {\"error\":\"" + error + "\"}\n\ndata: [DONE]\n\n") << body;
  };
  expect("{", "Invalid JSON body");
  expect(R"({"ensemble_mode":true})",
         "Ensemble mode does not support streaming. Use the non-streaming "
         "/api/v1/chat/completions endpoint instead.");
  expect(R"({"messages":[]})", "messages array is required");
  for (const char* body : {R"({"model":5,"messages":[1]})", R"({"ensemble_mode":"yes"})",
                           R"({"messages":[1],"temperature":"hot"})"}) {
    expect(body, "A member of the request has the wrong type");
  }
  expect(R"({"model":"\"x","messages":[1]})", "No worker found with model: \\\"x");
  expect(kHello, "Failed to connect to worker");
}

TEST(ChatEnsemble, TheBodyGoesToTheFirstHealthyRouterUnchanged) {
  MockPeer router(MockPeer::answeringOnce(httpAnswer(200, R"({"ensemble":  1})")));
  ChatCluster cluster;
  const auto now = platform::wallNow();
  cluster.routers.add({});  // not healthy: never heard of
  cluster.routers.heartbeat("r", {{"address", "127.0.0.1"}, {"port", router.port()}}, now);
  const std::string body = R"({"ensemble_mode": true,   "ensemble_models": ["a"]})";
  const auto result = cluster.ask(body);
  ASSERT_EQ(result->status, 200) << result->body;
  EXPECT_EQ(json::parse(result->body), json::parse(R"({"ensemble":1})"));
  EXPECT_THAT(router.requests().at(0), AllOf(StartsWith("POST /v1/chat/completions "),
                                             testing::EndsWith("\r\n\r\n" + body)));

  for (const std::string& bad : {httpAnswer(500, "{}"), httpAnswer(200, "no JSON")}) {
    MockPeer failing(MockPeer::answeringOnce(bad));
    cluster.routers.heartbeat("r", {{"port", failing.port()}}, now);
    const auto failed = cluster.ask(body);
    EXPECT_EQ(failed->status, 502);
    EXPECT_EQ(errorOf(failed), "Router ensemble request failed");
  }
}

TEST(ChatExperts, AMatchedExpertChangesTheModel) {
  MockPeer worker(MockPeer::answering(workerSays("code")));
  ChatCluster cluster;
  cluster.addWorker("w", worker.port(), {"m", "coder"});
  cluster.experts.update(json::parse(R"({"enabled":true,"experts":[
      {"id":"code","model":"coder","keywords":["Python"]},
      {"id":"gone","model":"nobody has it","keywords":["poem"]},
      {"id":"same","model":"m","keywords":["story"]}]})"));
  const auto routingFor = [&](const std::string& text) {
    const json reply = json::parse(
        cluster.ask(R"({"model":"m","messages":[{"role":"user","content":")" + text + R"("}]})")
            ->body);
    return reply["model"].get<std::string>() + " " + reply["routing"].dump();
  };
  EXPECT_EQ(routingFor("python, PYTHON!"),
            R"j(coder {"reason":"MoE expert: code (score=2)","strategy":"moe_routing"})j");
  EXPECT_EQ(routingFor("a story"),
            R"j(m {"reason":"MoE expert: same (score=1)","strategy":"moe_routing"})j");
  EXPECT_EQ(routingFor("a poem"), R"(m {"reason":"","strategy":"round_robin"})");
  EXPECT_EQ(jsonOf(worker.requests().at(0))["model"], "coder");
}

TEST(ChatExperts, AScientificQuestionIsEnriched) {
  MockPeer worker(MockPeer::answering(workerSays("yes")));
  MockPeer science(MockPeer::answeringOnce(httpAnswer(
      200,
      R"({"summary":"Known.","results":[7,{"title":"T","description":"D","provider":"P"}]})")));
  ChatCluster cluster;
  cluster.addWorker("w", worker.port());
  cluster.experts.update(json::parse(R"({"enabled":true,"default_expert":"s","experts":[
      {"id":"s","model":"m","categories":["chemistry"]}]})"));
  cluster.science_url = science.url("/");
  ASSERT_EQ(cluster.ask(kHello)->status, 200);
  EXPECT_THAT(science.requests().at(0), StartsWith("POST /api/v1/research/federated-search "));
  EXPECT_EQ(jsonOf(science.requests().at(0)),
            json::parse(R"({"query":"hi","max_results":5,"synthesize":true})"));
  const json messages = jsonOf(worker.requests().at(0))["messages"];
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0]["role"], "system");
  EXPECT_EQ(
      messages[0]["content"],
      "[SCIENTIFIC DATA CONTEXT - retrieved from Tavrel Science Worker]\nKnown.\n[1] T D (P)\n"
      "[END SCIENTIFIC DATA CONTEXT]\n\nUse the scientific data above to provide an accurate, "
      "well-informed answer.");

  // A science worker that fails changes nothing.
  cluster.science_url = "http://127.0.0.1:" + std::to_string(cluster.nobody.port());
  ASSERT_EQ(cluster.ask(kHello)->status, 200);
  EXPECT_EQ(jsonOf(worker.requests().at(1))["messages"].size(), 1U);
}

TEST(ChatDecisions, TheDecisionModelChoosesWhenItIsInCharge) {
  MockPeer one(MockPeer::answering(workerSays("one")));
  MockPeer two(MockPeer::answering(workerSays("two")));
  MockPeer model(MockPeer::answering(httpAnswer(
      200, json({{"response", R"(Well: {"worker_id":"b","confidence":0.9,"reasoning":"idle"})"}})
               .dump())));
  ChatCluster cluster;
  cluster.addWorker("a", one.port());
  cluster.addWorker("b", two.port());
  cluster::AIControlConfig config;
  config.ollama_url = model.url("");
  const auto routing = [&](cluster::AIControlMode mode) {
    config.mode = mode;
    cluster.ai_control.configure(config);
    const json reply = json::parse(cluster.ask(kHello)->body);
    return reply["worker"].get<std::string>() + " " + reply["routing"].dump();
  };
  EXPECT_EQ(routing(cluster::AIControlMode::kAdvisory),
            R"(a {"reason":"","strategy":"round_robin"})");
  EXPECT_EQ(routing(cluster::AIControlMode::kAutonomous),
            R"(b {"reason":"idle","strategy":"ai_routing"})");
  const json asked = jsonOf(model.requests().at(0));
  EXPECT_EQ(asked["stream"], false);
  EXPECT_EQ(asked["options"]["num_predict"], 256);
  EXPECT_THAT(asked["prompt"].get<std::string>(), HasSubstr("1. a\n"));

  // A model that is not there still leaves a choice.
  config.ollama_url = "http://127.0.0.1:" + std::to_string(cluster.nobody.port());
  EXPECT_EQ(
      routing(cluster::AIControlMode::kAutonomous),
      R"(a {"reason":"LLM unavailable, selected least loaded worker","strategy":"ai_routing"})");

  // Full workers are no candidates for the model, but the load rule still has them.
  for (const char* id : {"a", "b"}) {
    cluster.workers.update(id, [](worker::WorkerInfo& info) { info.metrics.cpu_usage = 99; });
  }
  EXPECT_THAT(routing(cluster::AIControlMode::kAutonomous), HasSubstr("load_based"));
}

TEST(ChatLocally, TheLocalModelServerAnswersForModelsThatNoWorkerHas) {
  MockPeer local(answeringByPath(
      {{"GET /api/tags", httpAnswer(200, R"({"models":[null,{"name":7},{"name":"tiny"}]})")},
       {"POST /api/chat",
        httpAnswer(200,
                   R"({"message":{"content":"small"},"prompt_eval_count":1,"eval_count":2})")}}));
  ChatCluster cluster(local.url(""));
  const auto result = cluster.ask(
      R"({"model":"tiny","messages":[{"role":"user","content":"hi"}],"temperature":0.5,"max_tokens":9})");
  ASSERT_EQ(result->status, 200) << result->body;
  const json reply = json::parse(result->body);
  EXPECT_EQ(reply["worker"], "local");
  EXPECT_EQ(reply["choices"][0]["message"]["content"], "small");
  EXPECT_EQ(reply["usage"]["total_tokens"], 3);
  const json asked = jsonOf(local.requests().at(1));
  EXPECT_EQ(asked["stream"], false);
  EXPECT_EQ(asked["options"], json::parse(R"({"temperature":0.5,"num_predict":9})"));
  EXPECT_EQ(cluster.ask(R"({"model":"huge","messages":[1]})")->status, 404);
}

}  // namespace
}  // namespace tavrel::test
