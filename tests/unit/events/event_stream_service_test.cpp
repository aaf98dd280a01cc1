#include "events/event_stream_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

namespace tavrel::events {
namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

Event eventOf(const std::string& id) {
  return {id, EventType::kInfo, "test", "controller", {}, json::object(), ""};
}

LogEntry logOf(const std::string& id, const std::string& level, const std::string& source) {
  return {id, level, source, "controller", {}, "", json::object()};
}

template <class Records>
std::vector<std::string> idsOf(const Records& records) {
  std::vector<std::string> ids;
  for (const auto& record : records) ids.push_back(record->id);
  return ids;
}

/// The ids of what a reader has queued; a record of type heartbeat is named by its type.
std::vector<std::string> take(const EventSubscription& subscription) {
  std::vector<SharedText> batch;
  std::vector<std::string> ids;
  if (!subscription.reader().take(batch)) return {"ended"};
  for (const SharedText& text : batch) {
    const std::string& sse = *text;
    const auto start = sse.find("\nid: ") + 5;
    const bool heartbeat = sse.rfind("event: heartbeat\n", 0) == 0;
    ids.push_back(heartbeat ? "heartbeat" : sse.substr(start, sse.find('\n', start) - start));
  }
  return ids;
}

TEST(EventStreamService, HugeRecordsDoNotFillTheMemory) {
  EventStreamService service;
  Event huge = eventOf("first");
  huge.message = std::string(EventStreamService::kMaxHistoryBytes * 2 / 3, 'x');
  service.publishEvent(huge);
  huge.id = "second";
  service.publishEvent(huge);
  EXPECT_THAT(idsOf(service.getRecentEvents(10)), ElementsAre("second"));
}

TEST(EventStreamService, ReportsAThrowingCallbackAndCallsTheOthers) {
  EventStreamService service;
  int called = 0;
  const auto thrower = [](const Event&) { throw std::runtime_error("no room"); };
  const std::string first = service.subscribe(thrower);
  service.subscribe([&](const Event&) { ++called; });
  const std::string last = service.subscribe([](const Event&) { throw 42; });
  EXPECT_EQ(first.rfind("sub-", 0), 0u);
  EXPECT_EQ(first.size(), 20u);

  testing::internal::CaptureStderr();
  service.publishEvent(eventOf("1"));
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_THAT(printed,
              HasSubstr("[EventStream] Error notifying subscriber " + first + ": no room\n"));
  EXPECT_THAT(printed, HasSubstr("[EventStream] Error notifying subscriber " + last + ": "));
  EXPECT_EQ(called, 1);

  const std::string log_thrower =
      service.subscribeToLogs([](const LogEntry&) { throw std::runtime_error("full"); });
  testing::internal::CaptureStderr();
  service.publishLog(logOf("1", "info", "a"));
  service.sendHeartbeat();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[EventStream] Error notifying log subscriber " + log_thrower + ": full\n")
      << "heartbeats fail silently";
}

TEST(EventStreamService, AnUnsubscribedCallbackIsNotCalledAgain) {
  EventStreamService service;
  int events = 0;
  int logs = 0;
  const std::string event_id = service.subscribe([&](const Event&) { ++events; });
  const std::string log_id = service.subscribeToLogs([&](const LogEntry&) { ++logs; });
  service.publishEvent(eventOf("1"));
  service.publishLog(logOf("1", "info", "a"));
  service.unsubscribe(event_id);
  service.unsubscribe(log_id);
  service.unsubscribe("sub-unknown");
  service.publishEvent(eventOf("2"));
  service.publishLog(logOf("2", "info", "a"));
  EXPECT_EQ(events, 1);
  EXPECT_EQ(logs, 1);
}

TEST(EventStreamService, HelpersDescribeWhatHappened) {
  EventStreamService service;
  service.workerOnline("w1", {{"ip", "10.0.0.1"}});
  service.trainingWorkerOffline("t1", json::object());
  service.swarmStarted("s1", json::object());
  service.swarmFailed("s1", "out of memory", {{"mode", "x"}});
  service.swarmStatusUpdate("s1", "paused", nullptr);
  std::vector<std::string> seen;
  for (const auto& event : service.getRecentEvents(10)) {
    const json sent = event->toJson();
    std::string line = event->source + ": " + event->message + ' ' + sent["data"].dump();
    for (const char* key : {"type", "source_type"}) line += ' ' + sent[key].get<std::string>();
    seen.push_back(std::move(line));
  }
  EXPECT_THAT(
      seen,
      ElementsAre("w1: Worker w1 came online {\"ip\":\"10.0.0.1\"} worker_online worker",
                  "t1: Training worker t1 went offline {} training_worker_offline training_worker",
                  "s1: Swarm s1 started executing {} swarm_started swarm",
                  "s1: Swarm s1 failed: out of memory {\"error\":\"out of memory\",\"mode\":\"x\"} "
                  "swarm_failed swarm",
                  "s1: Swarm s1 status changed to paused {\"new_status\":\"paused\"} log swarm"));

  service.logWarning("node", "worker", "hot", {{"celsius", 90}});
  const LogEntry& entry = *service.getRecentLogs(1).front();
  EXPECT_EQ(entry.level, "warning");
  EXPECT_EQ(entry.source, "node");
  EXPECT_EQ(entry.source_type, "worker");
  EXPECT_EQ(entry.metadata["celsius"], 90);
  EXPECT_EQ(entry.id.rfind("evt-", 0), 0u);
}

TEST(EventStreamService, AReaderGetsTheRecentPastAndThenEverythingOnce) {
  EventStreamService service;
  for (int i = 0; i < 60; ++i) service.publishEvent(eventOf("e" + std::to_string(i)));
  for (int i = 0; i < 110; ++i) {
    service.publishLog(logOf("l" + std::to_string(i), i % 2 == 0 ? "info" : "error", "a"));
  }
  const EventSubscription subscription = service.openReader(EventFilter{.level = "error"});
  service.publishEvent(eventOf("live"));
  service.publishLog(logOf("live-info", "info", "a"));
  service.publishLog(logOf("live-error", "error", "a"));

  const auto ids = take(subscription);
  ASSERT_EQ(ids.size(), 50u + 50u + 2u) << "the filter is applied to the newest 100 log entries";
  EXPECT_EQ(ids[0], "e10");
  EXPECT_EQ(ids[49], "e59");
  EXPECT_EQ(ids[50], "l11");
  EXPECT_EQ(ids[99], "l109");
  EXPECT_EQ(ids[100], "live");
  EXPECT_EQ(ids[101], "live-error");
  EXPECT_TRUE(take(subscription).empty());
}

TEST(EventStreamService, StatsCountCallbacksAndReadersWhileTheyLast) {
  EventStreamService service;
  service.initialize(7, 5);
  service.subscribe([](const Event&) {});
  {
    const EventSubscription both = service.openReader(EventFilter{});
    const EventSubscription logs = service.openReader(EventFilter{.events = false});
    EXPECT_EQ(service.getStats()["event_subscribers"], 2);
    EXPECT_EQ(service.getStats()["log_subscribers"], 2);
  }
  service.publishLog(logOf("1", "info", "a"));
  EXPECT_EQ(service.getStats(), json::parse(R"({"running": false, "total_events_published": 0,
      "total_logs_published": 1, "event_history_size": 0, "log_history_size": 1,
      "max_event_history": 5, "max_log_history": 7, "event_subscribers": 1,
      "log_subscribers": 0})"));
}

TEST(EventStreamService, StartAndStopPrintTheirLinesAndStopEndsReaders) {
  EventStreamService service;
  testing::internal::CaptureStdout();
  service.initialize(10, 20);
  service.initialize(1, 1);
  service.start();
  service.start();
  const EventSubscription subscription = service.openReader(EventFilter{});
  EXPECT_EQ(service.getStats()["running"], true);
  service.stop();
  service.stop();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[EventStream] Initialized with log_history=10, event_history=20\n"
            "[EventStream] Service started\n"
            "[EventStream] Service stopped\n");
  EXPECT_THAT(take(subscription), ElementsAre("ended"));
  EXPECT_THAT(take(service.openReader(EventFilter{})), ElementsAre("ended"))
      << "a client that comes during the stop must not wait for ever";
  service.publishEvent(eventOf("late"));
  EXPECT_EQ(service.getRecentEvents(1).front()->id, "late");
}

TEST(EventStreamService, ConcurrentPublicationsHaveOneOrderForEverybody) {
  constexpr int kPublishers = 4;
  constexpr int kEach = 100;
  EventStreamService service;
  std::vector<std::string> delivered;
  service.subscribe([&](const Event& event) { delivered.push_back(event.id); });
  std::vector<EventSubscription> subscriptions;
  {
    std::vector<std::jthread> publishers;
    for (int p = 0; p < kPublishers; ++p) {
      publishers.emplace_back([&service, p] {
        for (int i = 0; i < kEach; ++i) {
          service.publishEvent(eventOf(std::to_string(p) + "-" + std::to_string(i)));
        }
      });
    }
    // Opened while records keep coming.
    for (int i = 0; i < 20; ++i) {
      subscriptions.push_back(service.openReader(EventFilter{}));
      service.getStats();
      std::this_thread::yield();
    }
  }
  ASSERT_EQ(delivered.size(), static_cast<std::size_t>(kPublishers * kEach));
  EXPECT_EQ(idsOf(service.getRecentEvents(1000)), delivered);
  for (const EventSubscription& subscription : subscriptions) {
    const auto seen = take(subscription);
    ASSERT_LE(seen.size(), delivered.size());
    EXPECT_TRUE(std::equal(seen.rbegin(), seen.rend(), delivered.rbegin()))
        << "a reader sees an unbroken end of the publications";
  }
}

}  // namespace
}  // namespace tavrel::events
