#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "api/plain_request.h"
#include "support/raw_client.h"
#include "support/test_server.h"

namespace tavrel::api {
namespace {

using nlohmann::json;

Response echo(const Request& request) {
  json headers = json::object();
  for (const auto& [name, value] : request.headers) headers[name] = value;
  return Response::ok({{"method", request.method},
                       {"path", request.path},
                       {"query", request.query},
                       {"params", request.path_params},
                       {"headers", std::move(headers)},
                       {"body", request.body},
                       {"address", request.remote_address}});
}

/// What a handler gets of a request.
class EchoServer {
 public:
  json handled(const std::string& text) const {
    const test::RawClient client(server_.port());
    client.send(text);
    client.halfClose();
    const std::string answer = client.readAll();
    const std::size_t blank = answer.find("\r\n\r\n");
    const std::string body = blank == std::string::npos ? "" : answer.substr(blank + 4);
    json seen = body.empty() ? json::object() : json::parse(body);
    seen["status"] = answer.substr(0, answer.find("\r\n"));
    return seen;
  }

 private:
  test::TestServer server_{[](HttpServer& server) {
    for (const char* pattern : {"/a", "/a/:id", "/"}) {
      server.get(pattern, [](auto&, const Request& request) { return echo(request); });
      server.post(pattern, [](auto&, const Request& request) { return echo(request); });
      server.put(pattern, [](auto&, const Request& request) { return echo(request); });
      server.del(pattern, [](auto&, const Request& request) { return echo(request); });
    }
  }};
};

// A request that is read here must look to handlers as if the library had read it. The field with
// an escape sends the same request through the library.
TEST(PlainRequest, IsReadAsTheLibraryReadsIt) {
  const char* const kLines[] = {"GET /a HTTP/1.1",
                                "GET / HTTP/1.1",
                                "GET /a?x=1 HTTP/1.1",
                                "GET /a?x=1&y=2&x=3 HTTP/1.1",
                                "GET /a/b.c-d_e~f:g@h,i;j HTTP/1.1",
                                "DELETE /a/7 HTTP/1.1",
                                "GET //a HTTP/1.1",
                                "GET /a/ HTTP/1.1",
                                "GET /a?x=/y/?z HTTP/1.1",
                                "GET /a?x HTTP/1.1",
                                "GET /a?=x HTTP/1.1",
                                "GET /a?x=1=2 HTTP/1.1",
                                "GET /a?x=1&&y=2 HTTP/1.1",
                                "GET /a?x=1& HTTP/1.1",
                                "GET /a? HTTP/1.1",
                                "GET /a#f HTTP/1.1",
                                "GET /a+b?c=d+e HTTP/1.1",
                                "GET /a/%41?b=%42 HTTP/1.1",
                                "GET http://h/a HTTP/1.1",
                                "GET /a HTTP/1.0",
                                "GET /a  HTTP/1.1",
                                "BREW /a HTTP/1.1",
                                "HEAD /a/%62 HTTP/1.1",
                                "OPTIONS /a HTTP/1.1"};
  const char* const kFields[] = {
      "Host: h\r\n",
      "host:h\r\nUSER-AGENT:  curl/8 (x; y)  \r\nAccept: */*\r\nAccept-Encoding: gzip, br\r\n",
      "Host: h\r\nCookie: a=1; b=\"2\"\r\nX-A: one\r\nx-a: two\r\nX-Empty:\r\n",
      "Host: h\r\nX-Percent: 100%41\r\nRange: bytes=0-1\r\nREMOTE_ADDR: 9.9.9.9\r\n",
      "Host: h\r\nX-Latin: \xe9\r\nConnection: keep-alive\r\nContent-Type: text/plain\r\n"};
  const EchoServer server;
  for (const char* line : kLines) {
    for (const char* fields : kFields) {
      const std::string head = std::string(line) + "\r\n" + fields;
      json by_library = server.handled(head + "X-Escaped: %20\r\n\r\n");
      if (by_library.contains("headers")) by_library["headers"].erase("X-Escaped");
      EXPECT_EQ(server.handled(head + "\r\n"), by_library) << head;
    }
  }
}

TEST(PlainRequest, BodiesAreReadAsTheLibraryReadsThem) {
  const EchoServer server;
  const std::string large(3 << 20, 'x');
  for (const std::string& body : {std::string(), std::string("{\"a\":1}"), large}) {
    for (const char* method : {"POST", "PUT", "DELETE", "GET", "PATCH"}) {
      const std::string head =
          std::string(method) + " /a HTTP/1.1\r\nHost: h\r\nContent-Type: " +
          "application/x-www-form-urlencoded\r\nContent-Length: " + std::to_string(body.size()) +
          "\r\n";
      json by_library = server.handled(head + "X-Escaped: %20\r\n\r\n" + body);
      if (by_library.contains("headers")) by_library["headers"].erase("X-Escaped");
      EXPECT_EQ(server.handled(head + "\r\n" + body), by_library) << method << body.size();
    }
  }
  EXPECT_EQ(
      server.handled("POST /a HTTP/1.1\r\nHost: h\r\nContent-Length: 9\r\n\r\nhalf")["status"],
      "HTTP/1.1 400 Bad Request");
}

TEST(PlainRequest, MostRequestsArePlain) {
  const auto is_plain = [](const std::string& head) {
    Request request;
    bool close = false;
    return readPlainRequest(head + "\r\n\r\n", request, close);
  };
  EXPECT_TRUE(is_plain("GET /api/v1/health HTTP/1.1\r\nHost: h"));
  EXPECT_TRUE(
      is_plain("POST /v1/chat/completions HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n"
               "Accept: application/json\r\nContent-Type: application/json\r\n"
               "Authorization: Bearer tk_1\r\nUser-Agent: OpenAI/JS 4.1\r\n"
               "Accept-Encoding: gzip,deflate\r\nContent-Length: 2"));
  EXPECT_FALSE(is_plain("GET /a%2Fb HTTP/1.1\r\nHost: h"));
  EXPECT_FALSE(is_plain("POST /a HTTP/1.1\r\nHost: h\r\nContent-Encoding: gzip"));
}

}  // namespace
}  // namespace tavrel::api
