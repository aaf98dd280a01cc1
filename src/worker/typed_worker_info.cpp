#include "worker/typed_worker_info.h"

#include <algorithm>

#include "platform/json_fields.h"
#include "worker/liveness.h"
#include "worker/worker_url.h"

namespace tavrel::worker {
namespace {

using nlohmann::json;
using platform::jsonMember;

constexpr double kBytesPerGibibyte = 1024.0 * 1024.0 * 1024.0;

std::vector<std::string> availableNames(const json& value) {
  std::vector<std::string> names;
  for (const json& element : value.get_ref<const json::array_t&>()) {
    if (element.is_string()) {
      names.push_back(element.get<std::string>());
    } else if (element.value("available", true)) {
      names.push_back(element.at("backend").get<std::string>());
    }
  }
  return names;
}

json fieldValue(FieldType type, const json& value) {
  switch (type) {
    case FieldType::kText:
      return value.get<std::string>();
    case FieldType::kFlag:
      return value.get<bool>();
    case FieldType::kInt32:
      return platform::jsonNumber<std::int32_t>(value);
    case FieldType::kUint64:
      return platform::jsonNumber<std::uint64_t>(value);
    case FieldType::kList:
      return value.get<std::vector<std::string>>();
    case FieldType::kAvailableNames:
      return availableNames(value);
    case FieldType::kGibibytes:
      break;
  }
  return nullptr;
}

json defaultValue(const TypedField& field) {
  switch (field.type) {
    case FieldType::kText:
      return field.fallback;
    case FieldType::kFlag:
      return field.flag_fallback;
    case FieldType::kInt32:
    case FieldType::kUint64:
      return 0;
    case FieldType::kList:
    case FieldType::kAvailableNames:
      return json::array();
    case FieldType::kGibibytes:
      break;
  }
  return nullptr;
}

// Null when none were sent. An array or an object goes through as it is.
json capabilitiesFrom(const json& body) {
  const json* value = jsonMember(body, "capabilities");
  if (value == nullptr) return nullptr;
  if (!value->is_object()) value->get_ref<const json::array_t&>();  // raises for anything else
  return *value;
}

std::string textOr(const json& body, const char* key, const char* alias) {
  std::string text;
  platform::readField(body, key, text);
  if (text.empty()) platform::readField(body, alias, text);
  return text;
}

std::string urlFrom(const TypedWorkerKind& kind, const json& body) {
  std::string url = body.value("url", "");
  const std::string ip_address = body.value("ip_address", "");
  const auto port = platform::jsonNumberOr<std::int32_t>(body, kind.port_key, 0);
  if (url.empty() && isHost(ip_address) && port > 0) url = httpUrl(ip_address, port);
  return url;
}

// Everything of a registration but the demand that id and URL be there.
std::variant<TypedWorkerInfo, std::string> readRecord(const TypedWorkerKind& kind, std::string id,
                                                      const json& body,
                                                      const std::string& remote_address,
                                                      platform::WallTime now) {
  TypedWorkerInfo worker;
  worker.kind = &kind;
  worker.id = std::move(id);
  worker.name = textOr(body, "name", kind.name_alias);
  worker.hostname = body.value("hostname", "");
  worker.worker_type = body.value("worker_type", kind.worker_type);
  if (const std::string url = urlFrom(kind, body); !url.empty()) {
    const auto reachable = ensureResolvableURL(url, worker.hostname, remote_address);
    if (!reachable) return "url must be an http or https URL";
    worker.url = *reachable;
  }
  if (json capabilities = capabilitiesFrom(body); !capabilities.is_null()) {
    worker.capabilities = std::move(capabilities);
  }
  if (worker.capabilities.empty() && kind.assumed_capability != nullptr) {
    worker.capabilities = json::array({kind.assumed_capability});
  }
  worker.details = typedFieldsFrom(kind, body);
  for (const TypedField& field : kind.fields) {
    if (field.type != FieldType::kGibibytes) worker.details.emplace(field.key, defaultValue(field));
  }
  worker.registered_at = now;
  worker.last_heartbeat = now;
  return worker;
}

}  // namespace

json typedFieldsFrom(const TypedWorkerKind& kind, const json& body) {
  json details = json::object();
  for (const TypedField& field : kind.fields) {
    if (field.type == FieldType::kGibibytes) continue;
    const json* value = jsonMember(body, field.key);
    if (value == nullptr && *field.source != '\0') value = jsonMember(body, field.source);
    if (value != nullptr) details[field.key] = fieldValue(field.type, *value);
  }
  if (kind.complete != nullptr) kind.complete(body, details);
  return details;
}

std::variant<TypedWorkerInfo, std::string> typedWorkerFromRegistration(
    const TypedWorkerKind& kind, const json& body, const std::string& remote_address,
    platform::WallTime now) {
  std::string id = textOr(body, "id", kind.id_alias);
  if (id.empty() || urlFrom(kind, body).empty()) return kind.required_error;
  return readRecord(kind, std::move(id), body, remote_address, now);
}

std::variant<TypedWorkerInfo, std::string> typedWorkerFromHeartbeat(
    const TypedWorkerKind& kind, const std::string& id, const json& body,
    const std::string& remote_address, platform::WallTime now) {
  return readRecord(kind, id, body, remote_address, now);
}

void applyTypedHeartbeat(TypedWorkerInfo& worker, const json& body, platform::WallTime now) {
  const json details = typedFieldsFrom(*worker.kind, body);
  if (json capabilities = capabilitiesFrom(body); !capabilities.is_null()) {
    worker.capabilities = std::move(capabilities);
  }
  worker.details.update(details);
  worker.status = "online";
  worker.last_heartbeat = now;
}

bool TypedWorkerInfo::flag(const char* key) const {
  return details.value(key, false);
}

std::int64_t TypedWorkerInfo::number(const char* key) const {
  return platform::jsonNumberOr<std::int64_t>(details, key, 0);
}

std::string TypedWorkerInfo::text(const char* key) const {
  return details.value(key, "");
}

std::vector<std::string> TypedWorkerInfo::list(const char* key) const {
  return details.value(key, std::vector<std::string>{});
}

bool TypedWorkerInfo::hasCapability(std::string_view capability) const {
  if (capabilities.is_object()) {
    const auto member = capabilities.find(std::string(capability));
    return member != capabilities.end() && *member != false;
  }
  return std::any_of(capabilities.begin(), capabilities.end(), [&](const json& element) {
    return element.is_string() && element.get_ref<const std::string&>() == capability;
  });
}

std::string TypedWorkerInfo::statusAt(platform::WallTime now) const {
  return judgeSilence(last_heartbeat, now, true) == Silence::kNone ? status : "offline";
}

std::string TypedWorkerInfo::baseUrl() const {
  if (!url.empty() || kind->default_port == 0 || !isHost(hostname)) return url;
  return httpUrl(hostname, kind->default_port);
}

json TypedWorkerInfo::toJson(platform::WallTime now) const {
  json record = details;
  for (const TypedField& field : kind->fields) {
    if (field.type != FieldType::kGibibytes) continue;
    record[field.key] = details.value(field.source, 0.0) / kBytesPerGibibyte;
  }
  record["id"] = id;
  record["name"] = name;
  record["url"] = url;
  record["hostname"] = hostname;
  record["status"] = statusAt(now);
  record["worker_type"] = worker_type;
  record["capabilities"] = capabilities;
  record["registered_at"] = platform::toEpochSeconds(registered_at);
  record["last_heartbeat"] = platform::toEpochSeconds(last_heartbeat);
  return record;
}

}  // namespace tavrel::worker
