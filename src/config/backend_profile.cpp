#include "config/backend_profile.h"

#include <nlohmann/json.hpp>

#include "platform/json_fields.h"

namespace tavrel::config {

using nlohmann::json;
using platform::readField;

namespace {

AWSCredentials awsCredentialsFrom(const json& object) {
  AWSCredentials credentials;
  readField(object, "access_key", credentials.access_key);
  readField(object, "secret_key", credentials.secret_key);
  readField(object, "region", credentials.region);
  readField(object, "session_token", credentials.session_token);
  return credentials;
}

AzureSettings azureSettingsFrom(const json& object) {
  AzureSettings settings;
  readField(object, "deployment_id", settings.deployment_id);
  readField(object, "api_version", settings.api_version);
  return settings;
}

}  // namespace

json AWSCredentials::toJson() const {
  return {{"access_key", access_key.empty() ? "***" : "***REDACTED***"},
          {"region", region},
          {"has_session_token", !session_token.empty()}};
}

json AWSCredentials::toJsonWithSecrets() const {
  return {{"access_key", access_key},
          {"secret_key", secret_key},
          {"region", region},
          {"session_token", session_token}};
}

json AzureSettings::toJson() const {
  return {{"deployment_id", deployment_id}, {"api_version", api_version}};
}

json BackendProfile::toJson(bool include_secrets) const {
  json object = {{"id", id},
                 {"name", name},
                 {"description", description},
                 {"type", backendTypeToString(type)},
                 {"url", url},
                 {"organization_id", organization_id},
                 {"default_model", default_model},
                 {"allowed_models", allowed_models},
                 {"max_requests_per_minute", max_requests_per_minute},
                 {"max_tokens_per_minute", max_tokens_per_minute},
                 {"max_retries", max_retries},
                 {"retry_delay_ms", retry_delay_ms},
                 {"priority", priority},
                 {"enabled", enabled},
                 {"is_fallback", is_fallback},
                 {"created_at", created_at},
                 {"updated_at", updated_at}};
  if (include_secrets) {
    object["api_key"] = api_key;
  } else {
    object["has_api_key"] = !api_key.empty();
  }
  if (aws_credentials) {
    object["aws_credentials"] =
        include_secrets ? aws_credentials->toJsonWithSecrets() : aws_credentials->toJson();
  }
  if (azure_settings) object["azure_settings"] = azure_settings->toJson();
  return object;
}

BackendProfile BackendProfile::fromJson(const json& object) {
  BackendProfile profile;
  readField(object, "id", profile.id);
  readField(object, "name", profile.name);
  readField(object, "description", profile.description);
  std::string type;
  readField(object, "type", type);
  profile.type = backendTypeFromString(type);
  readField(object, "url", profile.url);
  readField(object, "api_key", profile.api_key);
  readField(object, "organization_id", profile.organization_id);
  readField(object, "default_model", profile.default_model);
  readField(object, "allowed_models", profile.allowed_models);
  const json* aws = platform::jsonMember(object, "aws_credentials");
  if (aws != nullptr && aws->is_object()) profile.aws_credentials = awsCredentialsFrom(*aws);
  const json* azure = platform::jsonMember(object, "azure_settings");
  if (azure != nullptr && azure->is_object()) profile.azure_settings = azureSettingsFrom(*azure);
  readField(object, "max_requests_per_minute", profile.max_requests_per_minute);
  readField(object, "max_tokens_per_minute", profile.max_tokens_per_minute);
  readField(object, "max_retries", profile.max_retries);
  readField(object, "retry_delay_ms", profile.retry_delay_ms);
  readField(object, "priority", profile.priority);
  readField(object, "enabled", profile.enabled);
  readField(object, "is_fallback", profile.is_fallback);
  readField(object, "created_at", profile.created_at);
  readField(object, "updated_at", profile.updated_at);
  return profile;
}

json WorkerBackendAssignment::toJson() const {
  return {{"worker_id", worker_id},
          {"profile_ids", profile_ids},
          {"auto_detect_local", auto_detect_local}};
}

WorkerBackendAssignment WorkerBackendAssignment::fromJson(const json& object) {
  WorkerBackendAssignment assignment;
  readField(object, "worker_id", assignment.worker_id);
  readField(object, "profile_ids", assignment.profile_ids);
  readField(object, "auto_detect_local", assignment.auto_detect_local);
  return assignment;
}

}  // namespace tavrel::config
