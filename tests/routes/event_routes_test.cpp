#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "controller/routes/families.h"
#include "events/event_stream_service.h"
#include "support/raw_client.h"
#include "support/test_server.h"

namespace tavrel::controller {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class EventRoutes : public testing::Test {
 protected:
  json get(const std::string& target) {
    const auto answer = server_.client().Get(target);
    if (!answer || answer->status != 200) {
      ADD_FAILURE() << target << " answered " << (answer ? answer->status : 0);
      return nullptr;
    }
    EXPECT_EQ(answer->get_header_value("Content-Type"), "application/json");
    return json::parse(answer->body);
  }

  /// Opens the stream and waits until the greeting has arrived.
  void open(test::RawClient& client, const std::string& query = "") {
    client.send("GET /api/v1/events/stream" + query + " HTTP/1.1\r\nHost: test\r\n\r\n");
  }

  /// Waits until the service has so many readers of events (bounded).
  bool waitForReaders(int count) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (events_.getStats()["event_subscribers"] != count) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
    return true;
  }

  events::EventStreamService events_;
  test::TestServer server_{[this](api::RouteBook& book) { addEventRoutes(book, events_); }};
};

TEST_F(EventRoutes, ListsTheNewestRecordsAndCapsTheCount) {
  for (int i = 0; i < 600; ++i) events_.workerOnline("w" + std::to_string(i), json::object());
  for (int i = 0; i < 1100; ++i) events_.logInfo("s", "controller", std::to_string(i));

  const json newest = get("/api/v1/events?count=2");
  EXPECT_EQ(newest["count"], 2);
  EXPECT_EQ(newest["events"][0]["source"], "w598");
  EXPECT_EQ(newest["events"][1]["message"], "Worker w599 came online");
  EXPECT_EQ(get("/api/v1/events")["count"], 100);
  EXPECT_EQ(get("/api/v1/events?count=5000")["count"], 500);
  EXPECT_EQ(get("/api/v1/logs?count=5000")["count"], 1000);
  EXPECT_EQ(get("/api/v1/logs")["logs"].size(), 100u);
  EXPECT_EQ(get("/api/v1/logs?count=0"), (json{{"logs", json::array()}, {"count", 0}}));
  EXPECT_EQ(get("/api/v1/events?count=-3"), (json{{"events", json::array()}, {"count", 0}}));
  EXPECT_EQ(get("/api/v1/events/stats")["total_logs_published"], 1100);
}

TEST_F(EventRoutes, ACountThatIsNoNumberAnswers500) {
  for (const char* target : {"/api/v1/events?count=many", "/api/v1/logs?count="}) {
    const auto answer = server_.client().Get(target);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 500);
    EXPECT_EQ(answer->body, "");
  }
}

TEST_F(EventRoutes, TheLevelOfLogsGoesBeforeTheSource) {
  events_.logInfo("a", "worker", "1");
  events_.logError("b", "worker", "2");
  events_.logInfo("b", "worker", "3");
  EXPECT_EQ(get("/api/v1/logs?level=info&source=b")["logs"][0]["message"], "1");
  EXPECT_EQ(get("/api/v1/logs?source=b&count=1")["logs"][0]["message"], "3");
  EXPECT_EQ(get("/api/v1/logs?level=INFO")["count"], 0);
}

TEST_F(EventRoutes, ARecordThatIsNotUtf8DoesNotSpoilTheList) {
  events_.workerOnline("\xff\xfe", json::object());
  EXPECT_EQ(get("/api/v1/events")["count"], 1);
}

TEST_F(EventRoutes, TheStreamGreetsReplaysAndGoesOnLive) {
  events_.workerOnline("early", json::object());
  events_.logInfo("a", "worker", "unwanted");
  events_.logError("a", "worker", "wanted");
  test::RawClient client(server_.port());
  open(client, "?level=error&logs=False");
  const std::string begin = client.readUntil("\"wanted\"");
  EXPECT_THAT(begin, HasSubstr("Content-Type: text/event-stream"));
  EXPECT_THAT(begin, HasSubstr("event: connected\ndata: {\"status\":\"connected\"}\n\n"));
  EXPECT_LT(begin.find("event: connected"), begin.find("event: worker_online\nid: evt-"));
  EXPECT_LT(begin.find("event: worker_online"), begin.find("event: log\nid: evt-"));
  EXPECT_THAT(begin, Not(HasSubstr("unwanted")));

  ASSERT_TRUE(waitForReaders(1));
  events_.routerOffline("r1", json::object());
  EXPECT_THAT(client.readUntil("\n\n"), HasSubstr("Router r1 went offline"));
}

TEST_F(EventRoutes, AReaderOfNothingGetsHeartbeatsAndItsLeavingIsNoticedAtOnce) {
  events_.workerOnline("early", json::object());
  auto idle = std::make_unique<test::RawClient>(server_.port());
  open(*idle, "?events=false&logs=false");
  idle->readUntil("connected\"}\n\n");
  test::RawClient other(server_.port());
  open(other, "?logs=false");
  ASSERT_TRUE(waitForReaders(1));
  other.readUntil("early");

  std::string seen;
  // The greeting comes before the reader is known, so the first heartbeat may be too early for it.
  for (int i = 0; i < 1000 && seen.find("heartbeat") == std::string::npos; ++i) {
    events_.sendHeartbeat();
    seen += idle->readUntil("Heartbeat", 10ms);
  }
  EXPECT_THAT(seen, HasSubstr("event: heartbeat\n"));
  EXPECT_THAT(seen, Not(HasSubstr("early")));
  EXPECT_EQ(get("/api/v1/events")["count"], 1) << "heartbeats are not kept";
  EXPECT_EQ(get("/api/v1/events/stats")["total_events_published"], 1) << "nor counted";

  other.close();
  EXPECT_TRUE(waitForReaders(0)) << "no record is sent meanwhile";
}

TEST_F(EventRoutes, TheStreamEndsWithTheService) {
  testing::internal::CaptureStdout();
  events_.start();
  test::RawClient client(server_.port());
  open(client);
  ASSERT_TRUE(waitForReaders(1));
  events_.stop();
  EXPECT_THAT(client.readUntil("\r\n0\r\n\r\n"), EndsWith("\r\n0\r\n\r\n"));
  testing::internal::GetCapturedStdout();
  EXPECT_TRUE(waitForReaders(0));
}

TEST_F(EventRoutes, AStoppingServerDoesNotWaitForItsStreams) {
  test::RawClient client(server_.port());
  open(client);
  ASSERT_TRUE(waitForReaders(1));
  server_.server().stop();
  EXPECT_TRUE(client.closedWithin(10s));
  EXPECT_TRUE(waitForReaders(0));
}

}  // namespace
}  // namespace tavrel::controller
