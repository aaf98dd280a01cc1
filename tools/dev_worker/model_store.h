#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "platform/mutex.h"

namespace tavrel::dev_worker {

/// A model that the worker has. Immutable.
struct StoredModel {
  std::string name;
  std::string format = "gguf";
  std::string bytes;  ///< the whole file
};
using StoredModelPtr = std::shared_ptr<const StoredModel>;

/// The layers [layer_start, layer_end) of a pipeline's model.
struct LoadedShard {
  std::string pipeline_id;
  std::int32_t layer_start = 0;
  std::int32_t layer_end = 0;
};

/// The worker's models and the shards it was told to load, in memory. A model that comes from
/// nowhere (the command line, the library) is a small but well-formed model file without tensors.
/// Threads: any; mu_ is a leaf lock.
class ModelStore {
 public:
  explicit ModelStore(const std::vector<std::string>& models);

  std::vector<std::string> names() const TV_EXCLUDES(mu_);  ///< oldest first
  bool has(const std::string& name) const { return find(name) != nullptr; }
  StoredModelPtr find(const std::string& name) const TV_EXCLUDES(mu_);
  /// Replaces a model of the same name.
  void add(StoredModel model) TV_EXCLUDES(mu_);
  void addFromLibrary(const std::string& name);

  /// Replaces a shard of the same pipeline.
  void loadShard(LoadedShard shard) TV_EXCLUDES(mu_);
  bool unloadShard(const std::string& pipeline_id) TV_EXCLUDES(mu_);
  /// What heartbeats tell of them: [{"pipeline_id", "layer_start", "layer_end", "status"}].
  nlohmann::json shardReports() const TV_EXCLUDES(mu_);

 private:
  mutable platform::Mutex mu_;
  std::vector<StoredModelPtr> models_ TV_GUARDED_BY(mu_);
  std::vector<LoadedShard> shards_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::dev_worker
