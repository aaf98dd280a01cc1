#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "config/backend_profile.h"
#include "net/http_client.h"

namespace tavrel::config {

/// An inference service that answered on this machine.
struct DetectedBackend {
  BackendType type = BackendType::kUnknown;
  std::string url;
  std::string version;
  std::vector<std::string> available_models;
  bool healthy = false;

  nlohmann::json toJson() const;
};

/// Where a kind of service is looked for.
struct BackendProbe {
  BackendType type;
  std::string base_url;
  std::string health_path;
  std::string models_path;
};

/// The usual places on this machine.
std::vector<BackendProbe> localBackendProbes();

/// Asks every place, one after the other, and tells who answered, in the same order. One server
/// that answers like several kinds is reported as each of them. Takes up to 4 s a place that hangs.
std::vector<DetectedBackend> detectLocalBackends(net::HttpClient& http,
                                                 const std::vector<BackendProbe>& probes);

}  // namespace tavrel::config
