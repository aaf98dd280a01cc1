#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "models/model_registry.h"
#include "models/target_workers.h"
#include "net/worker_client.h"
#include "platform/outcome.h"
#include "worker/worker_registry.h"

namespace tavrel::models {

/// A wish to have a model installed on workers.
struct DistributionRequest {
  std::string model;
  std::string source = "ollama";  ///< or "registry", "url", "worker"
  std::string source_id;          ///< the worker to copy from, for "worker"
  std::string source_url;         ///< for "url"
  std::string backend = "ollama";
  std::string format;  ///< empty: as the source says, else "gguf"; not for "worker"
  std::vector<std::string> workers;
  bool all = false;

  /// Throws nlohmann's exception for a value of a wrong type.
  static DistributionRequest fromJson(const nlohmann::json& body);
};

/// Installs models on workers while the caller waits: one worker after the other, since each may
/// have to fetch many gigabytes from the same place.
///
/// Threads: any. No lock is held during calls. Stopping: ends early, with errors, when the HTTP
/// client is cancelled.
class ModelDistribution {
 public:
  /// The references must outlive this.
  ModelDistribution(net::WorkerClient& client, const worker::WorkerRegistry& workers,
                    ModelRegistry& registry)
      : client_(client), workers_(workers), registry_(registry) {}

  platform::Outcome distribute(const DistributionRequest& request);

 private:
  using Targets = std::vector<TargetWorker>;
  /// What became of one install call.
  struct Installed {
    std::string failure;  ///< empty: it worked
    std::string reply;    ///< the body of the worker's answer
  };

  platform::Outcome fromLibrary(const DistributionRequest& request, const Targets& targets);
  platform::Outcome fromRegistry(const DistributionRequest& request, const Targets& targets);
  platform::Outcome fromUrl(const DistributionRequest& request, const Targets& targets);
  platform::Outcome fromWorker(const DistributionRequest& request, const Targets& targets);

  nlohmann::json installEverywhere(const nlohmann::json& body, const Targets& targets);
  Installed install(const TargetWorker& target, const nlohmann::json& body);

  net::WorkerClient& client_;
  const worker::WorkerRegistry& workers_;
  ModelRegistry& registry_;
};

}  // namespace tavrel::models
