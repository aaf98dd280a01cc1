#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>

namespace tavrel::events {
class EventStreamService;
}

namespace tavrel::worker {

struct TypedWorkerInfo;

/// The kinds of specialised daemons, in the order in which the reaper visits them.
enum class WorkerKind : std::size_t {
  kData,
  kMedia,
  kAgent,
  kComm,
  kScience,
  kTraining,
  kNativeInference,
  kSwarm,
};
inline constexpr std::size_t kWorkerKinds = 8;

enum class FieldType {
  kText,
  kFlag,
  kInt32,
  kUint64,
  kList,            ///< of texts
  kAvailableNames,  ///< a list of names or of objects with "backend" and "available"; kept as names
  kGibibytes,       ///< not read: the bytes in `source` / 2^30
};

/// One member that only one kind of record has.
struct TypedField {
  const char* key;
  FieldType type;
  const char* source = "";    ///< read instead when `key` is missing
  const char* fallback = "";  ///< of a text
  bool flag_fallback = false;
};

/// Everything by which one kind differs from the others: a row of the table.
struct TypedWorkerKind {
  using Announcement = void (events::EventStreamService::*)(const std::string& id,
                                                            nlohmann::json data);

  WorkerKind kind;
  const char* prefix;       ///< of the routes
  const char* noun;         ///< lower-case, in console lines
  const char* title;        ///< the noun at the beginning of a sentence
  const char* label;        ///< in the brackets of console lines
  const char* id_key;       ///< in replies
  const char* list_key;     ///< in the list
  const char* worker_type;  ///< unless the daemon says another
  std::span<const TypedField> fields;

  bool reaped = true;
  Announcement online = nullptr;              ///< event; null: none
  Announcement offline = nullptr;             ///< event; null: none
  std::span<const char* const> event_keys{};  ///< what the online event carries
  bool logs_online = false;                   ///< a log entry instead of an event
  bool purges = false;                        ///< a registration removes replaced and stale records
  bool replies_with_topology = false;         ///< a registration is answered with the others' URLs
  std::int64_t default_port = 0;              ///< of a daemon known by its host alone; 0: none
  const char* assumed_capability = nullptr;   ///< when none is sent

  const char* id_alias = "daemon_id";
  const char* name_alias = "daemon_name";
  const char* port_key = "port";
  const char* required_error = "daemon_id and url (or ip_address+port) are required";

  /// What the registration line tells beyond id and URL; null: nothing.
  std::string (*log_suffix)(const TypedWorkerInfo& worker) = nullptr;
  /// Fills members that the body implies without naming them; null: nothing.
  void (*complete)(const nlohmann::json& body, nlohmann::json& details) = nullptr;
};

/// All kinds, in the order of WorkerKind.
std::span<const TypedWorkerKind> typedWorkerKinds();
const TypedWorkerKind& typedWorkerKind(WorkerKind kind);

}  // namespace tavrel::worker
