#include "events/event_reader.h"

#include <gtest/gtest.h>
#include <poll.h>

namespace tavrel::events {
namespace {

SharedText text(std::string value) {
  return std::make_shared<const std::string>(std::move(value));
}

bool isReadable(const EventReader& reader) {
  pollfd polled{reader.descriptor(), POLLIN, 0};
  return ::poll(&polled, 1, 0) == 1;
}

std::size_t taken(EventReader& reader) {
  std::vector<SharedText> batch;
  return reader.take(batch) ? batch.size() : SIZE_MAX;
}

TEST(EventReader, WakesItsTakerOnlyWhenTheQueueWasEmpty) {
  EventReader reader(EventFilter{});
  EXPECT_FALSE(isReadable(reader));
  EXPECT_TRUE(reader.offer(text("a")));
  EXPECT_FALSE(reader.offer(text("b")));
  reader.wake();
  EXPECT_TRUE(isReadable(reader));

  std::vector<SharedText> batch;
  ASSERT_TRUE(reader.take(batch));
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_EQ(*batch[0] + *batch[1], "ab");
  EXPECT_FALSE(isReadable(reader));
  EXPECT_TRUE(reader.offer(text("c")));
}

TEST(EventReader, IsEndedWhenTooManyRecordsPileUp) {
  EventReader reader(EventFilter{});
  for (std::size_t i = 0; i < EventReader::kMaxRecords; ++i) reader.offer(text("x"));
  EXPECT_EQ(taken(reader), EventReader::kMaxRecords) << "a full queue is still served";

  for (std::size_t i = 0; i < EventReader::kMaxRecords; ++i) reader.offer(text("x"));
  EXPECT_TRUE(reader.offer(text("one too many")));
  reader.wake();
  EXPECT_TRUE(isReadable(reader));
  EXPECT_EQ(taken(reader), SIZE_MAX);
  EXPECT_FALSE(reader.offer(text("later")));
}

TEST(EventReader, IsEndedWhenTooManyBytesPileUpButTakesOneHugeRecord) {
  EventReader reader(EventFilter{});
  const SharedText huge = text(std::string(EventReader::kMaxBytes + 1, 'x'));
  reader.preload({huge, huge});
  EXPECT_FALSE(reader.offer(huge)) << "the replay does not count, and its taker is on the way";
  EXPECT_EQ(taken(reader), 3u);

  reader.offer(huge);
  EXPECT_EQ(taken(reader), 1u);
  reader.offer(huge);
  reader.offer(text("small"));
  EXPECT_EQ(taken(reader), SIZE_MAX);
}

TEST(EventReader, FilterLetsHeartbeatsThroughAndMatchesLogsExactly) {
  Event event;
  LogEntry entry;
  entry.level = "error";
  entry.source = "node";

  EventFilter nothing{.events = false, .logs = false, .level = "", .source = ""};
  EXPECT_FALSE(nothing.accepts(event));
  EXPECT_FALSE(nothing.accepts(entry));
  event.type = EventType::kHeartbeat;
  EXPECT_TRUE(nothing.accepts(event));

  EventFilter filter;
  EXPECT_TRUE(filter.accepts(entry));
  filter.level = "error";
  filter.source = "node";
  EXPECT_TRUE(filter.accepts(entry));
  filter.source = "nod";
  EXPECT_FALSE(filter.accepts(entry));
  filter.source = "";
  filter.level = "Error";
  EXPECT_FALSE(filter.accepts(entry));
}

}  // namespace
}  // namespace tavrel::events
