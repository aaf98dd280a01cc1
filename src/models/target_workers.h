#pragma once

#include <string>
#include <vector>

#include "worker/worker_registry.h"

// Which inference workers a model is brought to.
namespace tavrel::models {

/// A worker as it was when the request came. It is called there even if it leaves the registry.
struct TargetWorker {
  std::string worker_id;
  std::string worker_name;
  std::string base_url;
  std::string error;  ///< why it cannot be called; then there is no base_url
};

/// One without a valid address cannot be called.
TargetWorker targetFrom(const worker::WorkerInfo& worker);

/// For a pull: with `all` every online worker that runs models itself, in id order; else those of
/// `ids` that are registered and online, each once. Any thread.
std::vector<TargetWorker> pullTargets(const worker::WorkerRegistry& workers, bool all,
                                      const std::vector<std::string>& ids);

/// For a distribution: with `all` every online worker, in id order; else `ids`, known or not, each
/// once. Any thread.
std::vector<TargetWorker> distributionTargets(const worker::WorkerRegistry& workers, bool all,
                                              const std::vector<std::string>& ids);

}  // namespace tavrel::models
