#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ai/moe_router.h"
#include "api/route_book.h"
#include "controller/routes/families.h"
#include "inference/local_model_server.h"
#include "inference/openai_gateway.h"
#include "metrics/metrics_collector.h"
#include "net/http_client.h"
#include "net/worker_connection_pool.h"
#include "support/messages.h"
#include "support/mock_peer.h"
#include "support/raw_client.h"
#include "support/test_server.h"
#include "support/workers.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {
namespace {

using inference::OpenAiSettings;
using nlohmann::json;
using std::chrono::milliseconds;
using test::Gate;
using test::httpAnswer;
using test::MockConnection;
using test::MockPeer;
using test::RawClient;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kChat = "/v1/chat/completions";
constexpr const char* kBody = R"({"model":"m","messages":[{"role":"user","content":"hi"}]})";
constexpr const char* kStreamBody =
    R"({"model":"m","stream":true,"messages":[{"role":"user","content":"hi"}]})";
constexpr const char* kJson = "Content-Type: application/json\r\n";
constexpr const char* kStreamHead =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream; charset=utf-8\r\n\r\n";
constexpr const char* kDone = "data: [DONE]\n\n";
const std::string kCompletion =
    "{ \"id\":\"x\",\"unknown\":[1, 2],\n \"usage\":{\"prompt_tokens\":3,\"completion_tokens\":4} "
    "}";

std::string completion() {
  return httpAnswer(200, kCompletion, kJson);
}

json errorOf(const httplib::Result& result) {
  return json::parse(result->body).at("error");
}

class OpenAiRoutes : public testing::Test {
 protected:
  void addWorker(const std::string& id, int port, std::vector<std::string> models = {"m"}) {
    registry_.registerWorker(test::onlineWorker(id, port, std::move(models)), false);
  }
  void addWorker(const std::string& id, const MockPeer& peer) { addWorker(id, peer.port()); }

  /// Starts the server on first use, with `settings_` as they are then.
  test::TestServer& server() {
    if (!server_) {
      gateway_ = std::make_unique<inference::OpenAiGateway>(registry_, pool_, experts_, *local_,
                                                            metrics_, settings_);
      server_ = std::make_unique<test::TestServer>(
          [this](api::RouteBook& book) { addOpenAiRoutes(book, *gateway_); });
    }
    return *server_;
  }
  httplib::Result post(const std::string& body = kBody, const char* path = kChat,
                       const httplib::Headers& headers = {}) {
    return server().client().Post(path, headers, body, "text/plain");
  }
  std::unique_ptr<RawClient> rawPost(const std::string& body) {
    auto client = std::make_unique<RawClient>(server().port());
    client->send(test::postRequest(kChat, body));
    return client;
  }
  std::string metrics() const { return metrics_.getPrometheusMetrics(); }
  void useLocalServer(const MockPeer& peer) {
    local_ = std::make_unique<inference::LocalModelServer>(http_, peer.url(""));
  }

  worker::WorkerRegistry registry_;
  net::HttpClient http_;
  net::WorkerConnectionPool pool_{net::WorkerConnectionPool::Limits{}};
  ai::MoeRouter experts_;
  metrics::MetricsCollector metrics_;
  OpenAiSettings settings_;
  test::RefusingPort nobody_;
  std::unique_ptr<inference::LocalModelServer> local_ =
      std::make_unique<inference::LocalModelServer>(
          http_, "http://127.0.0.1:" + std::to_string(nobody_.port()));
  std::unique_ptr<inference::OpenAiGateway> gateway_;
  std::unique_ptr<test::TestServer> server_;
};

TEST_F(OpenAiRoutes, RequestAndAnswerPassAsTheyCame) {
  MockPeer peer(MockPeer::answering(
      httpAnswer(201, kCompletion, "Content-Type: application/json; charset=latin\r\n")));
  addWorker("w-1", peer);
  const std::vector<std::pair<const char*, std::string>> calls = {
      {kChat, "{\n \"messages\":[ {} ], \"zz\":1.50, \"model\" : \"m\", \"tools\":[{\"a\":null}]}"},
      {"/v1/completions", R"({"model":"m","prompt":"\u00e9","unknown":{}})"},
      {"/v1/embeddings", R"({"input":["a"],"model":"m","dimensions":1e2})"}};
  for (const auto& [path, body] : calls) {
    const auto answer =
        post(body, path, {{"Authorization", "Bearer secret"}, {"X-API-Key", "secret"}});
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 201);
    EXPECT_EQ(answer->body, kCompletion);
    EXPECT_EQ(answer->get_header_value("Content-Type"), "application/json; charset=latin");
    EXPECT_EQ(answer->get_header_value("X-Tavrel-Worker"), "w-1");
    EXPECT_THAT(answer->get_header_value("X-Request-ID"), StartsWith("req-"));
    const std::string sent = peer.requests().back();
    EXPECT_EQ(sent, "POST " + std::string(path) +
                        " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(peer.port()) +
                        "\r\nContent-Type: application/json\r\nContent-Length: " +
                        std::to_string(body.size()) + "\r\n\r\n" + body);
  }
  EXPECT_EQ(peer.connections(), 1U);
}

TEST_F(OpenAiRoutes, RefusalsHaveTheShapeClientsRead) {
  EXPECT_THAT(metrics(), Not(HasSubstr("tavrel_gateway")));
  const auto not_json = post("model=m");
  EXPECT_EQ(not_json->status, 400);
  EXPECT_EQ(errorOf(not_json).at("type"), "invalid_request_error");
  const auto unknown = post();
  EXPECT_EQ(unknown->status, 404);
  EXPECT_EQ(unknown->get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(errorOf(unknown), json({{"message", "Model 'm' not found on any worker or locally"},
                                    {"type", "invalid_request_error"},
                                    {"param", "model"},
                                    {"code", "model_not_found"}}));
  EXPECT_THAT(metrics(), HasSubstr("tavrel_gateway_requests_total{endpoint=\"chat_completions\","
                                   "outcome=\"refused\"} 2"));
}

TEST_F(OpenAiRoutes, AClientsFaultIsNotTriedElsewhere) {
  MockPeer peer(MockPeer::answering(httpAnswer(422, "no json", "Content-Type: text/odd\r\n")));
  MockPeer other(MockPeer::answering(completion()));
  addWorker("a", peer);
  addWorker("b", other);
  const auto answer = post();
  EXPECT_EQ(answer->status, 422);
  EXPECT_EQ(answer->body, "no json");
  EXPECT_EQ(answer->get_header_value("Content-Type"), "text/odd");
  EXPECT_TRUE(other.requests().empty());
}

TEST_F(OpenAiRoutes, AKeptConnectionThatDiedIsReplacedAndIsNoFault) {
  MockPeer peer([](MockConnection& connection) {
    connection.readRequest();
    connection.send(completion());
    connection.readRequest();  // taken, but the connection closes instead of an answer
    connection.close();
  });
  addWorker("a", peer);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(post()->status, 200);
  EXPECT_EQ(peer.connections(), 4U);
  EXPECT_THAT(metrics(), Not(HasSubstr("tavrel_gateway_retries_total 1")));
  EXPECT_THAT(metrics(), Not(HasSubstr("tavrel_gateway_workers_passed_over 1")));
}

struct Fault {
  const char* name;
  std::string answer;  // then the worker hangs up
};
class FaultyWorker : public OpenAiRoutes, public testing::WithParamInterface<Fault> {};

TEST_P(FaultyWorker, IsReplacedByTheNextBest) {
  MockPeer faulty(MockPeer::answeringOnce(GetParam().answer));
  MockPeer good(MockPeer::answering(completion()));
  addWorker("a", faulty);
  addWorker("b", good);
  const auto answer = post();
  ASSERT_EQ(answer->status, 200);
  EXPECT_EQ(answer->body, kCompletion);
  EXPECT_EQ(answer->get_header_value("X-Tavrel-Worker"), "b");
  EXPECT_EQ(faulty.requests().size(), 1U);
  EXPECT_THAT(good.requests().at(0), EndsWith(kBody));
  EXPECT_THAT(metrics(), HasSubstr("tavrel_gateway_retries_total 1"));
}

INSTANTIATE_TEST_SUITE_P(
    OpenAiRoutes, FaultyWorker,
    testing::Values(Fault{"Dropped", ""}, Fault{"DroppedInTheHead", "HTTP/1.1 200 OK\r\nConte"},
                    Fault{"DroppedInTheBody", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{\"a\""},
                    Fault{"NotHttp", "220 mail.example ESMTP\r\n\r\n"},
                    Fault{"NotJson", httpAnswer(200, "<html>", kJson)},
                    Fault{"Redirect", httpAnswer(302, "", "Location: http://example.com\r\n")},
                    Fault{"Status500", httpAnswer(500, "{}", kJson)},
                    Fault{"Status502", httpAnswer(502, "{}", kJson)},
                    Fault{"Status504", httpAnswer(504, "{}", kJson)},
                    Fault{"Status429", httpAnswer(429, "{}", kJson)},
                    Fault{"Status503", httpAnswer(503, "{}", kJson)},
                    Fault{"StreamBeforeItsFirstEvent", kStreamHead}),
    [](const auto& test) { return test.param.name; });

TEST_F(OpenAiRoutes, TheLastWorkersOwnAnswerCountsAfterTwoRetries) {
  const std::string busy = R"({"error":{"message":"full"}})";
  MockPeer peer(MockPeer::answering(httpAnswer(503, busy, "Retry-After: 7\r\n")));
  for (const char* id : {"a", "b", "c", "d"}) addWorker(id, peer);
  const auto answer = post();
  EXPECT_EQ(answer->status, 503);
  EXPECT_EQ(answer->body, busy);
  EXPECT_EQ(answer->get_header_value("Retry-After"), "7");
  EXPECT_EQ(answer->get_header_value("X-Tavrel-Worker"), "c");
  EXPECT_EQ(peer.requests().size(), 3U);
}

TEST_F(OpenAiRoutes, OnlyFaultsGetAWorkerPassedOver) {
  MockPeer full(MockPeer::answering(httpAnswer(429, "{}")));
  MockPeer broken(MockPeer::answering(httpAnswer(500, "{}")));
  for (const char* id : {"a", "b"}) addWorker(id, full.port(), {"full"});
  for (const char* id : {"x", "y"}) addWorker(id, broken.port(), {"broken"});
  const std::string tail = R"(","messages":[{}]})";
  for (int i = 0; i < 4; ++i) {
    const auto answer = post(R"({"model":"full)" + tail);
    EXPECT_EQ(answer->status, 429);
    EXPECT_EQ(answer->get_header_value("Retry-After"), "1");
    EXPECT_EQ(post(R"({"model":"broken)" + tail)->status, 500);
  }
  EXPECT_EQ(full.requests().size(), 8U);
  EXPECT_EQ(broken.requests().size(), 7U);  // from the fourth time on one of the two is spared
  EXPECT_THAT(metrics(), HasSubstr("tavrel_gateway_workers_passed_over 2"));
  gateway_->tidy(platform::steadyNow() + std::chrono::hours(1));
  EXPECT_THAT(metrics(), HasSubstr("tavrel_gateway_workers_passed_over 0"));
}

TEST_F(OpenAiRoutes, AnUnreachableWorkerIsABadGateway) {
  addWorker("odd id\r\nX: y", nobody_.port());
  const auto refused = post();
  EXPECT_EQ(refused->status, 502);
  EXPECT_EQ(errorOf(refused).at("code"), "worker_unreachable");
  EXPECT_THAT(rawPost(kBody)->readUntil("\r\n\r\n"),
              HasSubstr("\r\nX-Tavrel-Worker: odd%20id%0D%0AX%3A%20y\r\n"));
}

TEST_F(OpenAiRoutes, AWorkerThatTakesAllItsTimeIsATimeoutAndNotTriedElsewhere) {
  settings_.stall_timeout = milliseconds(50);
  MockPeer silent([](MockConnection& connection) { connection.readRequest(); });
  addWorker("a", silent);
  addWorker("b", silent);
  for (const char* body : {kBody, kStreamBody}) {
    const auto late = post(body);
    EXPECT_EQ(late->status, 504);
    EXPECT_EQ(errorOf(late).at("code"), "worker_timeout");
  }
  EXPECT_EQ(silent.requests().size(), 2U);
}

TEST_F(OpenAiRoutes, AWorkerThatMovedIsFoundAtItsNewAddress) {
  MockPeer before(MockPeer::answering(completion()));
  MockPeer after(MockPeer::answering(completion()));
  addWorker("a", before);
  EXPECT_EQ(post()->status, 200);
  addWorker("a", after);
  EXPECT_EQ(post()->status, 200);
  EXPECT_EQ(after.requests().size(), 1U);
}

TEST_F(OpenAiRoutes, ALateErrorThatNestsWithoutEndIsNotWrittenAgain) {
  settings_.keep_alive = milliseconds(20);
  Gate gate;
  const std::string deep = std::string(100'000, '[') + std::string(100'000, ']');
  MockPeer peer([&](MockConnection& connection) {
    connection.readRequest();
    connection.waitFor(gate);
    connection.send(httpAnswer(400, "{\"error\":" + deep + "}"));
  });
  addWorker("a", peer);
  const auto client = rawPost(kStreamBody);
  client->readUntil(": keep-alive");
  gate.open();
  EXPECT_THAT(client->readUntil("invalid_worker_response"), HasSubstr("invalid_worker_response"));
}

TEST_F(OpenAiRoutes, EventsReachTheClientAtOnceAndUnchanged) {
  const std::string first = "data: {\"n\":1}\r\n\r\n";
  const std::string rest =
      ": worker's comment\n\ndata: {\"choices\":[],\"usage\":{\"prompt_tokens\":30,"
      "\"completion_tokens\":40}}\n\n";
  Gate gate;
  MockPeer peer([&](MockConnection& connection) {
    connection.readRequest();
    connection.send(kStreamHead + first);
    connection.waitFor(gate);
    connection.send(rest + kDone);
    connection.close();
  });
  addWorker("a", peer);
  const auto client = rawPost(kStreamBody);
  const std::string begin = client->readUntil(first);
  EXPECT_THAT(begin, HasSubstr("Content-Type: text/event-stream; charset=utf-8\r\n"));
  EXPECT_THAT(begin, HasSubstr("X-Tavrel-Worker: a\r\n"));
  EXPECT_THAT(begin, EndsWith(first + "\r\n"));
  gate.open();
  client->readUntil("\r\n0\r\n\r\n");
  EXPECT_EQ(post(kStreamBody)->body, first + rest + kDone);
  EXPECT_THAT(metrics(), HasSubstr("{backend=\"unknown\",model=\"m\",type=\"completion\"} 80"));
}

/// How a stream can go wrong after its first event.
struct Break {
  const char* name;
  std::string head;
  std::string last;  // sent after the first event
  bool hang_up;
  const char* code;
};
class BrokenStream : public OpenAiRoutes, public testing::WithParamInterface<Break> {};

TEST_P(BrokenStream, EndsWithAnErrorEventAndNeverWithDone) {
  settings_.stall_timeout = milliseconds(300);
  settings_.keep_alive = milliseconds(100);
  MockPeer peer([](MockConnection& connection) {
    connection.readRequest();
    connection.send(GetParam().head + GetParam().last);
    if (GetParam().hang_up) connection.close();
  });
  MockPeer other(MockPeer::answering(completion()));
  addWorker("a", peer);
  addWorker("b", other);
  const auto answer = post(kStreamBody);
  ASSERT_EQ(answer->status, 200);
  EXPECT_THAT(answer->body, StartsWith("data: 1\n\n"));
  EXPECT_THAT(answer->body, Not(HasSubstr("[DONE]")));
  EXPECT_THAT(answer->body, Not(HasSubstr("half")));
  EXPECT_THAT(answer->body, Not(HasSubstr("keep-alive")));
  EXPECT_THAT(answer->body, EndsWith("}}\n\n"));
  const std::size_t event = answer->body.rfind("data: ");
  EXPECT_EQ(answer->body.substr(event - 2, 2), "\n\n");
  const json error = json::parse(answer->body.substr(event + 6)).at("error");
  EXPECT_EQ(error.at("code"), GetParam().code);
  EXPECT_TRUE(other.requests().empty());
}

const std::string kChunkedHead =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nTransfer-Encoding: chunked\r\n\r\n";
INSTANTIATE_TEST_SUITE_P(
    OpenAiRoutes, BrokenStream,
    testing::Values(Break{"ChunkedDies", kChunkedHead, "9\r\ndata: 1\n\n\r\n", true,
                          "worker_disconnected"},
                    Break{"UnframedDies", kStreamHead, "data: 1\n\n", true, "worker_disconnected"},
                    Break{"DiesInsideAnEvent", kStreamHead, "data: 1\n\ndata: {\"half", true,
                          "worker_disconnected"},
                    Break{"DiesInsideAChunk", kChunkedHead, "ff\r\ndata: 1\n\ndata: {\"half", true,
                          "worker_disconnected"},
                    Break{"Garbage", kChunkedHead, "9\r\ndata: 1\n\n\r\nzz\r\n", false,
                          "invalid_worker_response"},
                    Break{"Stalls", kStreamHead, "data: 1\n\n", false, "worker_timeout"}),
    [](const auto& test) { return test.param.name; });

TEST_F(OpenAiRoutes, AWorkerThatForgetsToHangUpAfterItsLastWordIsNoFault) {
  settings_.stall_timeout = milliseconds(200);
  MockPeer peer([](MockConnection& connection) {
    connection.readRequest();
    connection.send(std::string(kStreamHead) + "data: 1\n\n" + kDone);
  });
  addWorker("a", peer);
  EXPECT_EQ(post(kStreamBody)->body, std::string("data: 1\n\n") + kDone);
  EXPECT_THAT(metrics(), HasSubstr("outcome=\"ok\"} 1"));
}

TEST_F(OpenAiRoutes, AStreamThatHasNotBegunFailsWithItsRealStatus) {
  const std::string body = R"({"error":{"message":"too long"}})";
  MockPeer refusing(MockPeer::answering(httpAnswer(400, body, kJson)));
  MockPeer plain(MockPeer::answering(completion()));
  addWorker("a", refusing);
  addWorker("b", plain.port(), {"plain"});
  const auto refused = post(kStreamBody);
  EXPECT_EQ(refused->status, 400);
  EXPECT_EQ(refused->body, body);
  // A worker that does not stream is handed on as it is.
  const auto whole = post(R"({"model":"plain","stream":true,"messages":[1]})");
  EXPECT_EQ(whole->body, kCompletion);
  EXPECT_EQ(whole->get_header_value("Content-Type"), "application/json");
}

/// A worker that thinks for a while: what it says in the end, and what the client gets after the
/// comments.
struct Thinker {
  const char* name;
  std::string first;  // before it thinks
  std::string last;
  std::string tail;
};
class SlowStream : public OpenAiRoutes, public testing::WithParamInterface<Thinker> {};

TEST_P(SlowStream, IsKeptAliveWithCommentsUntilItsFirstEvent) {
  settings_.keep_alive = milliseconds(20);
  Gate gate;
  MockPeer peer([&](MockConnection& connection) {
    connection.readRequest();
    connection.send(GetParam().first);
    connection.waitFor(gate);
    connection.send(GetParam().last);
    connection.close();
  });
  MockPeer other(MockPeer::answering(completion()));
  addWorker("a", peer);
  addWorker("b", other);
  const auto client = rawPost(kStreamBody);
  const std::string comment = ": keep-alive\n\n";
  EXPECT_THAT(client->readUntil(comment + "\r\n"), StartsWith("HTTP/1.1 200 "));
  EXPECT_THAT(client->readUntil(comment), HasSubstr(comment));
  gate.open();
  const std::string end = client->readUntil("\r\n0\r\n\r\n");
  EXPECT_THAT(end, HasSubstr(GetParam().tail));
  EXPECT_TRUE(other.requests().empty());
}

INSTANTIATE_TEST_SUITE_P(
    OpenAiRoutes, SlowStream,
    testing::Values(Thinker{"BeforeItsHead", "", std::string(kStreamHead) + "data: 1\n\n" + kDone,
                            "data: 1\n\ndata: [DONE]\n\n\r\n"},
                    Thinker{"AfterItsHead", kStreamHead, std::string("data: 1\n\n") + kDone,
                            "data: 1\n\ndata: [DONE]\n\n\r\n"},
                    Thinker{"AndFails", "", httpAnswer(500, "{\"error\":\n{\"message\":\"oom\"}}"),
                            "data: {\"error\":{\"message\":\"oom\"}}\n\n"},
                    Thinker{"AndDies", "", "", "\"code\":\"worker_disconnected\""},
                    Thinker{"AndDoesNotStream", "", completion(),
                            "\"code\":\"invalid_worker_response\""}),
    [](const auto& test) { return test.param.name; });

/// When the client leaves.
struct Leaving {
  const char* name;
  const char* body;
  std::string sent;  // by the worker, before it goes silent
};
class LeavingClient : public OpenAiRoutes, public testing::WithParamInterface<Leaving> {};

TEST_P(LeavingClient, TakesTheWorkersConnectionAlong) {
  Gate sent;
  MockPeer dropping(MockPeer::answeringOnce(""));
  MockPeer peer([&](MockConnection& connection) {
    connection.readRequest();
    connection.send(GetParam().sent);
    sent.open();
  });
  addWorker("a", dropping);  // so that the worker left alone is a retry
  addWorker("b", peer);
  const auto client = rawPost(GetParam().body);
  ASSERT_TRUE(peer.waitForRequests(1));
  ASSERT_TRUE(sent.waitUntilOpen());
  if (GetParam().sent.ends_with("\n\n")) client->readUntil("data: 1");
  const auto left = platform::steadyNow();
  client->close();
  const auto hung_up = peer.waitForHangUp(0);
  ASSERT_TRUE(hung_up.has_value());
  EXPECT_LT(*hung_up - left, std::chrono::seconds(1));
  server().server().stop();
  EXPECT_THAT(metrics(), HasSubstr("tavrel_gateway_client_gone_total 1"));
  EXPECT_THAT(metrics(), Not(HasSubstr("outcome=\"worker_fault\"")));
}

INSTANTIATE_TEST_SUITE_P(OpenAiRoutes, LeavingClient,
                         testing::Values(Leaving{"WhileWaiting", kBody, ""},
                                         Leaving{"InsideTheBody", kBody,
                                                 "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{"},
                                         Leaving{"BeforeTheStream", kStreamBody, ""},
                                         Leaving{"WhileStreaming", kStreamBody,
                                                 std::string(kStreamHead) + "data: 1\n\n"}),
                         [](const auto& test) { return test.param.name; });

TEST_F(OpenAiRoutes, AnExpertsModelReplacesOnlyTheModelsText) {
  MockPeer peer(MockPeer::answering(completion()));
  addWorker("a", peer.port(), {"coder:7b"});
  addWorker("b", peer.port(), {"m"});
  experts_.update({{"enabled", true}});
  experts_.addExpert(
      {{"id", "e"}, {"model", "coder:7b"}, {"keywords", {"python"}}, {"enabled", true}});
  experts_.addExpert(
      {{"id", "f"}, {"model", "nowhere"}, {"keywords", {"rust"}}, {"enabled", true}});
  const auto body = [](const std::string& model, const std::string& about) {
    return "{ \"model\" : \"" + model + R"(", "messages":[{"role":"user","content":")" + about +
           "\"}],\"x\":1.0 }";
  };
  EXPECT_EQ(post(body("m", "My Python"))->get_header_value("X-Tavrel-Worker"), "a");
  EXPECT_THAT(peer.requests().back(), EndsWith("\r\n\r\n" + body("coder:7b", "My Python")));
  EXPECT_EQ(post(body("m", "My Rust"))->get_header_value("X-Tavrel-Worker"), "b");
  EXPECT_THAT(peer.requests().back(), EndsWith("\r\n\r\n" + body("m", "My Rust")));
}

TEST_F(OpenAiRoutes, AModelNoWorkerHasIsAskedOfTheLocalServer) {
  MockPeer local([](MockConnection& connection) {
    while (true) {
      const std::string request = connection.readRequest();
      if (request.empty()) return;
      connection.send(request.starts_with("GET /api/tags")
                          ? httpAnswer(200, R"({"models":[{"name":"m"}]})", kJson)
                          : completion());
    }
  });
  useLocalServer(local);
  const auto answer = post();
  EXPECT_EQ(answer->status, 200);
  EXPECT_EQ(answer->body, kCompletion);
  EXPECT_EQ(answer->get_header_value("X-Tavrel-Worker"), "local");
  EXPECT_THAT(local.requests().back(), StartsWith("POST /v1/chat/completions HTTP/1.1\r\n"));
  EXPECT_THAT(local.requests().back(), EndsWith(std::string("\r\n\r\n") + kBody));
  EXPECT_EQ(post(R"({"model":"other","messages":[1]})")->status, 404);
}

}  // namespace
}  // namespace tavrel::controller
