#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrel::config {

/// The kinds of inference services that workers can use.
enum class BackendType : std::int32_t {
  kOllama,
  kVllm,
  kLlamaCpp,
  kTgi,
  kMlx,
  kOpenAi,
  kAnthropic,
  kGoogleGemini,
  kAzureOpenAi,
  kAwsBedrock,
  kTogether,
  kGroq,
  kXai,
  kFireworks,
  kMistral,
  kDeepseek,
  kPerplexity,
  kCohere,
  kHuggingface,
  kNvidiaNim,
  kNvidiaNimCloud,
  kOllamaCloud,
  kOpenAiCompatible,
  kUnknown,
};

std::string backendTypeToString(BackendType type);
/// Aliases are known too; kUnknown for any other text.
BackendType backendTypeFromString(std::string_view text);
/// What the API tells about the kinds: category, name, where they are found, what they need.
nlohmann::json backendTypeCatalogue();

struct AWSCredentials {
  std::string access_key;
  std::string secret_key;
  std::string region = "us-east-1";
  std::string session_token;

  nlohmann::json toJson() const;  ///< masked
  nlohmann::json toJsonWithSecrets() const;
};

struct AzureSettings {
  std::string deployment_id;
  std::string api_version = "2024-02-15-preview";

  nlohmann::json toJson() const;
};

/// How a worker reaches one inference service, credentials included. A plain value.
struct BackendProfile {
  std::string id;
  std::string name;
  std::string description;
  BackendType type = BackendType::kUnknown;
  std::string url;
  std::string api_key;
  std::string organization_id;
  std::string default_model;
  std::vector<std::string> allowed_models;
  std::optional<AWSCredentials> aws_credentials;
  std::optional<AzureSettings> azure_settings;
  std::int32_t max_requests_per_minute = 0;  ///< 0: no limit
  std::int32_t max_tokens_per_minute = 0;    ///< 0: no limit
  std::int32_t max_retries = 3;
  std::int32_t retry_delay_ms = 1000;
  std::int32_t priority = 100;  ///< the lowest is preferred
  bool enabled = true;
  bool is_fallback = false;
  std::string created_at;  ///< UTC, e.g. "2026-01-31T12:00:00Z"
  std::string updated_at;

  nlohmann::json toJson(bool include_secrets) const;
  /// Missing members keep their defaults; values of a wrong type throw nlohmann's exception.
  static BackendProfile fromJson(const nlohmann::json& object);
};

/// Which profiles a worker is to use.
struct WorkerBackendAssignment {
  std::string worker_id;
  std::vector<std::string> profile_ids;
  bool auto_detect_local = false;

  nlohmann::json toJson() const;
  static WorkerBackendAssignment fromJson(const nlohmann::json& object);
};

}  // namespace tavrel::config
