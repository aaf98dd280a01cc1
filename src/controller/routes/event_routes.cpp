#include <poll.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "api/route_book.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "events/event_stream_service.h"
#include "platform/socket_wait.h"

namespace tavrel::controller {
namespace {

using api::Context;
using api::Request;
using api::Response;

constexpr std::int32_t kDefaultCount = 100;
constexpr std::int32_t kMaxEvents = 500;
constexpr std::int32_t kMaxLogs = 1000;
constexpr std::size_t kMaxWriteBytes = std::size_t{64} << 10;

std::size_t countOf(const Request& req, std::int32_t maximum) {
  return static_cast<std::size_t>(std::clamp(queryNumber(req, "count", kDefaultCount), 0, maximum));
}

/// {"count": …, `key`: […]}, put together from the texts that the records already have.
template <class RecordPtr>
Response listOf(const char* key, const std::vector<RecordPtr>& records) {
  std::string body = "{\"count\":" + std::to_string(records.size()) + ",\"" + key + "\":[";
  for (const auto& record : records) {
    if (&record != &records.front()) body += ',';
    body += record->json();
  }
  body += "]}";
  return Response::text(std::move(body), "application/json");
}

/// Several records leave in one write, so that a replay or a burst costs few system calls.
bool writeAll(const std::vector<events::SharedText>& batch, api::StreamWriter& writer) {
  if (batch.size() == 1) return writer.write(*batch.front());
  std::string joined;
  for (const events::SharedText& text : batch) {
    if (joined.size() + text->size() > kMaxWriteBytes && !joined.empty()) {
      if (!writer.write(joined)) return false;
      joined.clear();
    }
    joined += *text;
  }
  return joined.empty() || writer.write(joined);
}

/// Sleeps until the reader has something. False when the client hung up meanwhile.
bool waitForRecords(const events::EventReader& reader, int client) {
  const auto never = platform::deadlineAfter(std::chrono::milliseconds::max());
  return platform::waitForSocket(reader.descriptor(), POLLIN, client, never) ==
         platform::SocketWait::kReady;
}

struct EventRoutes {
  events::EventStreamService& events;

  void stream(const Context& ctx, const Request& req, api::StreamWriter& writer) const {
    if (!writer.write("event: connected\ndata: {\"status\":\"connected\"}\n\n")) return;
    const events::EventSubscription subscription =
        events.openReader({.events = req.getQuery("events") != "false",
                           .logs = req.getQuery("logs") != "false",
                           .level = req.getQuery("level"),
                           .source = req.getQuery("source")});
    events::EventReader& reader = subscription.reader();
    const int client = ctx.client == nullptr ? -1 : ctx.client->descriptor();
    std::vector<events::SharedText> batch;
    while (reader.take(batch) && writeAll(batch, writer) && waitForRecords(reader, client)) {
    }
  }

  Response listLogs(const Request& req) const {
    const std::size_t count = countOf(req, kMaxLogs);
    const std::string level = req.getQuery("level");
    if (!level.empty()) return listOf("logs", events.getLogsByLevel(level, count));
    const std::string source = req.getQuery("source");
    if (!source.empty()) return listOf("logs", events.getLogsBySource(source, count));
    return listOf("logs", events.getRecentLogs(count));
  }

  Response listEvents(const Request& req) const {
    return listOf("events", events.getRecentEvents(countOf(req, kMaxEvents)));
  }

  Response stats() const { return Response::ok(events.getStats()); }
};

}  // namespace

void addEventRoutes(api::RouteBook& book, events::EventStreamService& events) {
  const EventRoutes r{events};
  book.getStream("/api/v1/events/stream",
                 [r](Context& ctx, const Request& req, api::StreamWriter& writer) {
                   r.stream(ctx, req, writer);
                 });
  book.get("/api/v1/logs", [r](Context&, const Request& req) { return r.listLogs(req); });
  book.get("/api/v1/events", [r](Context&, const Request& req) { return r.listEvents(req); });
  book.get("/api/v1/events/stats", [r](Context&, const Request&) { return r.stats(); });
}

}  // namespace tavrel::controller
