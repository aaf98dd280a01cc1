#include "api/http_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>

#include "platform/blocking.h"
#include "support/mock_peer.h"
#include "support/raw_client.h"
#include "support/test_server.h"

namespace tavrel::api {
namespace {

using test::Gate;
using test::RawClient;
using test::TestServer;
using namespace std::chrono_literals;

Response echo(Context& context, const Request& request) {
  nlohmann::json seen = {{"method", request.method},
                         {"path", request.path},
                         {"body", request.body},
                         {"json", request.json().has_value()},
                         {"remote", request.remote_address},
                         {"route", context.route}};
  seen["query"] = request.query;
  seen["params"] = request.path_params;
  seen["headers"] =
      std::map<std::string, std::string>(request.headers.begin(), request.headers.end());
  return Response::ok(seen);
}

void addEchoRoutes(HttpServer& server) {
  server.get("/echo", echo);
  server.post("/echo", echo);
  server.put("/echo/:id", echo);
  server.del("/echo/:id", echo);
  server.get("/echo/:id", echo);
  server.get("/throws",
             [](Context&, const Request&) -> Response { throw std::runtime_error("on purpose"); });
}

nlohmann::json bodyOf(const httplib::Result& result) {
  return result ? nlohmann::json::parse(result->body) : nlohmann::json();
}

TEST(HttpServer, HandlersSeeTheRequestAsItWasSent) {
  const TestServer server(addEchoRoutes);
  auto client = server.client();
  const auto posted = client.Post("/echo?a=1&b=%20x&a=2",
                                  httplib::Headers{{"x-Thing", "v"}, {"Accept-Encoding", "br"}},
                                  "{\"k\":1}", "application/json");
  ASSERT_TRUE(posted);
  EXPECT_EQ(posted->status, 200);
  EXPECT_FALSE(posted->has_header("Content-Encoding"));
  const auto seen = bodyOf(posted);
  EXPECT_EQ(seen["query"], nlohmann::json({{"a", "2"}, {"b", " x"}}));
  EXPECT_EQ(seen["headers"]["x-Thing"], "v");
  EXPECT_EQ(seen["headers"]["Content-Type"], "application/json");
  EXPECT_FALSE(seen["headers"].contains("REMOTE_ADDR"));
  EXPECT_EQ(seen["json"], true);
  EXPECT_EQ(seen["remote"], "127.0.0.1");
  EXPECT_EQ(client.Put("/echo/a%2Fb", "x", "text/plain")->status, 404);
  EXPECT_EQ(bodyOf(client.Put("/echo/a%20b", "x", "text/plain"))["params"]["id"], "a b");
  EXPECT_EQ(bodyOf(client.Delete("/echo/1"))["route"], "/echo/:id");
  const auto form = client.Post("/echo", httplib::MultipartFormDataItems{{"f", "data", "n", ""}});
  EXPECT_NE(bodyOf(form)["body"].get<std::string>().find("data"), std::string::npos);
}

TEST(HttpServer, EveryAnswerCarriesItsHeaders) {
  const TestServer server(addEchoRoutes);
  auto client = server.client();
  std::set<std::string> ids;
  for (int i = 0; i < 20; ++i) {
    const auto answer = client.Get("/echo");
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->get_header_value("Access-Control-Allow-Origin"), "*");
    EXPECT_EQ(answer->get_header_value("Access-Control-Allow-Methods"),
              "GET, POST, PUT, DELETE, OPTIONS");
    EXPECT_EQ(answer->get_header_value("Access-Control-Allow-Headers"),
              "Content-Type, Authorization, X-API-Key");
    const std::string id = answer->get_header_value("X-Request-ID");
    EXPECT_EQ(id.size(), 20U);
    EXPECT_EQ(id.substr(0, 4), "req-");
    ids.insert(id);
  }
  EXPECT_EQ(ids.size(), 20U);
  const auto head = client.Head("/echo");
  EXPECT_EQ(head->status, 200);
  EXPECT_TRUE(head->body.empty());
}

TEST(HttpServer, UnknownPathsPreflightsAndFailuresAreAnswered) {
  const TestServer server(addEchoRoutes);
  auto client = server.client();
  const auto missing = client.Get("/nothing");
  EXPECT_EQ(missing->status, 404);
  EXPECT_TRUE(missing->body.empty());
  EXPECT_EQ(client.Get("/ec%68o")->status, 200);
  EXPECT_EQ(client.Put("/echo", "x", "text/plain")->status, 404);
  EXPECT_EQ(client.Patch("/echo", "x", "text/plain")->status, 404);
  EXPECT_EQ(client.Get("/" + std::string(7000, 'a'))->status, 404);
  EXPECT_EQ(client.Post("/" + std::string(7000, 'a'), "x", "text/plain")->status, 404);
  EXPECT_EQ(client.Get("/%FF%FE/echo")->status, 404);
  const auto thrown = client.Get("/throws");
  EXPECT_EQ(thrown->status, 500);
  EXPECT_TRUE(thrown->body.empty());
  EXPECT_FALSE(thrown->has_header("EXCEPTION_WHAT"));
  const auto preflight = client.Options("/anything");
  EXPECT_EQ(preflight->status, 204);
  EXPECT_EQ(preflight->get_header_value("Access-Control-Max-Age"), "86400");
  EXPECT_FALSE(preflight->has_header("X-Request-ID"));
}

TEST(HttpServer, MiddlewaresWrapOrdinaryRoutesOutermostFirst) {
  const auto tag = [](const std::string& name) {
    return [name](Context& context, const Request& request, const Handler& next) {
      context.attributes["trace"] += name;
      Response response = next(context, request);
      response.body += name;
      return response;
    };
  };
  const TestServer server([&](HttpServer& s) {
    s.use(tag("a"));
    s.get("/x",
          [](Context& context, const Request&) {
            return Response::text(context.attributes["trace"] + "|", "text/plain");
          },
          {tag("c"), tag("d")});
    s.use(tag("b"));
    s.get("/stopped", [](Context&, const Request&) { return Response::ok({}); },
          {[](Context&, const Request&, const Handler&) { return Response::error(403, "no"); }});
    s.getStream("/stream", [](Context& context, const Request&, StreamWriter& writer) {
      writer.write("<" + context.attributes["trace"] + ">");
    });
  });
  auto client = server.client();
  EXPECT_EQ(client.Get("/x")->body, "abcd|dcba");
  EXPECT_EQ(client.Get("/stopped")->status, 403);
  EXPECT_EQ(client.Get("/stream")->body, "<>");
}

TEST(HttpServer, PipelinedAndHalfClosedRequestsAreAnsweredInOrder) {
  const TestServer server(addEchoRoutes);
  const RawClient client(server.port());
  std::string requests;
  for (int i = 0; i < 50; ++i) {
    requests += "GET /echo/" + std::to_string(i) + " HTTP/1.1\r\nHost: x\r\n\r\n";
  }
  requests += "POST /echo HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc";
  requests += "GET /echo/last HTTP/1.1\r\nConnection: close\r\n\r\n";
  client.send(requests);
  client.halfClose();
  const std::string answers = client.readAll();
  std::size_t at = 0;
  for (int i = 0; i < 50; ++i) {
    at = answers.find("\"path\":\"/echo/" + std::to_string(i) + "\"", at);
    ASSERT_NE(at, std::string::npos) << i;
  }
  EXPECT_NE(answers.find("\"body\":\"abc\"", at), std::string::npos);
  EXPECT_NE(answers.find("/echo/last", at), std::string::npos);
}

TEST(HttpServer, ChunkedBodiesAreReadUpToTheLimit) {
  ServerConfig config;
  config.max_body_bytes = 1000;
  const TestServer server(addEchoRoutes, config);
  const RawClient client(server.port());
  const std::string head = "POST /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
  client.send(head + "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n" + head + "1\r\nf\r\n0\r\n\r\n");
  const std::string answers = client.readUntil("\"body\":\"f\"");
  EXPECT_NE(answers.find("\"body\":\"abcde\""), std::string::npos);
  EXPECT_NE(answers.find("\"body\":\"f\""), std::string::npos);
  client.send(head + "3E9\r\n" + std::string(1001, 'x') + "\r\n0\r\n\r\n");
  const std::string refusal = client.readAll();
  EXPECT_NE(refusal.find("413"), std::string::npos) << refusal;
  const RawClient broken(server.port());
  broken.send(head + "zz\r\nabc\r\n0\r\n\r\n");
  EXPECT_NE(broken.readAll().find("HTTP/1.1 400"), std::string::npos);
  // What follows a chunk of the wrong size is no request of its own.
  const RawClient smuggler(server.port());
  smuggler.send(head + "1\r\naXX\r\nGET /echo HTTP/1.1\r\n\r\n");
  const std::string answer = smuggler.readAll();
  EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 400");
  EXPECT_EQ(answer.find("HTTP/1.1 ", 12), std::string::npos) << answer;
}

TEST(HttpServer, AnAnswerWhoseStatusHasNoBodyEndsWithItsHead) {
  const TestServer server([](HttpServer& routes) {
    addEchoRoutes(routes);
    routes.get("/status/:status", [](Context&, const Request& request) {
      return Response::json({{"not", "sent"}}, std::stoi(request.getPathParam("status")));
    });
  });
  for (const char* status : {"204", "304", "199"}) {
    const RawClient client(server.port());
    client.send("GET /status/" + std::string(status) + " HTTP/1.1\r\n\r\n" +
                "GET /nothing HTTP/1.1\r\nConnection: close\r\n\r\n");
    const std::string answers = client.readAll();
    const std::size_t end = answers.find("\r\n\r\n");
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(answers.substr(9, 3), status);
    EXPECT_EQ(answers.substr(0, end).find("\nContent-"), std::string::npos) << answers;
    EXPECT_EQ(answers.substr(end + 4, 12), "HTTP/1.1 404") << answers;
  }
}

TEST(HttpServer, RangesAreIgnoredHoweverLong) {
  const TestServer server(addEchoRoutes);
  const RawClient client(server.port());
  std::string ranges = "bytes=0-0";
  while (ranges.size() < 8000) ranges += ",0-1";
  client.send("GET /echo HTTP/1.1\r\nRange: nonsense\r\nA: 1\r\nrange: " + ranges +
              "\r\nB: 2\r\nConnection: close\r\n\r\n");
  const std::string answer = client.readAll();
  EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 200");
  EXPECT_NE(answer.find(R"("A":"1","B":"2")"), std::string::npos) << answer;
}

TEST(HttpServer, UnfinishedBodiesLeaveThreadsForOthers) {
  ServerConfig config;
  config.max_threads = 1;  // as few as the server can do with
  const TestServer server(addEchoRoutes, config);
  const std::string lengths = "POST /echo HTTP/1.1\r\nContent-Length: 1000000\r\n\r\nx";
  const std::string chunks = "POST /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\n";
  for (const std::string& text : {lengths, chunks}) {
    std::vector<std::unique_ptr<RawClient>> slow;
    for (int i = 0; i < 500; ++i) {
      slow.push_back(std::make_unique<RawClient>(server.port()));
      slow.back()->send(text);
    }
    const auto answer = server.client().Get("/echo");
    ASSERT_TRUE(answer) << text;
    EXPECT_EQ(answer->status, 200);
    // Some waits for chunks are refused; the others go on.
    if (text == chunks) {
      EXPECT_EQ(slow.back()->readUntil("\r\n").substr(0, 12), "HTTP/1.1 503");
    }
  }
}

TEST(HttpServer, WhatCannotBeServedIsRefusedAndClosed) {
  ServerConfig config;
  config.read_timeout_seconds = 1;
  config.idle_timeout = 1s;
  const TestServer server(addEchoRoutes, config);
  const auto answerTo = [&](const std::string& text) {
    const RawClient client(server.port());
    client.send(text);
    return client.readAll().substr(0, 12);
  };
  EXPECT_EQ(answerTo("\x16\x03\x01 not http"), "HTTP/1.1 400");
  EXPECT_EQ(answerTo("GET / HTTP/1.1\r\n" + std::string(70000, 'a')), "HTTP/1.1 431");
  EXPECT_EQ(answerTo("POST /echo HTTP/1.1\r\nContent-Length: 300000000\r\n\r\n"), "HTTP/1.1 413");
  EXPECT_EQ(answerTo("GET /echo HTTP/1.1\r\nHo"), "HTTP/1.1 408");
  EXPECT_EQ(answerTo("POST /echo HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"), "HTTP/1.1 408");
  EXPECT_EQ(answerTo(""), "");
}

TEST(HttpServer, ABodyMayTakeLongAtAGoodPace) {
  ServerConfig config;
  config.read_timeout_seconds = 1;
  const TestServer server(addEchoRoutes, config);
  const RawClient client(server.port());
  constexpr int kPieces = 15;
  const std::string piece(8192, 'x');
  client.send("POST /echo HTTP/1.1\r\nContent-Length: " + std::to_string(kPieces * 8192) +
              "\r\n\r\n");
  for (int i = 0; i < kPieces; ++i) {  // about 80 KiB/s: well above the least pace
    client.send(piece);
    std::this_thread::sleep_for(100ms);
  }
  EXPECT_EQ(client.readUntil("\r\n").substr(0, 12), "HTTP/1.1 200");
}

TEST(HttpServer, AStreamReachesTheClientPieceByPieceAndNoticesItsLeaving) {
  Gate gate;
  std::atomic<bool> noticed{false};
  const TestServer server([&](HttpServer& s) {
    s.getStream("/stream", [&](Context& context, const Request&, StreamWriter& writer) {
      writer.write("data: one\n\n");
      gate.waitUntilOpen();
      writer.write("data: two\n\n");
      while (!context.client->gone() && writer.write("data: more\n\n"))
        std::this_thread::sleep_for(5ms);
      noticed = true;
    });
  });
  RawClient client(server.port());
  client.send("GET /stream HTTP/1.1\r\n\r\n");
  const std::string first = client.readUntil("data: one\n\n");
  EXPECT_NE(first.find("Content-Type: text/event-stream"), std::string::npos);
  EXPECT_NE(first.find("Cache-Control: no-cache"), std::string::npos);
  EXPECT_EQ(first.find("X-Request-ID"), std::string::npos);
  gate.open();
  EXPECT_NE(client.readUntil("data: two\n\n").find("two"), std::string::npos);
  client.close();
  for (int i = 0; i < 200 && !noticed; ++i) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(noticed);
}

TEST(HttpServer, AStreamThatFailsEndsWithoutItsEndAndHurtsNobodyElse) {
  const TestServer server([](HttpServer& s) {
    s.getStream("/stream", [](Context&, const Request&, StreamWriter& writer) {
      writer.write("data: one\n\n");
      throw std::runtime_error("no second");
    });
  });
  RawClient client(server.port());
  client.send("GET /stream HTTP/1.1\r\n\r\n");
  const std::string all = client.readAll();
  EXPECT_NE(all.find("data: one\n\n"), std::string::npos);
  EXPECT_EQ(all.find("\r\n0\r\n"), std::string::npos);
  EXPECT_EQ(server.client().Get("/nothing")->status, 404);
}

TEST(HttpServer, AnOldClientGetsAStreamWithoutChunksThatTheCloseEnds) {
  const TestServer server([](HttpServer& s) {
    s.getStream("/stream", [](Context&, const Request&, StreamWriter& writer) {
      writer.write("data: one\n\n");
      writer.write("data: two\n\n");
    });
  });
  RawClient client(server.port());
  client.send("GET /stream HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n");
  const std::string all = client.readAll();
  EXPECT_NE(all.find("\r\n\r\ndata: one\n\ndata: two\n\n"), std::string::npos);
  EXPECT_EQ(all.find("chunked"), std::string::npos);
  EXPECT_EQ(all.find("keep-alive"), std::string::npos);
}

TEST(HttpServer, BlockedHandlersDoNotKeepOthersWaiting) {
  Gate gate;
  std::atomic<int> waiting{0};
  const TestServer server([&](HttpServer& s) {
    addEchoRoutes(s);
    s.get("/announced", [&](Context&, const Request&) {
      const platform::BlockingScope blocking;
      ++waiting;
      gate.waitUntilOpen();
      return Response::ok({});
    });
    s.get("/unannounced", [&](Context&, const Request&) {
      ++waiting;
      gate.waitUntilOpen();
      return Response::ok({});
    });
  });
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 100; ++i) {
    clients.push_back(std::make_unique<RawClient>(server.port()));
    clients.back()->send(i % 5 == 0 ? "GET /unannounced HTTP/1.1\r\n\r\n"
                                    : "GET /announced HTTP/1.1\r\n\r\n");
  }
  for (int i = 0; i < 2000 && waiting < 100; ++i) std::this_thread::sleep_for(5ms);
  EXPECT_EQ(waiting, 100);
  EXPECT_EQ(server.client().Get("/echo")->status, 200);
  gate.open();
  for (const auto& client : clients) {
    EXPECT_EQ(client->readUntil("\r\n\r\n").substr(0, 12), "HTTP/1.1 200");
  }
}

TEST(HttpServer, StopEndsStreamsAtOnceAndLetsRequestsFinish) {
  std::atomic<bool> streaming{false};
  std::atomic<bool> working{false};
  auto server = std::make_unique<TestServer>([&](HttpServer& s) {
    s.getStream("/stream", [&](Context& context, const Request&, StreamWriter& writer) {
      writer.write("data: x\n\n");
      streaming = true;
      while (!context.client->gone()) std::this_thread::sleep_for(1ms);
    });
    s.get("/slow", [&](Context&, const Request&) {
      working = true;
      std::this_thread::sleep_for(300ms);
      return Response::ok({});
    });
  });
  const RawClient stream(server->port());
  const RawClient slow(server->port());
  const RawClient idle(server->port());
  stream.send("GET /stream HTTP/1.1\r\n\r\n");
  slow.send("GET /slow HTTP/1.1\r\n\r\n");
  for (int i = 0; i < 2000 && !(streaming && working); ++i) std::this_thread::sleep_for(1ms);
  const auto start = std::chrono::steady_clock::now();
  server->server().stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_FALSE(server->server().isRunning());
  EXPECT_EQ(slow.readAll().substr(0, 12), "HTTP/1.1 200");
  EXPECT_TRUE(stream.closedWithin(1s));
  EXPECT_TRUE(idle.closedWithin(1s));
}

TEST(HttpServer, ATakenOrImpossiblePortFailsTheStart) {
  const TestServer first(addEchoRoutes);
  HttpServer second;
  ServerConfig config;
  config.host = "127.0.0.1";
  config.port = first.port();
  second.configure(config);
  EXPECT_FALSE(second.start());
  EXPECT_FALSE(second.isRunning());
  config.port = 65536 + 8080;  // must not come out as 8080
  second.configure(config);
  EXPECT_FALSE(second.start());
}

}  // namespace
}  // namespace tavrel::api
