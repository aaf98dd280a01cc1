#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/clock.h"
#include "worker/typed_worker_kind.h"

namespace tavrel::worker {

/// One specialised daemon of any kind. A plain copyable value; whoever keeps it guards it.
struct TypedWorkerInfo {
  const TypedWorkerKind* kind = nullptr;  ///< a row of the table, never null in a stored record
  std::string id;
  std::string name;
  std::string url;  ///< base URL without a slash at its end; empty when the daemon told none
  std::string hostname;
  std::string status = "online";  ///< or "offline"
  std::string worker_type;
  nlohmann::json capabilities = nlohmann::json::array();  ///< array or object, as sent
  platform::WallTime registered_at;
  platform::WallTime last_heartbeat;
  nlohmann::json details;  ///< every field of the kind, of the field's type

  // Fields of the kind; asking for one that the kind does not have gives nothing, 0 or "".
  bool flag(const char* key) const;
  std::int64_t number(const char* key) const;  ///< what is larger becomes the largest int64
  std::string text(const char* key) const;
  std::vector<std::string> list(const char* key) const;

  /// Named in the array, or a member of the object that is not false.
  bool hasCapability(std::string_view name) const;

  /// "offline" for a daemon that has been silent for too long, marked or not; else `status`.
  std::string statusAt(platform::WallTime now) const;
  /// Where the daemon is reached: `url`, else its host at the kind's default port, else empty.
  std::string baseUrl() const;

  nlohmann::json toJson(platform::WallTime now) const;
};

/// The members of the kind that the body has, checked and of the fields' types. A value of a wrong
/// type throws nlohmann's exception.
nlohmann::json typedFieldsFrom(const TypedWorkerKind& kind, const nlohmann::json& body);

/// The record a registration describes, online and heard of at `now`, or the text of the refusal.
/// `remote_address` is where it came from.
std::variant<TypedWorkerInfo, std::string> typedWorkerFromRegistration(
    const TypedWorkerKind& kind, const nlohmann::json& body, const std::string& remote_address,
    platform::WallTime now);

/// The same for the heartbeat of a daemon that is not known (any more). Its URL may be missing.
std::variant<TypedWorkerInfo, std::string> typedWorkerFromHeartbeat(
    const TypedWorkerKind& kind, const std::string& id, const nlohmann::json& body,
    const std::string& remote_address, platform::WallTime now);

/// Puts the state a heartbeat carries into the record: what the body has replaces, what it lacks
/// stays. The record is online and heard of at `now`. A value of a wrong type throws nlohmann's
/// exception before anything is changed.
void applyTypedHeartbeat(TypedWorkerInfo& worker, const nlohmann::json& body,
                         platform::WallTime now);

}  // namespace tavrel::worker
