#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "cluster/controller_tiers.h"
#include "cluster/router_registry.h"
#include "controller/routes/families.h"
#include "support/json_client.h"
#include "support/mock_peer.h"
#include "support/test_server.h"
#include "worker/worker_registry.h"

namespace tavrel::test {
namespace {

using nlohmann::json;

/// A controller's tiers over real HTTP.
struct Controller {
  explicit Controller(const std::string& id, const std::string& parent = "")
      : tiers({id, id + "-host", "127.0.0.1", "c",
               parent.empty() ? cluster::ControllerTier::kPrimary
                              : cluster::ControllerTier::kTertiary,
               parent},
              workers, routers, {transport}) {
    api::RouteBook book;
    controller::addControllerRoutes(book, tiers);
    book.get("/api/v1/health", [this](auto&, auto& req) {
      probed_with = req.getHeader("X-API-Key");
      return api::Response::ok({{"status", "ok"}});
    });
    for (const api::Route& route : book.routes()) server.server().addRoute(route);
  }
  std::string address() const { return "127.0.0.1:" + std::to_string(server.port()); }

  TestServer server{api::RouteBook{}};
  net::HttpClient http;
  cluster::HttpControllerTransport transport{http, "the key"};
  worker::WorkerRegistry workers;
  cluster::RouterRegistry routers;
  std::string probed_with = "nothing";
  cluster::ControllerTiers tiers;
  JsonClient client{server};
};

TEST(ControllerRoutes, AChildRegistersAndJobsClimbAndDescend) {
  Controller parent("parent");
  Controller child("child", "http://" + parent.address());
  child.tiers.start(child.server.port());
  const auto deadline = platform::steadyNow() + std::chrono::seconds{10};
  while (parent.client.get("/api/v1/controllers").json["count"] == 0 &&
         platform::steadyNow() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds{2});
  }
  const json known = parent.client.get("/api/v1/controllers").json;
  ASSERT_EQ(known["count"], 1);
  EXPECT_EQ(known["this_controller"]["tier"], "primary");
  EXPECT_EQ(known["controllers"][0]["tier"], "tertiary");
  EXPECT_EQ(known["controllers"][0]["hostname"], "child-host");
  EXPECT_EQ(child.probed_with, "");
  const std::string id = known["controllers"][0]["id"];
  EXPECT_EQ(parent.client.post("/api/v1/controllers/connect", {{"address", child.address()}})
                .json["controller"]["id"],
            id);

  worker::WorkerInfo worker;
  worker.worker_id = "w";
  worker.status = worker::WorkerStatus::kOnline;
  worker.capabilities.installed_models = {"llama3"};
  parent.workers.registerWorker(worker, false);
  worker.capabilities.installed_models = {"phi"};
  child.workers.registerWorker(worker, false);
  const json climbed =
      child.client.post("/api/v1/controllers/forward", {{"type", "chat"}, {"capability", "llama3"}})
          .json;
  EXPECT_EQ(climbed["forwarded_to"], "http://" + parent.address());
  EXPECT_EQ(climbed["parent_response"]["handled_by"], "parent");
  const json descended =
      parent.client.post("/api/v1/controllers/delegate", {{"controller_id", id}, {"type", "chat"}})
          .json;
  EXPECT_EQ(descended["child_response"]["handled_by"], "child");
  EXPECT_EQ(descended["delegated_address"], child.address());
  EXPECT_EQ(parent.client.get("/api/v1/controllers/capabilities").json["capabilities"],
            (json{"llama3", "phi"}));

  const json tree = parent.client.get("/api/v1/controllers/hierarchy").json;
  EXPECT_EQ(tree["children"][0]["address"], child.address());
  EXPECT_EQ(tree["summary"]["total_controllers"], 2);
  EXPECT_EQ(tree["summary"]["direct_workers"], 1);
  EXPECT_EQ(child.client.get("/api/v1/controllers/hierarchy").json["parent"],
            "http://" + parent.address());
  EXPECT_EQ(parent.client.post("/api/v1/controllers/disconnect", {{"id", id}}).status, 200);
  EXPECT_EQ(parent.client.post("/api/v1/controllers/disconnect", {{"id", id}}).error(),
            "Controller not found");
}

TEST(ControllerRoutes, WhatCannotBeDoneIsRefused) {
  Controller primary("primary");
  JsonClient& client = primary.client;
  for (const char* path : {"connect", "disconnect", "forward", "delegate"}) {
    EXPECT_EQ(client.postText(std::string("/api/v1/controllers/") + path, "{").error(),
              "Invalid JSON body");
  }
  const RefusingPort nobody;
  const std::string address = "127.0.0.1:" + std::to_string(nobody.port());
  const std::string connect = "/api/v1/controllers/connect";
  for (const std::string& bad : {address, std::string("a/b"), std::string("host:port")}) {
    const JsonReply reply = client.post(connect, {{"address", bad}});
    EXPECT_EQ(reply.status, 503);
    EXPECT_EQ(reply.error(), "Cannot connect to controller: " + bad);
  }
  EXPECT_EQ(client.post(connect, json::object()).error(), "address is required");
  EXPECT_EQ(client.post(connect, {{"address", address}, {"tier", "x"}}).error(), "Invalid tier: x");
  EXPECT_EQ(client.get("/api/v1/controllers").json["count"], 0);
  EXPECT_EQ(client.post("/api/v1/controllers/disconnect", json::object()).error(),
            "id is required");
  EXPECT_EQ(client.post("/api/v1/controllers/delegate", {{"type", "t"}}).error(),
            "controller_id and type are required");
  EXPECT_EQ(
      client.post("/api/v1/controllers/delegate", {{"type", "t"}, {"controller_id", "x"}}).error(),
      "Target controller not found");
}

}  // namespace
}  // namespace tavrel::test
