#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "cluster/controller_tiers.h"
#include "cluster/router_registry.h"
#include "cluster/router_sync.h"
#include "cluster/worker_mirror.h"
#include "fake_controllers.h"
#include "worker/worker_registry.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;
using test::answerWith;
using test::noAnswer;
using ::testing::Contains;
using ::testing::ElementsAre;

worker::WorkerInfo workerCalled(const std::string& id, const std::string& address = "10.0.0.5") {
  worker::WorkerInfo worker;
  worker.worker_id = id;
  worker.worker_name = "name of " + id;
  worker.ip_address = address;
  worker.port = 8091;
  worker.os = "linux";
  worker.status = worker::WorkerStatus::kOnline;
  worker.capabilities.installed_models = {"llama3"};
  worker.capabilities.supports_triton = true;
  worker.capabilities.max_models = 4;
  worker.capabilities.backend_endpoints.resize(1);
  worker.capabilities.backend_endpoints[0].url = "http://10.0.0.5:1";
  worker.metrics.cpu_cores = 8;
  worker.metrics.memory_total = 64;
  worker.metrics.load_average = {1, 2, 3};
  worker.metrics.gpus.resize(1);
  worker.metrics.gpus[0].memory_total = 24;
  worker.running_models.resize(1);
  worker.running_models[0].name = "llama3";
  worker.labels = {{"rack", "3"}};
  worker.registered_at = platform::WallTime{std::chrono::seconds{1000}};
  worker.config_id = "c";
  return worker;
}

/// A router whose clocks stand still until they are moved, and its controller.
struct Router {
  Router() {
    others.answer = [this](const ControllerCall& call) {
      if (!controller_up) return noAnswer();
      return call.url.ends_with("/workers") ? listing : answerWith({{"success", true}});
    };
  }
  void list(const std::vector<worker::WorkerInfo>& listed) {
    json array = json::array();
    for (const auto& worker : listed) array.push_back(worker.toJson());
    listing = answerWith({{"workers", array}, {"count", array.size()}});
  }
  void tickAfter(std::chrono::seconds passed) {
    now += passed;
    wall += passed;
    lines.clear();
    sync.tick();
  }
  /// Seconds until the next time the controller is asked for its workers.
  int secondsUntilAsked() {
    for (int passed = 1; passed < 1000; ++passed) {
      others.take();
      tickAfter(std::chrono::seconds{1});
      if (!others.take().empty()) return passed;
    }
    return -1;
  }

  test::FakeControllers others;
  bool controller_up = true;
  net::HttpResult listing;
  platform::SteadyTime now{std::chrono::hours{1}};
  platform::WallTime wall{std::chrono::seconds{1'700'000'000}};
  std::vector<std::string> lines;
  worker::WorkerRegistry workers;
  RouterSync sync{{"http://10.0.0.1:8080/", "r 1", "host", "10.0.0.3", 80},
                  workers,
                  {others, [this] { return now; }, [this] { return wall; },
                   [this](std::string_view line) { lines.emplace_back(line); }}};
};

TEST(RouterSync, MirrorsTheControllersWorkers) {
  Router router;
  worker::WorkerInfo gone = workerCalled("gone");
  worker::WorkerInfo off = workerCalled("off", "127.0.0.1");
  off.status = worker::WorkerStatus::kBusy;
  router.list({workerCalled("w"), off, gone});
  router.tickAfter(std::chrono::seconds{0});
  EXPECT_THAT(router.lines, ElementsAre("[Router] Synced 3 workers from controller"));
  worker::WorkerInfo expected = workerCalled("w");
  expected.last_heartbeat = router.wall;
  EXPECT_EQ(router.workers.find("w")->toJson(), expected.toJson());
  EXPECT_TRUE(router.workers.modelAvailable("llama3"));
  EXPECT_EQ(router.workers.find("off")->status, worker::WorkerStatus::kOffline);
  EXPECT_EQ(router.workers.find("off")->ip_address, "10.0.0.1");  // the controller's own machine
  const auto calls = router.others.take();
  EXPECT_EQ(calls.at(0).url, "http://10.0.0.1:8080/api/v1/workers");
  EXPECT_EQ(calls.at(1).url, "http://10.0.0.1:8080/api/v1/routers/r%201/heartbeat");
  EXPECT_EQ(json::parse(calls.at(1).body), (json{{"router_id", "r 1"},
                                                 {"hostname", "host"},
                                                 {"address", "10.0.0.3"},
                                                 {"port", 80},
                                                 {"version", "4.1.0"},
                                                 {"status", "healthy"},
                                                 {"workers_synced", 3}}));

  router.list({workerCalled("w")});
  router.tickAfter(std::chrono::seconds{30});
  EXPECT_THAT(router.lines, ElementsAre("[Router] Removing worker no longer on controller: gone",
                                        "[Router] Removing worker no longer on controller: off",
                                        "[Router] Synced 1 workers from controller"));
}

TEST(RouterSync, ReadsTheHostsStateFromSystemToo) {
  Router router;
  router.listing = answerWith({{"workers",
                                {{{"worker_id", "w"},
                                  {"status", "online"},
                                  {"uptime_seconds", 9},
                                  {"system",
                                   {{"os", "linux"},
                                    {"cpu", {{"cores", 8}, {"load_average", {1, 2, 3}}}},
                                    {"memory", {{"total", 64}}},
                                    {"gpus", {{{"memory_total", 24}}}},
                                    {"cuda_available", true}}}},
                                 {{"worker_id", "bad"}, {"port", "x"}}}}});
  router.workers.registerWorker(workerCalled("bad"), false);
  router.tickAfter(std::chrono::seconds{0});
  const auto worker = router.workers.find("w");
  EXPECT_EQ(worker->os, "linux");
  EXPECT_EQ(worker->metrics.cpu_cores, 8);
  EXPECT_EQ(worker->metrics.load_average[2], 3);
  EXPECT_EQ(worker->metrics.memory_total, 64u);
  EXPECT_EQ(worker->metrics.gpus.at(0).memory_total, 24u);
  EXPECT_EQ(worker->metrics.uptime_seconds, 9u);
  EXPECT_TRUE(worker->capabilities.has_cuda);
  EXPECT_NE(router.workers.find("bad"), nullptr);  // still listed, though unreadable
}

TEST(RouterSync, TheLastListStaysWhileTheControllerIsAway) {
  Router router;
  router.list({workerCalled("w")});
  router.tickAfter(std::chrono::seconds{0});
  router.controller_up = false;
  EXPECT_EQ(router.secondsUntilAsked(), 30);
  EXPECT_THAT(router.lines,
              Contains("[Router] Failed to fetch workers from controller: Couldn't connect to "
                       "server"));
  EXPECT_EQ(router.secondsUntilAsked(), 30);
  EXPECT_EQ(router.secondsUntilAsked(), 60);
  EXPECT_EQ(router.secondsUntilAsked(), 120);
  EXPECT_EQ(router.secondsUntilAsked(), 240);
  EXPECT_EQ(router.secondsUntilAsked(), 300);
  EXPECT_EQ(router.secondsUntilAsked(), 300);
  EXPECT_TRUE(router.workers.reap(router.wall).empty());
  EXPECT_TRUE(router.workers.modelAvailable("llama3"));
  // The clock jumps, and everybody seems to have been silent: for a while, or for long.
  for (const auto jump : {std::chrono::seconds{150}, std::chrono::seconds{7200}}) {
    router.wall += jump;
    EXPECT_EQ(router.workers.reap(router.wall).size(), 1u);
    EXPECT_FALSE(router.workers.modelAvailable("llama3"));
    router.tickAfter(std::chrono::seconds{1});
    EXPECT_TRUE(router.workers.modelAvailable("llama3"));
  }

  router.controller_up = true;
  const std::pair<net::HttpResult, const char*> bad_lists[] = {
      {answerWith({{"error", "Unauthorized"}}, 401), "Failed to fetch workers from controller: "},
      {{"", 0, 200, "<html>", "text/html"}, "Failed to parse worker response: "},
      {answerWith({{"count", 0}}), "Worker sync error: the answer lists no workers"},
      {{"", 0, 200, std::string(std::size_t{1} << 20, '['), ""},
       "Worker sync error: the answer nests too deeply"}};
  for (const auto& [listing, line] : bad_lists) {
    router.listing = listing;
    router.secondsUntilAsked();
    EXPECT_THAT(router.lines, Contains(::testing::HasSubstr(line)));
  }
  EXPECT_NE(router.workers.find("w"), nullptr);
  router.list({});
  router.secondsUntilAsked();
  EXPECT_EQ(router.workers.size(), 0u);
  EXPECT_EQ(router.secondsUntilAsked(), 30);
}

TEST(WorkerMirror, AddsForeignWorkersBesideTheOwn) {
  Router router;
  worker::WorkerInfo own = workerCalled("own");
  own.os = "mine";
  own.last_heartbeat = platform::wallNow();
  router.workers.registerWorker(own, false);
  worker::WorkerInfo namesake = workerCalled("namesake");
  namesake.worker_name = own.worker_name;
  router.list({workerCalled("own"), namesake, workerCalled("a"), workerCalled("b")});
  WorkerMirror mirror(router.workers, router.others);
  EXPECT_EQ(mirror.addFrom("http://m"), 2u);
  EXPECT_EQ(mirror.addFrom("http://m"), 2u);
  EXPECT_EQ(router.workers.find("own")->os, "mine");
  EXPECT_EQ(router.workers.find("namesake"), nullptr);
  // From now on "a" reports here itself.
  router.workers.update("a", [](auto& worker) { worker.last_heartbeat += std::chrono::hours{1}; });
  EXPECT_EQ(mirror.addFrom("http://m"), 1u);
  router.controller_up = false;
  EXPECT_THROW(mirror.addFrom("http://m"), std::runtime_error);
}

/// A controller with a parent, and whoever else answers.
struct Tiers {
  explicit Tiers(const std::string& parent = "http://10.0.0.1:8080",
                 const std::string& address = "10.0.0.2")
      : tiers({"me", "host", address, "c", ControllerTier::kSecondary, parent}, workers, routers,
              environment()) {}
  TiersEnvironment environment() {
    TiersEnvironment env{others};
    env.print = [this](std::string_view line) { lines.emplace_back(line); };
    env.at_once = 1;
    return env;
  }

  test::FakeControllers others;
  std::vector<std::string> lines;
  worker::WorkerRegistry workers;
  RouterRegistry routers;
  ControllerTiers tiers;
};

TEST(ControllerTiers, RegistersWithItsParent) {
  Tiers child;
  EXPECT_FALSE(child.tiers.registerWithParent());
  EXPECT_THAT(child.lines,
              ElementsAre("[Controller] Registering with parent controller: http://10.0.0.1:8080",
                          "[Controller] Failed to register with parent: Couldn't connect to "
                          "server"));
  child.others.answer = [](const auto&) { return answerWith({{"error", "no"}}, 503); };
  EXPECT_FALSE(child.tiers.registerWithParent());
  EXPECT_EQ(child.lines.back(), "[Controller] Failed to register with parent: no");
  child.others.answer = [](const auto&) { return answerWith(json::array()); };
  EXPECT_FALSE(child.tiers.registerWithParent());
  child.others.answer = [](const auto&) {
    return answerWith({{"success", true}, {"controller", {{"id", "ctrl-1"}}}});
  };
  child.others.take();
  EXPECT_TRUE(child.tiers.registerWithParent());
  EXPECT_EQ(child.lines.back(), "[Controller] Assigned controller ID: ctrl-1");
  const auto call = child.others.take().at(0);
  EXPECT_EQ(call.url, "http://10.0.0.1:8080/api/v1/controllers/connect");
  EXPECT_EQ(json::parse(call.body)["tier"], "secondary");
  EXPECT_TRUE(call.with_key);
}

TEST(ControllerTiers, AnIpv6AddressIsOneForTheParentToo) {
  Tiers child("http://[fd00::1]:8080", "fd00::2");
  child.tiers.start(81);
  child.tiers.stop();
  child.tiers.registerWithParent();
  const json body = json::parse(child.others.take().back().body);
  EXPECT_EQ(body["address"], "[fd00::2]:81");
  Tiers parent("");
  parent.others.answer = [](const auto&) { return answerWith({{"status", "ok"}}); };
  EXPECT_EQ(parent.tiers.connect(body).status, 200);
  EXPECT_EQ(parent.others.take().at(0).url, "http://[fd00::2]:81/api/v1/health");
}

TEST(ControllerTiers, AJobIsHandledWhereAWorkerOffersWhatItNeeds) {
  Tiers controller;
  controller.workers.registerWorker(workerCalled("w"), false);
  worker::WorkerInfo off = workerCalled("off");
  off.status = worker::WorkerStatus::kOffline;
  off.capabilities.installed_models = {"phi"};
  controller.workers.registerWorker(off, false);
  for (const char* offered : {"", "llama3", "triton", "supports_triton", "rack", "rack=3"}) {
    const auto done = controller.tiers.forward({{"type", "t"}, {"capability", offered}});
    EXPECT_EQ(done.body, (json{{"forwarded", false}, {"handled_by", "me"}, {"job_type", "t"}}))
        << offered;
  }
  controller.others.answer = [](const auto&) { return answerWith({{"handled_by", "parent"}}); };
  for (const char* missing : {"phi", "vllm", "has_gpu", "rack=4", "max_models"}) {
    const auto done = controller.tiers.forward({{"type", "t"}, {"capability", missing}});
    EXPECT_EQ(done.body["parent_response"]["handled_by"], "parent") << missing;
  }
  const json sent = json::parse(controller.others.take().at(0).body);
  EXPECT_EQ(sent["source_controller"], "me");
  EXPECT_EQ(sent["hops"], 1);
  const auto tired = controller.tiers.forward({{"type", "t"}, {"capability", "x"}, {"hops", 8}});
  EXPECT_EQ(tired.status, 503);
  controller.others.answer = nullptr;
  EXPECT_EQ(controller.tiers.forward({{"type", "t"}, {"capability", "x"}}).status, 503);
  EXPECT_EQ(controller.tiers.forward(json::object()).error, "type is required");

  Tiers top("");
  EXPECT_EQ(top.tiers.forward({{"type", "t"}, {"capability", "x"}}).error,
            "Required capability not available and no parent controller");
}

TEST(ControllerTiers, CapabilitiesAreNotAskedForInCircles) {
  Tiers a("");
  a.others.answer = [&a](const ControllerCall& call) {  // its only child is itself
    const std::size_t mark = call.url.find("hops=");
    if (mark == std::string::npos) return answerWith({{"status", "ok"}});
    return answerWith(a.tiers.capabilities(std::stoi(call.url.substr(mark + 5))));
  };
  a.workers.registerWorker(workerCalled("w"), false);
  ASSERT_EQ(a.tiers.connect({{"address", "10.0.0.2:80"}}).status, 200);
  a.others.take();
  const json all = a.tiers.capabilities(0);
  EXPECT_EQ(all["capabilities"], (json{"llama3", "rack", "supports_triton"}));
  EXPECT_EQ(all["count"], 3);
  const auto asked = a.others.take();
  ASSERT_EQ(asked.size(), 2u);
  // Whoever is asked on the way answers in time, though one below it may hang.
  EXPECT_LT(asked[1].timeouts.total, asked[0].timeouts.total);
}

}  // namespace
}  // namespace tavrel::cluster
