#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "process/dev_worker_process.h"
#include "support/messages.h"
#include "support/mock_peer.h"
#include "support/process.h"
#include "support/raw_client.h"

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kBody = R"({"messages":[{"role":"user","content":"one two three"}]})";
const std::string kStreamBody =
    R"({"stream":true,"messages":[{"role":"user","content":"one two three"}]})";

std::string post(const std::string& body, const std::string& path = "/v1/chat/completions") {
  return postRequest(path, body, "Connection: close\r\n");
}

class Worker : public DevWorker {
 public:
  using DevWorker::DevWorker;

  std::string ask(const std::string& body) const { return sent(post(body)); }
  std::string sent(const std::string& request) const {
    const RawClient client(port());
    client.send(request);
    return client.readAll();
  }

  json stats() const {
    const RawClient client(port());
    client.send("GET /dev/stats HTTP/1.1\r\nHost: w\r\nConnection: close\r\n\r\n");
    return json::parse(bodyOf(client.readAll()));
  }

  /// Asks for the figures until one of them has the value, for ten seconds at most.
  bool reaches(const std::string& figure, int value) const {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (stats()[figure] != value) {
      if (std::chrono::steady_clock::now() > deadline) return false;
    }
    return true;
  }
};

TEST(DevWorkerProcess, AnswersAndStopsCleanlyOnASignal) {
  Worker worker({"--answer", "fine"});
  ASSERT_GT(worker.port(), 0);
  EXPECT_EQ(json::parse(bodyOf(worker.ask(kBody)))["choices"][0]["message"]["content"], "fine");
  EXPECT_THAT(worker.ask(kStreamBody), HasSubstr("data: [DONE]"));
  worker.process().signal(SIGTERM);
  EXPECT_EQ(worker.process().waitForExit(10s), 0);
  EXPECT_EQ(worker.process().outputLines().back(), "[DevWorker] Stopped");
}

TEST(DevWorkerProcess, RefusesAWrongCommandLineAndATakenPort) {
  Process wrong(kDevWorker, {"--prot", "0"});
  EXPECT_EQ(wrong.waitForExit(10s), 2);
  EXPECT_EQ(wrong.errorLines().back(), "Try --help.");
  Process help(kDevWorker, {"--help"});
  EXPECT_EQ(help.waitForExit(10s), 0);
  EXPECT_EQ(help.outputLines().at(1), "Options:");
  const Worker first(std::vector<std::string>{});
  Process second(kDevWorker, {"--port", std::to_string(first.port())});
  EXPECT_EQ(second.waitForExit(10s), 1);
  EXPECT_THAT(second.errorLines().back(), HasSubstr("Cannot listen on 127.0.0.1:"));
}

TEST(DevWorkerProcess, RegistersOnceTheControllerAnswersAndThenKeepsBeating) {
  auto asked = std::make_shared<std::atomic<int>>(0);
  MockPeer controller([asked](MockConnection& connection) {
    while (!connection.readRequest().empty()) {
      connection.send(httpAnswer(asked->fetch_add(1) == 0 ? 503 : 200, "{}"));
    }
  });
  Worker worker({"--controller", controller.url(""), "--heartbeat-ms", "20", "--id", "w 1",
                 "--api-key", "secret", "--model", "m"});
  ASSERT_TRUE(controller.waitForRequests(4));
  const std::vector<std::string> requests = controller.requests();
  EXPECT_THAT(requests[0], StartsWith("POST /api/v1/workers/register "));
  EXPECT_THAT(requests[0], HasSubstr("X-API-Key: secret"));
  EXPECT_THAT(requests[1], StartsWith("POST /api/v1/workers/register "));
  EXPECT_EQ(json::parse(bodyOf(requests[1]))["port"], worker.port());
  EXPECT_THAT(requests[2], StartsWith("POST /api/v1/workers/w%201/heartbeat "));
  const json beat = json::parse(bodyOf(requests[3]));
  EXPECT_EQ(beat["installed_models"], json({"m"}));
  EXPECT_GT(beat["metrics"]["memory"]["total"], 0);
  EXPECT_TRUE(worker.process().waitForLine("(HTTP 503), trying again", 10s));
  EXPECT_TRUE(worker.process().waitForLine("Registered as w 1", 10s));

  // Loaded anew after a rebalancing: only the layers it has now are reported.
  for (const int start : {3, 5}) {
    const json shard = {{"pipeline_id", "p"}, {"layer_start", start}, {"layer_end", 9}};
    EXPECT_THAT(worker.sent(post(shard.dump(), "/api/v1/pipeline/load")), HasSubstr(" 200 "));
  }
  ASSERT_TRUE(controller.waitForRequests(controller.requests().size() + 2));
  EXPECT_EQ(json::parse(bodyOf(controller.requests().back()))["pipeline_shards"],
            json::parse(R"([{"pipeline_id":"p","layer_start":5,"layer_end":9,"status":"ready"}])"));
}

TEST(DevWorkerProcess, FaultsShowOnTheWire) {
  const std::string cut = Worker({"--fault", "cut"}).ask(kBody);
  EXPECT_THAT(cut, StartsWith("HTTP/1.1 200 "));
  EXPECT_FALSE(json::accept(bodyOf(cut)));
  const std::string cut_stream = Worker({"--fault", "cut"}).ask(kStreamBody);
  EXPECT_THAT(cut_stream, HasSubstr("data: "));
  EXPECT_EQ(cut_stream.find("[DONE]"), std::string::npos);

  EXPECT_EQ(Worker({"--fault", "drop"}).ask(kBody), "");
  EXPECT_EQ(Worker({"--fault", "refuse:0.9999"}).ask(kBody), "");
  EXPECT_EQ(Worker({"--fault", "garbage"}).ask(kBody).find("HTTP"), std::string::npos);
  EXPECT_THAT(Worker({"--fault", "5xx"}).ask(kBody), StartsWith("HTTP/1.1 500 "));
  EXPECT_THAT(Worker({"--fault", "429"}).ask(kBody), HasSubstr("Retry-After: "));
  EXPECT_THAT(Worker({"--fault", "chunked"}).ask(kBody), HasSubstr("\r\n7\r\n"));
  EXPECT_TRUE(json::accept(bodyOf(Worker({"--fault", "slow"}).ask(kBody))));
}

TEST(DevWorkerProcess, AStalledRequestEndsWhenItsClientLeaves) {
  const Worker worker({"--fault", "stall"});
  RawClient client(worker.port());
  client.send(post(kBody));
  ASSERT_TRUE(worker.reaches("in_progress", 1));
  client.close();
  EXPECT_TRUE(worker.reaches("client_gone", 1));
  EXPECT_TRUE(worker.reaches("in_progress", 0));
}

TEST(DevWorkerProcess, PassesStreamsOnAndEndsThemWhenTheClientLeaves) {
  const Worker model_server({"--tokens", "100000", "--tokens-per-second", "200"});
  const Worker worker({"--upstream", "http://127.0.0.1:" + std::to_string(model_server.port())});
  RawClient client(worker.port());
  client.send(post(kStreamBody));
  EXPECT_THAT(client.readUntil("three"), HasSubstr("text/event-stream"));
  client.close();
  EXPECT_TRUE(model_server.reaches("client_gone", 1));
  EXPECT_TRUE(worker.reaches("client_gone", 1));

  const std::string refused = worker.ask(R"({"messages":[]})");
  EXPECT_THAT(refused, StartsWith("HTTP/1.1 400 "));  // the server's own status and words
  EXPECT_THAT(refused, HasSubstr("messages is required"));
}

}  // namespace
}  // namespace tavrel::test
