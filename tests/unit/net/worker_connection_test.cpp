#include "net/worker_connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "platform/blocking.h"
#include "support/mock_peer.h"

namespace tavrel::net {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Gate;
using test::MockConnection;
using test::MockPeer;

/// Long enough for any machine; a test that waits so long has failed.
constexpr seconds kLongWait{30};
constexpr std::string_view kAsked = "POST /x HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}";

WorkerAddress addressOf(const MockPeer& peer) {
  return {"127.0.0.1", peer.port()};
}

/// Counts the waits of this thread and runs something as one begins.
class WaitObserver : public platform::BlockingObserver {
 public:
  explicit WaitObserver(std::function<void()> on_wait = [] {}) : on_wait_(std::move(on_wait)) {
    ofThisThread() = this;
  }
  ~WaitObserver() override { ofThisThread() = nullptr; }
  void enterBlocking() override {
    ++waits;
    on_wait_();
  }
  void leaveBlocking() override { ++ended; }

  int waits = 0;
  int ended = 0;

 private:
  const std::function<void()> on_wait_;
};

/// The client on whose behalf a connection works.
class Client {
 public:
  Client() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0); }
  ~Client() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  int descriptor() const { return ends_[0]; }
  void say(std::string_view text) const {
    EXPECT_GT(::send(ends_[1], text.data(), text.size(), 0), 0);
  }
  void leave() const { ::shutdown(ends_[1], SHUT_WR); }

 private:
  int ends_[2] = {-1, -1};
};

/// Connects, sends a request and reads the whole answer.
struct Exchange {
  explicit Exchange(const MockPeer& peer) {
    EXPECT_EQ(connection.connect(addressOf(peer), kLongWait), WorkerIo::kOk);
    EXPECT_EQ(connection.send(kAsked, kLongWait), WorkerIo::kOk);
    outcome = connection.readHead(head, kLongWait);
    if (outcome == WorkerIo::kOk) outcome = connection.readWholeBody(body, 1 << 20, kLongWait);
  }
  WorkerConnection connection{-1};
  HttpResponseHead head;
  std::string body;
  WorkerIo outcome = WorkerIo::kOk;
};

TEST(WorkerConnection, ResolvesNamesAndRefusesWhatIsNoAddress) {
  MockPeer peer(MockPeer::answering(test::httpAnswer(200, "")));
  WorkerConnection connection(-1);
  EXPECT_EQ(connection.connect({"localhost", peer.port()}, kLongWait), WorkerIo::kOk);
  const test::RefusingPort refusing;
  const WorkerAddress unreachable[] = {
      {"127.0.0.1", refusing.port()},
      {"localhost", refusing.port()},
      {"::1", refusing.port()},
      {"", peer.port()},
      {"127.0.0.1", 0},
      {"127.0.0.1", 65536},
      {"127.0.0.1", -1},
      {"fe80::zz", peer.port()},
      {"no host", peer.port()},
      {std::string("127.0.0.1\0x", 11), peer.port()},
      {"127.0.0.1\r\nX: y", peer.port()},
  };
  for (const auto& address : unreachable) {
    EXPECT_EQ(connection.connect(address, kLongWait), WorkerIo::kConnectFailed) << address.host;
  }
}

TEST(WorkerConnection, HostOfAnIpv6WorkerStandsInBrackets) {
  EXPECT_EQ(workerPostHead({"::1", 80}, "/p", 0, false, "text/plain"),
            "POST /p HTTP/1.1\r\nHost: [::1]:80\r\nContent-Type: text/plain\r\n"
            "Content-Length: 0\r\nConnection: close\r\n\r\n");
}

TEST(WorkerConnection, ConnectGivesUpWhenNobodyAnswers) {
  const test::UnansweringPort port;
  WorkerConnection connection(-1);
  EXPECT_EQ(connection.connect({"127.0.0.1", port.port()}, milliseconds(30)),
            WorkerIo::kConnectFailed);
}

/// What a worker may do instead of answering properly.
struct Fault {
  std::string name;
  MockPeer::Script script;
  WorkerIo outcome;
  std::string body;
};
class WorkerFault : public testing::TestWithParam<Fault> {};

TEST_P(WorkerFault, IsToldAndLosesNothingThatCameBefore) {
  MockPeer peer(GetParam().script);
  Exchange exchange(peer);
  EXPECT_EQ(exchange.outcome, GetParam().outcome);
  EXPECT_EQ(exchange.body, GetParam().body);
  EXPECT_FALSE(exchange.connection.reusable());
  if (exchange.outcome == WorkerIo::kOk) return;
  bool end = false;
  EXPECT_EQ(exchange.connection.readBody(exchange.body, end, kLongWait), exchange.outcome);
}

MockPeer::Script afterRequest(std::string bytes, void (MockConnection::*then)()) {
  return [bytes = std::move(bytes), then](MockConnection& connection) {
    connection.readRequest();
    connection.send(bytes);
    (connection.*then)();
  };
}

const std::string kPart = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\npart";

INSTANTIATE_TEST_SUITE_P(
    Of, WorkerFault,
    testing::Values(
        Fault{"ResetInsteadOfAnAnswer", afterRequest("", &MockConnection::reset), WorkerIo::kClosed,
              ""},
        Fault{"ResetInBody", afterRequest(kPart, &MockConnection::reset), WorkerIo::kClosed,
              "part"},
        Fault{"HalfCloseInBody", afterRequest(kPart, &MockConnection::closeSending),
              WorkerIo::kClosed, "part"},
        Fault{"GarbageInChunks",
              afterRequest("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\nZZ\r\n",
                           &MockConnection::closeSending),
              WorkerIo::kMalformed, "ok"},
        Fault{"AnswerUntilClose",
              afterRequest("HTTP/1.1 200 OK\r\n\r\nall", &MockConnection::close), WorkerIo::kOk,
              "all"}),
    [](const auto& test) { return test.param.name; });

TEST(WorkerConnection, BodyBeyondTheLimitIsRefused) {
  MockPeer peer(MockPeer::answering(test::httpAnswer(200, std::string(4 << 20, 'x'))));
  const Exchange exchange(peer);
  EXPECT_EQ(exchange.outcome, WorkerIo::kTooLarge);
  EXPECT_FALSE(exchange.connection.reusable());
}

/// A worker that refuses a large request while it is being sent.
class EarlyRefusal : public testing::TestWithParam<bool> {};

TEST_P(EarlyRefusal, EndsTheSendingAndCanBeRead) {
  const bool stalls = GetParam();
  Gate connected;
  Gate never;
  MockPeer peer([&](MockConnection& connection) {
    connection.waitFor(connected);
    connection.send(test::httpAnswer(413, "too much"));
    stalls ? connection.ignoreUntil(never) : connection.reset();
  });
  WorkerConnection connection(-1);
  ASSERT_EQ(connection.connect(addressOf(peer), kLongWait), WorkerIo::kOk);
  const std::string much(std::size_t{64} << 20, 'x');
  connected.open();
  EXPECT_EQ(connection.send(much, kLongWait), WorkerIo::kSendFailed);
  HttpResponseHead head;
  std::string body;
  EXPECT_EQ(connection.readHead(head, kLongWait), WorkerIo::kOk);
  EXPECT_EQ(connection.readWholeBody(body, 100, kLongWait), WorkerIo::kOk);
  EXPECT_EQ(head.status, 413);
  EXPECT_EQ(body, "too much");
  EXPECT_FALSE(connection.reusable()) << "half a request is still on its way";
}

INSTANTIATE_TEST_SUITE_P(WorkerConnection, EarlyRefusal, testing::Bool());

/// Where a client may leave. Each waits for a worker that does not do its part.
struct Departure {
  std::string name;
  std::string answer;
  std::function<WorkerIo(WorkerConnection&)> wait;
};
class ClientDeparture : public testing::TestWithParam<Departure> {};

TEST_P(ClientDeparture, EndsTheWaitAtOnceAndTheWorkerLearnsOfIt) {
  Gate departed;
  MockPeer peer([&](MockConnection& connection) {
    connection.send(GetParam().answer);
    connection.ignoreUntil(departed);
  });
  Client client;
  client.say("a pipelined request is no hang-up");
  auto connection = std::make_unique<WorkerConnection>(client.descriptor());
  ASSERT_EQ(connection->connect(addressOf(peer), kLongWait), WorkerIo::kOk);
  HttpResponseHead head;
  if (GetParam().answer == kPart) {
    ASSERT_EQ(connection->readHead(head, kLongWait), WorkerIo::kOk);
  }

  std::thread leaving;
  platform::SteadyTime left;
  {
    WaitObserver observer([&] {
      if (leaving.joinable()) return;
      leaving = std::thread([&] {
        left = platform::steadyNow();
        client.leave();
      });
    });
    EXPECT_EQ(GetParam().wait(*connection), WorkerIo::kClientGone);
    EXPECT_EQ(observer.waits, observer.ended);
  }
  const auto returned = platform::steadyNow();
  ASSERT_TRUE(leaving.joinable());
  leaving.join();
  EXPECT_LT(returned - left, seconds(2));
  EXPECT_FALSE(connection->reusable());
  connection.reset();
  departed.open();
  EXPECT_TRUE(peer.waitForHangUp(0).has_value());
}

WorkerIo waitInConnect(WorkerConnection& connection) {
  const test::UnansweringPort port;
  return connection.connect({"127.0.0.1", port.port()}, kLongWait);
}
WorkerIo waitInSend(WorkerConnection& connection) {
  return connection.send(std::string(std::size_t{64} << 20, 'x'), kLongWait);
}
WorkerIo waitInHead(WorkerConnection& connection) {
  HttpResponseHead head;
  return connection.readHead(head, kLongWait);
}
WorkerIo waitInBody(WorkerConnection& connection) {
  std::string body;
  return connection.readWholeBody(body, 1000, kLongWait);
}

INSTANTIATE_TEST_SUITE_P(While, ClientDeparture,
                         testing::Values(Departure{"Connecting", "", waitInConnect},
                                         Departure{"Sending", "", waitInSend},
                                         Departure{"ReadingTheHead", "HTTP/1.1 2", waitInHead},
                                         Departure{"ReadingTheBody", kPart, waitInBody}),
                         [](const auto& test) { return test.param.name; });

TEST(WorkerConnection, WhatIsThereAlreadyIsReadWithoutWaiting) {
  MockPeer peer(MockPeer::answeringOnce(test::httpAnswer(200, "ok")));
  Client client;
  WorkerConnection connection(client.descriptor());
  ASSERT_EQ(connection.connect(addressOf(peer), kLongWait), WorkerIo::kOk);
  ASSERT_EQ(connection.send(kAsked, kLongWait), WorkerIo::kOk);
  ASSERT_TRUE(peer.waitForRequests(1));
  HttpResponseHead head;
  ASSERT_EQ(connection.readHead(head, kLongWait), WorkerIo::kOk);
  const WaitObserver observer;
  std::string body;
  EXPECT_EQ(connection.readWholeBody(body, 2, kLongWait), WorkerIo::kOk);
  EXPECT_EQ(body, "ok");
  EXPECT_EQ(observer.waits, 0);
}

}  // namespace
}  // namespace tavrel::net
