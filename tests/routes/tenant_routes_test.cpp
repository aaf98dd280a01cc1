#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "controller/routes/families.h"
#include "net/worker_client.h"
#include "support/daemons.h"
#include "support/json_client.h"
#include "support/mock_peer.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using test::httpAnswer;
using test::MockPeer;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class TenantRoutesTest : public testing::Test {
 protected:
  void addDataWorker(const std::string& id, const std::string& url, const json& details = {},
                     int silent_seconds = 0) {
    test::addDaemon(typed_, worker::WorkerKind::kData, id, url,
                    details.is_null() ? json::object() : details,
                    std::chrono::seconds(silent_seconds));
  }

  test::JsonReply send(const std::string& method, const std::string& path,
                       const std::string& body = "") {
    return client_.send(method, path, body,
                        {{"X-API-Key", "the caller's"},
                         {"Cookie", "tavrel_session=the caller's"},
                         {"Authorization", "Bearer the caller's"}});
  }

  net::HttpClient http_;
  net::WorkerClient workers_{http_};
  worker::TypedWorkerRegistries typed_;
  test::TestServer server_{[this](api::RouteBook& book) {
    addTenantRoutes(book, typed_.of(worker::WorkerKind::kData), workers_);
  }};
  test::JsonClient client_{server_};
};

TEST_F(TenantRoutesTest, ListsOfAllDataWorkersBecomeOne) {
  MockPeer bare(MockPeer::answeringOnce(httpAnswer(200, R"([{"id": "t1"}, 7])")));
  MockPeer wrapped(
      MockPeer::answeringOnce(httpAnswer(200, R"({"tenants": [{"id": "t2"}], "count": 1})")));
  MockPeer broken(MockPeer::answeringOnce(httpAnswer(200, "<html>")));
  MockPeer failing(MockPeer::answeringOnce(httpAnswer(500, R"([{"id": "t3"}])")));
  const test::RefusingPort gone;
  addDataWorker("a", bare.url(""));
  addDataWorker("b", wrapped.url(""), {}, 200);
  addDataWorker("c", broken.url(""));
  addDataWorker("d", failing.url(""));
  addDataWorker("e", "http://127.0.0.1:" + std::to_string(gone.port()));
  const json answer = send("GET", "/api/v1/tenants").json;
  EXPECT_EQ(answer.at("count"), 2);
  EXPECT_THAT(
      answer.at("tenants"),
      testing::UnorderedElementsAre(
          json{{"id", "t1"}, {"data_worker_id", "a"}, {"data_worker_url", bare.url("")}},
          json{{"id", "t2"}, {"data_worker_id", "b"}, {"data_worker_url", wrapped.url("")}}));
}

TEST_F(TenantRoutesTest, ANewTenantGoesWhereThereIsStorageAndRoom) {
  EXPECT_EQ(send("POST", "/api/v1/tenants", "{").error(), "Invalid JSON body");
  EXPECT_EQ(send("POST", "/api/v1/tenants", "{}").status, 503);
  const auto answer = MockPeer::answering(httpAnswer(201, R"({"id": "t1"})"));
  MockPeer without(answer);
  MockPeer full(answer);
  MockPeer roomy(answer);
  MockPeer silent(answer);
  addDataWorker("a", without.url(""));
  addDataWorker("b", full.url(""), {{"storage_enabled", true}});
  addDataWorker("c", roomy.url(""), {{"storage_enabled", true}});
  addDataWorker("d", silent.url(""), {{"storage_enabled", true}}, 121);
  typed_.of(worker::WorkerKind::kData).update("b", [](worker::TypedWorkerInfo& info) {
    info.details["tenant_count"] = 5;
  });
  const auto made = send("POST", "/api/v1/tenants", R"({"name": "acme"})");
  EXPECT_EQ(made.status, 201);
  EXPECT_EQ(made.json, json({{"id", "t1"}}));
  ASSERT_EQ(roomy.requests().size(), 1U);
  EXPECT_THAT(roomy.requests()[0], StartsWith("POST /api/v1/tenants HTTP/1.1"));
  EXPECT_THAT(roomy.requests()[0], HasSubstr(R"({"name": "acme"})"));
  EXPECT_THAT(roomy.requests()[0], Not(HasSubstr("the caller's")));
  EXPECT_TRUE(without.requests().empty() && full.requests().empty() && silent.requests().empty());
}

TEST_F(TenantRoutesTest, TheWorkerThatHasTheTenantAnswers) {
  MockPeer other(MockPeer::answering(httpAnswer(200, R"({"error": "unknown"})")));
  MockPeer stranger(MockPeer::answering(httpAnswer(404, "not here")));
  MockPeer home(MockPeer::answering(httpAnswer(200, R"({"id": "t1"})")));
  MockPeer never(MockPeer::answering(httpAnswer(200, R"({"id": "wrong"})")));
  addDataWorker("a", other.url(""));
  addDataWorker("b", stranger.url(""));
  addDataWorker("c", home.url("/"));
  addDataWorker("d", never.url(""));
  EXPECT_EQ(send("PUT", "/api/v1/tenants/t1", "[]").error(), "Invalid JSON body");
  for (const std::string request : {"GET /t1", "DELETE /t1", "PUT /t1", "GET /t1/usage"}) {
    const auto space = request.find(' ');
    const std::string method = request.substr(0, space);
    const std::string path = "/api/v1/tenants" + request.substr(space + 1);
    const std::string body = method == "PUT" ? R"({"quota": 5})" : "";
    const auto reply = send(method, path, body);
    EXPECT_EQ(reply.status, 200) << request;
    EXPECT_EQ(reply.json, json({{"id", "t1"}})) << request;
    const std::string sent = home.requests().back();
    EXPECT_THAT(sent, StartsWith(method + " " + path + " HTTP/1.1"));
    EXPECT_TRUE(sent.ends_with("\r\n\r\n" + body)) << sent;
    EXPECT_THAT(sent, Not(HasSubstr("the caller's")));
  }
  EXPECT_EQ(other.requests().size(), 4U);
  EXPECT_TRUE(never.requests().empty());
}

TEST_F(TenantRoutesTest, ATenantThatNobodyHasIsNotFoundAndLeavesItsPlaceInNoUrl) {
  MockPeer peer(MockPeer::answering(httpAnswer(200, R"({"error": "unknown"})")));
  addDataWorker("a", peer.url(""));
  for (const char* id : {"t9", "%2e%2e", "..%2f..%2fdelete", "a%3fb%23c", "%0d%0aX:%20y"}) {
    const auto reply = send("DELETE", std::string("/api/v1/tenants/") + id);
    EXPECT_EQ(reply.status, 404) << id;
  }
  EXPECT_EQ(send("GET", "/api/v1/tenants/t9").error(), "Tenant not found");
  for (const std::string& request : peer.requests()) {
    const std::string target = request.substr(0, request.find(" HTTP/1.1\r\n"));
    EXPECT_TRUE(target.ends_with("/api/v1/tenants/t9") ||
                target.find("/api/v1/tenants/%") != std::string::npos ||
                target.find("/api/v1/tenants/a%3Fb%23c") != std::string::npos ||
                target.find("/api/v1/tenants/..%2F") != std::string::npos)
        << target;
    EXPECT_EQ(std::count(target.begin(), target.end(), '/'), 4) << target;
  }
}

}  // namespace
}  // namespace tavrel::controller
