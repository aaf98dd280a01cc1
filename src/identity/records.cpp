#include "identity/records.h"

#include <nlohmann/json.hpp>

#include "platform/json_text.h"

namespace tavrel::identity {

using nlohmann::json;

bool isClusterAdminRole(const std::string& role) {
  return role == "cluster_admin" || role == "admin";
}

json User::toJson(bool include_sensitive) const {
  json object = {{"id", id},
                 {"email", email},
                 {"name", name},
                 {"role", role},
                 {"created_at", created_at},
                 {"last_login", last_login},
                 {"active", active},
                 {"email_verified", email_verified},
                 {"org_id", org_id},
                 {"approval_status", approval_status},
                 {"avatar_url", avatar_url}};
  if (include_sensitive) {
    object["approved_by"] = approved_by;
    object["approved_at"] = approved_at;
    object["api_key"] = api_key;
  }
  return object;
}

json Session::toJson() const {
  return {
      {"token", token}, {"user_id", user_id}, {"email", email}, {"role", role}, {"org_id", org_id}};
}

json Organization::toJson() const {
  return {{"id", id},
          {"name", name},
          {"slug", slug},
          {"description", description},
          {"owner_user_id", owner_user_id},
          {"max_users", max_users},
          {"max_storage_bytes", max_storage_bytes},
          {"plan", plan},
          {"settings", settings},
          {"created_at", created_at},
          {"updated_at", updated_at},
          {"active", active},
          {"email_domain", email_domain}};
}

json UserSettingEntry::toJson() const {
  return {{"id", id},   {"scope", scope}, {"category", category},
          {"key", key}, {"value", value}, {"updated_at", updated_at}};
}

json Credential::toJson(bool include_secret) const {
  json object = {{"id", id},
                 {"owner_type", owner_type},
                 {"owner_id", owner_id},
                 {"name", name},
                 {"service", service},
                 {"shared", shared},
                 {"created_at", created_at},
                 {"updated_at", updated_at},
                 {"created_by", created_by}};
  if (include_secret) object["credential_data"] = credential_data;
  return object;
}

json ResourceQuota::toJson() const {
  return {{"id", id},
          {"target_type", target_type},
          {"target_id", target_id},
          {"metric", metric},
          {"limit_value", limit_value},
          {"current_value", current_value},
          {"reset_interval", reset_interval},
          {"last_reset", last_reset}};
}

json ChatConversation::toJson(bool include_messages) const {
  json object = {{"id", id},
                 {"user_id", user_id},
                 {"org_id", org_id},
                 {"title", title},
                 {"model", model},
                 {"created_at", created_at},
                 {"updated_at", updated_at},
                 {"pinned", pinned},
                 {"archived", archived}};
  if (include_messages) {
    try {
      object["messages"] = platform::parseForeignJson(messages);
    } catch (const std::exception&) {
      object["messages"] = json::array();
    }
  }
  return object;
}

}  // namespace tavrel::identity
