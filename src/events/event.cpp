#include "events/event.h"

#include <iterator>

#include "platform/random.h"

namespace tavrel::events {
namespace {

using nlohmann::json;

// By number; the empty text is the number that is not used.
constexpr std::string_view kTypeTexts[] = {"worker_online",
                                           "worker_offline",
                                           "worker_health_change",
                                           "router_online",
                                           "router_offline",
                                           "data_worker_online",
                                           "data_worker_offline",
                                           "media_worker_online",
                                           "media_worker_offline",
                                           "comm_worker_online",
                                           "comm_worker_offline",
                                           "agent_worker_online",
                                           "agent_worker_offline",
                                           "science_worker_online",
                                           "science_worker_offline",
                                           "training_worker_online",
                                           "training_worker_offline",
                                           "controller_online",
                                           "controller_offline",
                                           "swarm_created",
                                           "swarm_started",
                                           "swarm_completed",
                                           "swarm_failed",
                                           "swarm_cancelled",
                                           "agent_output",
                                           "log",
                                           "error",
                                           "warning",
                                           "info",
                                           "debug",
                                           "metrics_update",
                                           "resource_alert",
                                           "",
                                           "config_change",
                                           "heartbeat"};

std::string serverSentEvent(std::string_view name, const std::string& id, const json& data) {
  std::string text = "event: ";
  text += name;
  text += "\nid: ";
  text += id;
  text += "\ndata: ";
  text += data.dump(-1, ' ', false, json::error_handler_t::replace);
  text += "\n\n";
  return text;
}

}  // namespace

std::string_view eventTypeToString(EventType type) {
  const auto place = static_cast<std::size_t>(type);
  if (place >= std::size(kTypeTexts) || kTypeTexts[place].empty()) return "unknown";
  return kTypeTexts[place];
}

json Event::toJson() const {
  return {{"id", id},
          {"type", std::string(eventTypeToString(type))},
          {"source", source},
          {"source_type", source_type},
          {"timestamp", platform::toEpochMilliseconds(timestamp)},
          {"data", data},
          {"message", message}};
}

std::string Event::toSSE() const {
  return serverSentEvent(eventTypeToString(type), id, toJson());
}

json LogEntry::toJson() const {
  return {{"id", id},
          {"level", level},
          {"source", source},
          {"source_type", source_type},
          {"timestamp", platform::toEpochMilliseconds(timestamp)},
          {"message", message},
          {"metadata", metadata}};
}

std::string LogEntry::toSSE() const {
  return serverSentEvent("log", id, toJson());
}

std::string generateId(platform::WallTime now) {
  return "evt-" + std::to_string(platform::toEpochMilliseconds(now)) + "-" + platform::randomHex(8);
}

}  // namespace tavrel::events
