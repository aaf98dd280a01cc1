#include "net/http_client.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/mock_peer.h"

namespace tavrel::net {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::MockConnection;
using test::MockPeer;

constexpr Timeouts kPatient{seconds(20), seconds(20)};

/// The header lines and the body of a recorded request, the port left out.
std::string withoutPort(std::string request, const MockPeer& peer) {
  const auto port = ":" + std::to_string(peer.port());
  const auto at = request.find(port);
  return at == std::string::npos ? request : request.erase(at, port.size());
}

TEST(HttpClient, PostsJsonAndHandsBackWhatCame) {
  MockPeer peer(MockPeer::answering(test::httpAnswer(503, "{}", "Content-Type: text/x; a=b\r\n")));
  HttpClient client;
  const auto result = client.postJson(peer.url("/a/../b?q=%20"), R"({"k":1})", kPatient);
  EXPECT_EQ(result.transport_error, "");
  EXPECT_EQ(result.status, 503);
  EXPECT_EQ(result.body, "{}");
  EXPECT_EQ(result.content_type, "text/x; a=b");
  EXPECT_FALSE(result.ok());
  EXPECT_EQ(withoutPort(peer.requests().at(0), peer),
            "POST /a/../b?q=%20 HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: tavrel-controller\r\n"
            "Accept: */*\r\nContent-Type: application/json\r\nContent-Length: 7\r\n\r\n{\"k\":1}");
}

struct Sent {
  HttpCall call;
  std::string request;  ///< without the lines every request has
};
class SentRequest : public testing::TestWithParam<Sent> {};

TEST_P(SentRequest, IsWhatTheCallSays) {
  MockPeer peer(MockPeer::answering(test::httpAnswer(200, "")));
  HttpClient client;
  HttpCall call = GetParam().call;
  call.url = peer.url("/p");
  EXPECT_TRUE(client.send(call, kPatient).ok());
  std::string request = withoutPort(peer.requests().at(0), peer);
  const std::string common = "Host: 127.0.0.1\r\nUser-Agent: tavrel-controller\r\nAccept: */*\r\n";
  ASSERT_NE(request.find(common), std::string::npos) << request;
  request.erase(request.find(common), common.size());
  EXPECT_EQ(request, GetParam().request);
}

INSTANTIATE_TEST_SUITE_P(
    HttpClient, SentRequest,
    testing::Values(
        Sent{{.method = "GET",
              .url = {},
              .headers = {{"X-API-Key", "k"}, {"Empty", ""}},
              .body = "not sent"},
             "GET /p HTTP/1.1\r\nX-API-Key: k\r\nEmpty:\r\n\r\n"},
        Sent{{.method = "POST", .url = {}, .headers = {}, .body = {}},
             "POST /p HTTP/1.1\r\nContent-Length: 0\r\n\r\n"},
        Sent{{.method = "PUT",
              .url = {},
              .headers = {{"content-type", "a/b"}},
              .body = std::string(2000, 'b')},
             "PUT /p HTTP/1.1\r\ncontent-type: a/b\r\nContent-Length: 2000\r\n\r\n" +
                 std::string(2000, 'b')},
        Sent{{.method = "DELETE", .url = {}, .headers = {}, .body = {}},
             "DELETE /p HTTP/1.1\r\n\r\n"},
        Sent{{.method = "DELETE", .url = {}, .headers = {}, .body = std::string("a\0b", 3)},
             "DELETE /p HTTP/1.1\r\nContent-Length: 3\r\n\r\n" + std::string("a\0b", 3)}));

TEST(HttpClient, RedirectIsAnAnswerAndNotFollowed) {
  MockPeer elsewhere(MockPeer::answering(test::httpAnswer(200, "")));
  MockPeer peer(
      MockPeer::answering(test::httpAnswer(302, "", "Location: " + elsewhere.url("/") + "\r\n")));
  HttpClient client;
  EXPECT_EQ(client.get(peer.url("/"), kPatient).status, 302);
  EXPECT_EQ(elsewhere.connections(), 0U);
}

TEST(HttpClient, NothingButWellFormedHttpCallsLeave) {
  HttpClient client;
  MockPeer peer(MockPeer::answering(test::httpAnswer(200, "")));
  for (const std::string url : {"file:///etc/hostname", "ftp://127.0.0.1/", "gopher://127.0.0.1/",
                                "dict://127.0.0.1/", "", "http://"}) {
    const auto result = client.get(url, kPatient);
    EXPECT_NE(result.transport_error, "") << url;
    EXPECT_EQ(result.body, "") << url;
  }
  HttpCall split;
  split.url = peer.url("/");
  split.headers = {{"X-A", "b\r\nX-Injected: c"}};
  EXPECT_NE(client.send(split, kPatient).transport_error, "");
  EXPECT_NE(client.get(peer.url("/\r\nX-Injected: c"), kPatient).transport_error, "");
  EXPECT_NE(client.get(peer.url("/") + std::string("\0x", 2), kPatient).transport_error, "");
  EXPECT_EQ(peer.connections(), 0U);
}

TEST(HttpClient, RefusedConnectionHasTheTransportsText) {
  const test::RefusingPort port;
  HttpClient client;
  const auto result = client.get("http://127.0.0.1:" + std::to_string(port.port()) + "/", kPatient);
  EXPECT_EQ(result.transport_error, "Couldn't connect to server");
  EXPECT_EQ(result.transport_code, 7);
  EXPECT_EQ(result.status, 0);
}

TEST(HttpClient, EitherTimeoutEndsTheCall) {
  HttpClient client;
  const test::UnansweringPort nobody;
  const auto url = "http://127.0.0.1:" + std::to_string(nobody.port()) + "/";
  EXPECT_EQ(client.get(url, {milliseconds(30), seconds(20)}).transport_error,
            "Timeout was reached");
  MockPeer silent([](MockConnection&) {});
  EXPECT_EQ(client.get(silent.url("/"), {seconds(20), milliseconds(30)}).transport_error,
            "Timeout was reached");
  EXPECT_EQ(client.get(silent.url("/"), {milliseconds(0), milliseconds(0)}).transport_error,
            "Timeout was reached");
}

/// An answer that cannot be taken, and the text for it.
struct BadAnswer {
  std::string name;
  std::string bytes;
  std::string error;
};
class UnusableAnswer : public testing::TestWithParam<BadAnswer> {};

TEST_P(UnusableAnswer, IsATransportErrorAndLeavesTheClientUsable) {
  MockPeer bad(MockPeer::answeringOnce(GetParam().bytes));
  MockPeer good(MockPeer::answering(test::httpAnswer(200, "fine")));
  HttpClient client;
  HttpCall call;
  call.url = bad.url("/");
  call.max_answer_bytes = 1000;
  const auto result = client.send(call, kPatient);
  EXPECT_EQ(result.transport_error, GetParam().error);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.body, "");
  EXPECT_EQ(client.get(good.url("/"), kPatient).body, "fine");
}

const std::string kTooLarge = "Maximum file size exceeded";
INSTANTIATE_TEST_SUITE_P(
    HttpClient, UnusableAnswer,
    testing::Values(BadAnswer{"Nothing", "", "Server returned nothing (no headers, no data)"},
                    BadAnswer{"NotHttp", "220 smtp ready\r\n", "Unsupported protocol"},
                    BadAnswer{"CutShort", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\npart",
                              "Transferred a partial file"},
                    BadAnswer{"LongerThanAllowed", test::httpAnswer(200, std::string(1001, 'x')),
                              kTooLarge},
                    BadAnswer{"LongerThanAllowedUntilClose",
                              "HTTP/1.1 200 OK\r\n\r\n" + std::string(1001, 'x'), kTooLarge},
                    BadAnswer{"EndlessHeader",
                              [] {
                                std::string bytes = "HTTP/1.1 200 OK\r\n";
                                for (int i = 0; i < 300; ++i)
                                  bytes += "A: " + std::string(1000, 'a') + "\r\n";
                                return bytes;
                              }(),
                              kTooLarge}),
    [](const auto& test) { return test.param.name; });

TEST(HttpClient, AnswerOfExactlyTheLimitIsTaken) {
  MockPeer peer(MockPeer::answering(test::httpAnswer(200, std::string(1000, 'x'))));
  HttpClient client;
  HttpCall call;
  call.url = peer.url("/");
  call.max_answer_bytes = 1000;
  EXPECT_EQ(client.send(call, kPatient).body.size(), 1000U);
}

TEST(HttpClient, CancelEndsRunningCallsAndRefusesLaterOnes) {
  MockPeer silent([](MockConnection&) {});
  HttpClient client;
  std::vector<HttpResult> results(3);
  std::vector<std::thread> callers;
  const Timeouts forever{seconds(60), seconds(60)};
  for (auto& result : results) {
    callers.emplace_back([&] { result = client.get(silent.url("/"), forever); });
  }
  EXPECT_TRUE(silent.waitForConnections(3));
  const auto cancelled = platform::steadyNow();
  client.cancelAll();
  for (auto& caller : callers) caller.join();
  EXPECT_LT(platform::steadyNow() - cancelled, seconds(10));
  for (const auto& result : results) {
    EXPECT_EQ(result.transport_error, "Operation was aborted by an application callback");
  }
  EXPECT_NE(client.get(silent.url("/"), forever).transport_error, "");
  EXPECT_EQ(silent.connections(), 3U);
}

}  // namespace
}  // namespace tavrel::net
