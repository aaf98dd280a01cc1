#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <nlohmann/json.hpp>
#include <string>

#include "process/controller_process.h"
#include "process/dev_worker_process.h"
#include "support/mock_peer.h"

namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string kKey = "key-of-the-master";
const std::string kWithKey = "X-API-Key: " + kKey + "\r\n";

std::string placeOf(const Controller& controller) {
  return "127.0.0.1:" + std::to_string(controller.port());
}

json post(const Controller& controller, const std::string& path, const json& body) {
  return jsonOf(controller.request("POST", path, body.dump(), kWithKey));
}

DevWorker workerOf(const Controller& controller) {
  return DevWorker({"--controller", "http://" + placeOf(controller), "--id", "w", "--heartbeat-ms",
                    "50", "--model", "m"});
}

json outcomeOf(Controller& master, const std::string& sub, const std::string& type) {
  const json sent = post(master, "/api/v1/hierarchy/sub-controllers/" + sub + "/command",
                         {{"type", type}, {"payload", json::object()}});
  const std::string path = "/api/v1/commands/" + sent.value("command_id", "none") + "/result";
  json result;
  for (int i = 0; i < 500 && !result.contains("completed"); ++i) {
    result = jsonOf(master.get(path, kWithKey));
    master.process().waitForLine("never printed", 10ms);
  }
  return result;
}

TEST(HierarchyProcess, ASubControllerCarriesOutWhatItsMasterOrders) {
  // The master's orders carry the key as well.
  Controller master(
      {"--node-id", "top", "--master-api-key", kKey, "--api-key", kKey, "--require-auth"});
  Controller sub({"--sub", "--node-id", "low", "--master-url", "http://" + placeOf(master),
                  "--master-api-key", kKey, "--api-key", kKey, "--require-auth"});
  EXPECT_TRUE(sub.process().waitForLine("Controller hierarchy initialized as sub", 1s));
  const DevWorker worker = workerOf(sub);
  sub.getUntil("/api/v1/workers", "\"online\"");

  const json listed = outcomeOf(master, "low", "list_workers");
  EXPECT_EQ(listed["command_success"], true);
  EXPECT_EQ(listed["result"]["count"], 1);
  EXPECT_EQ(outcomeOf(master, "low", "ping")["result"],
            (json{{"pong", true}, {"controller_id", "low"}}));
  EXPECT_EQ(outcomeOf(master, "low", "deploy_local_worker")["command_success"], false);
  EXPECT_EQ(outcomeOf(master, "low", "juggle")["error"], "Unknown command type: juggle");
  // A sub is nobody's master, and nobody without the key gives it orders.
  EXPECT_EQ(post(sub, "/api/v1/hierarchy/register", {})["error"],
            "This endpoint is for master controller only");
  EXPECT_THAT(sub.request("POST", "/api/v1/hierarchy/command", R"({"id":"x","type":"ping"})"),
              HasSubstr("HTTP/1.1 401"));

  sub.process().signal(SIGTERM);
  EXPECT_EQ(sub.process().waitForExit(5s), 0);
  EXPECT_TRUE(sub.process().waitForLine("[Hierarchy] Controller hierarchy stopped", 0s));
  // An order for one that is away waits for it.
  const json kept =
      post(master, "/api/v1/hierarchy/sub-controllers/low/command", {{"type", "ping"}});
  EXPECT_EQ(kept["delivered"], false);
}

TEST(HierarchyProcess, ASubWithoutItsMasterDoesNotStart) {
  const UnansweringPort hung;
  const struct {
    std::vector<std::string> options;
    std::string last_error;
  } cases[] = {{{}, "[Controller] Error: --master-url is required when running as sub-controller"},
               {{"--master-url", "http://host:port"},
                "[Controller] Failed to initialize controller hierarchy"},
               {{"--master-url", "127.0.0.1:" + std::to_string(freePort())},
                "[Controller] Failed to start controller hierarchy"}};
  for (const auto& [options, last_error] : cases) {
    std::vector<std::string> arguments{"-b", "127.0.0.1", "-p", "0", "--sub"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    Process process(kController, arguments);
    EXPECT_EQ(process.waitForExit(10s), 1);
    ASSERT_FALSE(process.errorLines().empty());
    EXPECT_EQ(process.errorLines().back(), last_error);
  }
  Process waiting(kController, {"-b", "127.0.0.1", "-p", "0", "--sub", "--master-url",
                                "127.0.0.1:" + std::to_string(hung.port())});
  EXPECT_TRUE(waiting.waitForLine("[Controller] Initializing controller hierarchy...", 10s));
  waiting.signal(SIGTERM);
  EXPECT_EQ(waiting.waitForExit(3s), 0);
}

TEST(HierarchyProcess, AJobClimbsToTheParentAndGoesDownToAChild) {
  Controller parent(
      {"--node-id", "parent", "--cluster-key", kKey, "--api-key", kKey, "--require-auth"});
  const DevWorker worker = workerOf(parent);
  parent.getUntil("/api/v1/workers", "\"online\"");
  Controller child({"--node-id", "child", "--tier", "secondary", "--parent",
                    "http://" + placeOf(parent), "--cluster-key", kKey, "--api-key", kKey,
                    "--require-auth"});
  EXPECT_TRUE(child.process().waitForLine("[Controller] Registered with parent controller", 10s));

  const json climbed =
      post(child, "/api/v1/controllers/forward", {{"type", "job"}, {"capability", "m"}});
  EXPECT_EQ(climbed["forwarded"], true);
  EXPECT_EQ(climbed["parent_response"]["handled_by"], "parent");
  const json known = jsonOf(parent.get("/api/v1/controllers", kWithKey));
  ASSERT_EQ(known["count"], 1);
  EXPECT_EQ(known["controllers"][0]["tier"], "secondary");
  EXPECT_EQ(jsonOf(parent.get("/api/v1/cluster/status", kWithKey))["components"]["controllers"],
            (json{{"count", 2}, {"online", 2}}));
  const json down = post(parent, "/api/v1/controllers/delegate",
                         {{"type", "job"}, {"controller_id", known["controllers"][0]["id"]}});
  EXPECT_EQ(down["child_response"]["handled_by"], "child");
}

TEST(HierarchyProcess, ARouterServesChatsOnTheWorkersOfItsController) {
  const json question{{"model", "m"}, {"messages", {{{"role", "user"}, {"content", "hello"}}}}};
  Controller controller;
  const DevWorker worker = workerOf(controller);
  controller.getUntil("/api/v1/workers", "\"online\"");
  Controller router({"--router-mode", "--node-id", "r", "--controller",
                     "http://" + placeOf(controller), "--sync-interval", "100"});
  router.getUntil("/api/v1/workers", "\"online\"");
  EXPECT_THAT(controller.getUntil("/api/v1/routers", "\"r\""), HasSubstr("\"healthy\""));
  for (const char* path : {"/v1/chat/completions", "/api/v1/chat/completions"}) {
    EXPECT_THAT(router.request("POST", path, question.dump()), HasSubstr("HTTP/1.1 200")) << path;
  }

  controller.process().signal(SIGKILL);
  EXPECT_TRUE(router.process().waitForLine("[Router] Failed to fetch workers", 10s));
  EXPECT_THAT(router.request("POST", "/v1/chat/completions", question.dump()),
              HasSubstr("HTTP/1.1 200"));
  router.process().signal(SIGTERM);
  EXPECT_EQ(router.process().waitForExit(5s), 0);
}

}  // namespace
}  // namespace tavrel::test
