#include "net/worker_connection_pool.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "support/mock_peer.h"

namespace tavrel::net {
namespace {

using std::chrono::seconds;
using test::Gate;
using test::MockConnection;
using test::MockPeer;

constexpr seconds kLong{30};
constexpr std::string_view kRequest = "POST /x HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}";

WorkerAddress at(const MockPeer& peer) {
  return {"127.0.0.1", peer.port()};
}

std::unique_ptr<WorkerConnection> connectTo(const MockPeer& peer) {
  auto connection = std::make_unique<WorkerConnection>(-1);
  EXPECT_EQ(connection->connect(at(peer), kLong), WorkerIo::kOk);
  return connection;
}

/// Sends a request and reads the answer to its end.
WorkerIo exchange(WorkerConnection& connection) {
  HttpResponseHead head;
  std::string body;
  auto outcome = connection.send(kRequest, kLong);
  if (outcome == WorkerIo::kOk) outcome = connection.readHead(head, kLong);
  if (outcome == WorkerIo::kOk) outcome = connection.readWholeBody(body, 1000, kLong);
  return outcome;
}

std::unique_ptr<WorkerConnection> usedConnection(const MockPeer& peer) {
  auto connection = connectTo(peer);
  EXPECT_EQ(exchange(*connection), WorkerIo::kOk);
  return connection;
}

class WorkerConnectionPoolTest : public testing::Test {
 protected:
  MockPeer peer_{MockPeer::answering(test::httpAnswer(200, "ok"))};
  WorkerConnectionPool pool_{{.idle_per_worker = 2, .idle_in_total = 3, .max_idle = seconds(30)}};
  const platform::SteadyTime now_ = platform::steadyNow();
};

TEST_F(WorkerConnectionPoolTest, HandsOutTheConnectionUsedLastAndItWorks) {
  auto first = usedConnection(peer_);
  auto second = usedConnection(peer_);
  const auto* const last = second.get();
  pool_.giveBack(at(peer_), std::move(first), now_);
  pool_.giveBack(at(peer_), std::move(second), now_);
  EXPECT_EQ(pool_.take({"127.0.0.1", 1}, -1, now_), nullptr);
  const auto taken = pool_.take(at(peer_), -1, now_);
  ASSERT_EQ(taken.get(), last);
  EXPECT_FALSE(taken->answerBegun());
  EXPECT_EQ(exchange(*taken), WorkerIo::kOk);
  EXPECT_EQ(peer_.connections(), 2U);
}

TEST_F(WorkerConnectionPoolTest, KeepsOnlyWhatIsReusable) {
  pool_.giveBack(at(peer_), nullptr);
  pool_.giveBack(at(peer_), connectTo(peer_));
  auto unanswered = connectTo(peer_);
  ASSERT_EQ(unanswered->send(kRequest, kLong), WorkerIo::kOk);
  pool_.giveBack(at(peer_), std::move(unanswered));
  EXPECT_EQ(pool_.idleConnections(), 0U);
  EXPECT_TRUE(peer_.waitForHangUp(1).has_value());
}

TEST_F(WorkerConnectionPoolTest, OldestMakesRoomPerWorkerAndInTotal) {
  MockPeer other(MockPeer::answering(test::httpAnswer(200, "ok")));
  for (int i = 0; i < 3; ++i) pool_.giveBack(at(peer_), usedConnection(peer_), now_);
  EXPECT_EQ(pool_.idleConnections(), 2U);
  EXPECT_TRUE(peer_.waitForHangUp(0).has_value());
  for (int i = 0; i < 2; ++i) pool_.giveBack(at(other), usedConnection(other), now_);
  EXPECT_EQ(pool_.idleConnections(), 3U);
  EXPECT_TRUE(peer_.waitForHangUp(1).has_value());

  EXPECT_NE(pool_.take(at(other), -1, now_), nullptr);
  EXPECT_NE(pool_.take(at(other), -1, now_), nullptr);
  EXPECT_NE(pool_.take(at(peer_), -1, now_), nullptr);
  EXPECT_EQ(pool_.idleConnections(), 0U);
}

TEST_F(WorkerConnectionPoolTest, IdleOnesExpireWhicheverWorkerIsAskedFor) {
  pool_.giveBack(at(peer_), usedConnection(peer_), now_);
  pool_.giveBack(at(peer_), usedConnection(peer_), now_ + seconds(20));
  EXPECT_EQ(pool_.take({"10.0.0.1", 1}, -1, now_ + seconds(31)), nullptr);
  EXPECT_EQ(pool_.idleConnections(), 1U);
  EXPECT_TRUE(peer_.waitForHangUp(0).has_value());
  EXPECT_NE(pool_.take(at(peer_), -1, now_ + seconds(50)), nullptr);

  pool_.giveBack(at(peer_), usedConnection(peer_), now_ + seconds(50));
  pool_.expire(now_ + seconds(80));
  EXPECT_EQ(pool_.idleConnections(), 1U);
  pool_.expire(now_ + seconds(81));
  EXPECT_EQ(pool_.idleConnections(), 0U);
}

TEST_F(WorkerConnectionPoolTest, ForgetClosesTheConnectionsOfOneWorker) {
  MockPeer other(MockPeer::answering(test::httpAnswer(200, "ok")));
  for (int i = 0; i < 2; ++i) pool_.giveBack(at(peer_), usedConnection(peer_));
  pool_.giveBack(at(other), usedConnection(other));
  pool_.forget(at(peer_));
  EXPECT_EQ(pool_.take(at(peer_), -1), nullptr);
  EXPECT_TRUE(peer_.waitForHangUp(0).has_value());
  EXPECT_TRUE(peer_.waitForHangUp(1).has_value());
  EXPECT_NE(pool_.take(at(other), -1), nullptr);
}

/// What a worker may do to a connection while it is kept.
class KeptConnection : public testing::TestWithParam<void (*)(MockConnection&)> {};

TEST_P(KeptConnection, IsNotHandedOutOnceTheWorkerTouchedIt) {
  Gate kept;
  Gate touched;
  MockPeer peer([&](MockConnection& connection) {
    connection.readRequest();
    connection.send(test::httpAnswer(200, "ok"));
    connection.waitFor(kept);
    GetParam()(connection);
    touched.open();
  });
  WorkerConnectionPool pool({});
  pool.giveBack(at(peer), usedConnection(peer));
  ASSERT_EQ(pool.idleConnections(), 1U);
  kept.open();
  ASSERT_TRUE(touched.waitUntilOpen());
  EXPECT_EQ(pool.take(at(peer), -1), nullptr);
  EXPECT_EQ(pool.idleConnections(), 0U);
}

INSTANTIATE_TEST_SUITE_P(By, KeptConnection,
                         testing::Values([](MockConnection& c) { c.close(); },
                                         [](MockConnection& c) { c.reset(); },
                                         [](MockConnection& c) { c.closeSending(); },
                                         [](MockConnection& c) { c.send("stray"); }));

TEST(WorkerConnectionPool, ManyThreadsShareIt) {
  MockPeer peer(MockPeer::answering(test::httpAnswer(200, "ok")));
  WorkerConnectionPool pool({.idle_per_worker = 3, .idle_in_total = 3, .max_idle = seconds(30)});
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 30; ++i) {
        auto connection = pool.take(at(peer), -1);
        if (connection == nullptr) connection = connectTo(peer);
        EXPECT_EQ(exchange(*connection), WorkerIo::kOk);
        pool.giveBack(at(peer), std::move(connection));
        if (i == 20) pool.forget(at(peer));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(peer.requests().size(), 180U);
  EXPECT_LE(pool.idleConnections(), 3U);
  EXPECT_LT(peer.connections(), 180U);
}

}  // namespace
}  // namespace tavrel::net
