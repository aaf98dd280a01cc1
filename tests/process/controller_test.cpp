#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "process/controller_process.h"
#include "support/messages.h"
#include "support/mock_peer.h"

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::string> tagged(const std::vector<std::string>& lines) {
  std::vector<std::string> found;
  for (const std::string& line : lines) {
    if (line.starts_with("[Controller]") || line.starts_with("[EventStream]") ||
        line.starts_with("[MetricsHistory]") || line.starts_with("[Cluster] St")) {
      found.push_back(line);
    }
  }
  return found;
}

TEST(ControllerProcess, StartsAndStopsInOrder) {
  Controller controller({"--node-id", "n"});
  EXPECT_THAT(controller.get("/health"),
              HasSubstr("{\"component\":\"controller\",\"status\":\"ok\"}"));
  controller.process().signal(SIGTERM);
  EXPECT_EQ(controller.process().waitForExit(10s), 0);
  const std::string port = std::to_string(controller.port());
  EXPECT_THAT(
      tagged(controller.process().outputLines()),
      ElementsAre(
          "[Controller] Initializing API authentication...",
          "[Controller] Auth mode: NONE (no authentication required)",
          "[Controller] Initializing event stream service...",
          "[EventStream] Initialized with log_history=1000, event_history=500",
          "[EventStream] Service started", "[Controller] Initializing metrics history service...",
          "[MetricsHistory] Initialized with retention=60 minutes, sample_interval=10 seconds "
          "(max 360 data points per worker)",
          "[Controller] Initializing cluster support...", "[Cluster] Starting cluster manager...",
          "[Controller] This controller: n (primary)",
          "[Controller] Cluster initialized successfully",
          "[Controller] Initializing controller hierarchy...",
          "[Controller] Controller hierarchy initialized as master",
          "[Controller] Registering orchestrator API routes...",
          "[Controller] Orchestrator API routes registered",
          "[Controller] Starting server on 127.0.0.1:0", "[Controller] Press Ctrl+C to stop",
          "[Controller] Server starting on 127.0.0.1:0",
          "[Controller] Listening on 127.0.0.1:" + port,
          "[Controller] Received signal 15, shutting down...", "[Controller] Server stopped",
          "[Cluster] Stopping cluster manager...", "[EventStream] Service stopped",
          "[Controller] Server stopped"));
  EXPECT_TRUE(controller.process().errorLines().empty());
}

TEST(ControllerProcess, HelpAndAWrongTierStartNothing) {
  Process help(kController, {"--port", "1", "--help"});
  EXPECT_EQ(help.waitForExit(10s), 0);
  EXPECT_TRUE(help.waitForLine("Usage: tavrel-controller [options]", 1s));
  EXPECT_TRUE(tagged(help.outputLines()).empty());
  Process wrong(kController, {"--tier", "bogus"});
  EXPECT_EQ(wrong.waitForExit(10s), 1);
  EXPECT_THAT(wrong.errorLines(), ElementsAre("Invalid tier: bogus"));
}

TEST(ControllerProcess, ATakenPortEndsTheStartAndAKilledOneIsFreeAtOnce) {
  Controller first;
  Process second(kController, {"-b", "127.0.0.1", "-p", std::to_string(first.port())});
  EXPECT_EQ(second.waitForExit(10s), 1);
  EXPECT_THAT(second.errorLines(), ElementsAre("[Controller] Failed to start server"));

  const RawClient open(first.port());
  open.send("GET /api/v1/events/stream HTTP/1.1\r\n\r\n");
  open.readUntil("connected");
  first.process().signal(SIGKILL);
  first.process().waitForExit(10s);
  Controller again({}, {}, first.port());
  EXPECT_THAT(again.getUntil("/health", "\"ok\""), HasSubstr("\"ok\""));
}

TEST(ControllerProcess, ASecondSignalEndsItWhileTheFirstIsStillActedOn) {
  Controller controller;
  MockPeer stalled([](MockConnection& connection) { connection.readRequest(); });
  controller.request("POST", "/api/v1/workers/register",
                     R"({"worker_id":"w","ip_address":"127.0.0.1","port":)" +
                         std::to_string(stalled.port()) +
                         R"(,"capabilities":{"installed_models":["m"]}})");
  const std::string body = R"({"model":"m","messages":[{"role":"user","content":"x"}]})";
  const RawClient client(controller.port());
  client.send(postRequest("/v1/chat/completions", body));
  stalled.waitForRequests(1);
  auto& process = controller.process();
  process.signal(SIGTERM);
  EXPECT_TRUE(process.waitForLine("shutting down", 5s));
  EXPECT_EQ(process.waitForExit(400ms), std::nullopt);
  process.signal(SIGTERM);
  EXPECT_EQ(process.waitForExit(500ms), 128 + SIGTERM);
}

TEST(ControllerProcess, TheEnvironmentsKeyGuardsAndIsShownInPartOnly) {
  Controller controller({"--auth-mode", "admin"}, {{"TAVREL_API_KEY", "secret-key-of-the-test"}});
  auto& process = controller.process();
  EXPECT_TRUE(process.waitForLine("API key loaded from TAVREL_API_KEY environment variable", 1s));
  EXPECT_TRUE(process.waitForLine("Auth mode: ADMIN (single key: secret-k...)", 1s));
  EXPECT_THAT(controller.get("/api/v1/events"), HasSubstr("401"));
  EXPECT_THAT(controller.get("/health"), HasSubstr("HTTP/1.1 200"));
  EXPECT_THAT(controller.get("/api/v1/events", "X-API-Key: secret-key-of-the-test\r\n"),
              HasSubstr("HTTP/1.1 200"));
  EXPECT_THAT(controller.get("/api/v1/events", "x-api-key: wrong\r\n"),
              HasSubstr("Invalid API key"));
  process.signal(SIGINT);
  EXPECT_EQ(process.waitForExit(10s), 0);
  for (const std::string& line : process.outputLines()) {
    EXPECT_EQ(line.find("secret-key"), std::string::npos) << line;
  }
}

TEST(ControllerProcess, AMalformedKeyFileEndsTheStart) {
  const TempDirectory home;
  std::filesystem::create_directories(home.file(".config/tavrel"));
  std::ofstream(home.file(".config/tavrel/api_keys.json")) << "{\"api_keys\": [{\"key\": 1}]}";
  Process process(kController, {"--auth-mode", "full", "--api-key", "k", "-p", "0"},
                  {{"HOME", home.path()}});
  EXPECT_EQ(process.waitForExit(10s), 1);
  ASSERT_FALSE(process.errorLines().empty());
  EXPECT_THAT(process.errorLines().front(), HasSubstr("key file"));
}

TEST(ControllerProcess, AFleetAnswersAndItsStreamsDoNotHoldUpTheStop) {
  Controller controller;
  const std::string url = "http://127.0.0.1:" + std::to_string(controller.port());
  const auto worker = [&](const std::string& id, const std::string& rate) {
    return words("--controller " + url + " --id " + id + " --name " + id +
                 " --model m --port 0 --heartbeat-ms 200 --tokens 100 --tokens-per-second " + rate);
  };
  Process one(kDevWorker, worker("w1", "0"));
  Process two(kDevWorker, worker("w2", "0"));
  EXPECT_THAT(controller.getUntil("/api/v1/workers", "\"count\":2"), HasSubstr("\"count\":2"));

  const std::string body = R"({"model":"m","messages":[{"role":"user","content":"one two"}]})";
  EXPECT_THAT(controller.request("POST", "/api/v1/chat/completions", body),
              HasSubstr("\"object\":\"chat.completion\""));
  EXPECT_THAT(controller.request("POST", "/v1/chat/completions", body),
              HasSubstr("X-Tavrel-Worker: w"));
  EXPECT_THAT(controller.get("/v1/models"), HasSubstr("\"id\":\"m\""));

  // A dead worker costs the client nothing.
  one.signal(SIGKILL);
  one.waitForExit(10s);
  for (int i = 0; i < 10; ++i) {
    EXPECT_THAT(controller.request("POST", "/v1/chat/completions", body),
                HasSubstr("X-Tavrel-Worker: w2"));
  }

  Process slow(kDevWorker, worker("w3", "2"));
  two.signal(SIGTERM);
  two.waitForExit(10s);
  controller.getUntil("/api/v1/workers", "\"w3\"");
  const RawClient stream(controller.port());
  const std::string streamed =
      R"({"model":"m","stream":true,"messages":[{"role":"user","content":"x"}]})";
  stream.send(postRequest("/v1/chat/completions", streamed));
  stream.readUntil("data: ");
  const RawClient events(controller.port());
  events.send("GET /api/v1/events/stream HTTP/1.1\r\n\r\n");
  events.readUntil("connected");
  controller.process().signal(SIGTERM);
  EXPECT_EQ(controller.process().waitForExit(5s), 0);
}

}  // namespace
}  // namespace tavrel::test
