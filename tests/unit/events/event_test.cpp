#include "events/event.h"

#include <gtest/gtest.h>

namespace tavrel::events {
namespace {

platform::WallTime atMilliseconds(std::int64_t ms) {
  return platform::WallTime(std::chrono::milliseconds(ms));
}

TEST(Event, TypesHaveTheirTextsByNumber) {
  const std::pair<int, const char*> expected[] = {{0, "worker_online"},
                                                  {2, "worker_health_change"},
                                                  {4, "router_offline"},
                                                  {9, "comm_worker_online"},
                                                  {16, "training_worker_offline"},
                                                  {18, "controller_offline"},
                                                  {23, "swarm_cancelled"},
                                                  {25, "log"},
                                                  {31, "resource_alert"},
                                                  {32, "unknown"},
                                                  {33, "config_change"},
                                                  {34, "heartbeat"},
                                                  {35, "unknown"},
                                                  {-1, "unknown"}};
  for (const auto& [number, text] : expected) {
    EXPECT_EQ(eventTypeToString(static_cast<EventType>(number)), text) << number;
  }
}

TEST(Event, IsSentAsOneServerSentEvent) {
  const Event event{"evt-1",    EventType::kSwarmFailed, "s1",
                    "swarm",    atMilliseconds(1500),    {{"b", 1}},
                    "Swarm\ns1"};
  EXPECT_EQ(
      event.toSSE(),
      "event: swarm_failed\nid: evt-1\n"
      "data: {\"data\":{\"b\":1},\"id\":\"evt-1\",\"message\":\"Swarm\\ns1\",\"source\":\"s1\","
      "\"source_type\":\"swarm\",\"timestamp\":1500,\"type\":\"swarm_failed\"}\n\n");
}

TEST(Event, LogEntriesAreSentUnderTheNameLog) {
  const LogEntry entry{"evt-2", "warning", "node", "worker", atMilliseconds(7), "m", {{"k", 2}}};
  EXPECT_EQ(
      entry.toSSE(),
      "event: log\nid: evt-2\n"
      "data: {\"id\":\"evt-2\",\"level\":\"warning\",\"message\":\"m\",\"metadata\":{\"k\":2},"
      "\"source\":\"node\",\"source_type\":\"worker\",\"timestamp\":7}\n\n");
}

TEST(Event, TextThatIsNotUtf8IsReplacedAndThePublishedJsonIsWhole) {
  const Published<Event> published(
      Event{"evt-3", EventType::kInfo, "\xff", "worker", {}, {{"data: ", "\n"}}, "\xc3"});
  const auto parsed = nlohmann::json::parse(published.json());
  EXPECT_EQ(parsed["source"], "\xEF\xBF\xBD");
  EXPECT_EQ(parsed["message"], "\xEF\xBF\xBD");
  EXPECT_EQ(parsed["data"], (nlohmann::json{{"data: ", "\n"}}));
}

TEST(Event, IdsCarryTheTimeAndEightHexadecimalDigits) {
  const std::string id = generateId(atMilliseconds(1234567890123));
  ASSERT_EQ(id.size(), std::string("evt-1234567890123-").size() + 8);
  EXPECT_EQ(id.rfind("evt-1234567890123-", 0), 0u);
  EXPECT_EQ(id.find_first_not_of("0123456789abcdef", 18), std::string::npos);
  EXPECT_NE(id, generateId(atMilliseconds(1234567890123)));
}

}  // namespace
}  // namespace tavrel::events
