#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "net/worker_client.h"
#include "platform/clock.h"
#include "worker/typed_worker_registry.h"

namespace tavrel::models {

/// The model store of the cluster, which a data worker with storage keeps. The controller holds
/// nothing of it and only passes calls on.
///
/// Threads: any; calls block for what their kind allows. Failure: told by the results.
class ModelRegistry {
 public:
  /// The references must outlive this.
  ModelRegistry(net::WorkerClient& client, const worker::TypedWorkerRegistry& data_workers)
      : client_(client), data_workers_(data_workers) {}

  /// Where the first data worker with storage, in id order, that was heard of lately is reached;
  /// empty when there is none.
  std::string storageWorkerUrl(platform::WallTime now) const;
  /// The same for handing out models, among those that are also online: one with storage if there
  /// is one, else the first.
  std::string servingWorkerUrl(platform::WallTime now) const;

  // Each asks the data worker at `base_url`.
  net::HttpResult list(const std::string& base_url);
  net::HttpResult find(const std::string& base_url, const std::string& id);
  net::HttpResult remove(const std::string& base_url, const std::string& id);
  net::HttpResult upload(const std::string& base_url, std::string json_text);

  /// What the data worker tells about a model; an empty object when it tells nothing of use,
  /// nothing when it says that there is no such model.
  std::optional<nlohmann::json> describe(const std::string& base_url, const std::string& model);

 private:
  net::WorkerClient& client_;
  const worker::TypedWorkerRegistry& data_workers_;
};

/// The entries, which are objects, of a data worker's list of models: a bare array, or an object
/// with a "models" array. Anything else has none.
nlohmann::json listedModels(const std::string& text);

}  // namespace tavrel::models
