#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "platform/clock.h"

// The two kinds of records of the event stream, as values and as the texts that clients receive.
namespace tavrel::events {

/// What an event tells. The numbers are fixed; 32 is not used.
enum class EventType : std::int32_t {
  kWorkerOnline = 0,
  kWorkerOffline = 1,
  kWorkerHealthChange = 2,
  kRouterOnline = 3,
  kRouterOffline = 4,
  kDataWorkerOnline = 5,
  kDataWorkerOffline = 6,
  kMediaWorkerOnline = 7,
  kMediaWorkerOffline = 8,
  kCommWorkerOnline = 9,
  kCommWorkerOffline = 10,
  kAgentWorkerOnline = 11,
  kAgentWorkerOffline = 12,
  kScienceWorkerOnline = 13,
  kScienceWorkerOffline = 14,
  kTrainingWorkerOnline = 15,
  kTrainingWorkerOffline = 16,
  kControllerOnline = 17,
  kControllerOffline = 18,
  kSwarmCreated = 19,
  kSwarmStarted = 20,
  kSwarmCompleted = 21,
  kSwarmFailed = 22,
  kSwarmCancelled = 23,
  kAgentOutput = 24,
  kLog = 25,
  kError = 26,
  kWarning = 27,
  kInfo = 28,
  kDebug = 29,
  kMetricsUpdate = 30,
  kResourceAlert = 31,
  kConfigChange = 33,
  kHeartbeat = 34,
};

/// "unknown" for a value outside the enumeration.
std::string_view eventTypeToString(EventType type);

/// Something that happened in the cluster. A plain value.
struct Event {
  std::string id;
  EventType type = EventType::kInfo;
  std::string source;       ///< id of the node or object concerned
  std::string source_type;  ///< "worker", "router", …, "swarm", "controller"
  platform::WallTime timestamp;
  nlohmann::json data;
  std::string message;

  nlohmann::json toJson() const;
  /// One Server-Sent Event. Text that is not UTF-8 is replaced, never raised.
  std::string toSSE() const;
};

/// One structured log line. A plain value.
struct LogEntry {
  std::string id;
  std::string level;  ///< "debug", "info", "warning" or "error"
  std::string source;
  std::string source_type;
  platform::WallTime timestamp;
  std::string message;
  nlohmann::json metadata;

  nlohmann::json toJson() const;
  std::string toSSE() const;
};

/// A record together with its texts, made once however many readers there are. Immutable, shared
/// through pointers by histories, readers and answers.
template <class Record>
class Published : public Record {
 public:
  explicit Published(Record record)
      : Record(std::move(record)),
        sse_(this->toSSE()),
        json_start_(sse_.find(kData) + kData.size()) {}

  const std::string& sse() const { return sse_; }
  /// The compact JSON form.
  std::string_view json() const {
    return std::string_view(sse_).substr(json_start_, sse_.size() - json_start_ - 2);
  }

 private:
  static constexpr std::string_view kData = "\ndata: ";

  std::string sse_;
  std::size_t json_start_;
};

using EventPtr = std::shared_ptr<const Published<Event>>;
using LogEntryPtr = std::shared_ptr<const Published<LogEntry>>;

/// A record id: "evt-", milliseconds since the epoch, "-" and 8 hexadecimal digits.
std::string generateId(platform::WallTime now);

}  // namespace tavrel::events
