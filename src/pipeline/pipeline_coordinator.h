#pragma once

#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "net/worker_client.h"
#include "pipeline/gguf_model.h"
#include "pipeline/pipeline_records.h"
#include "platform/mutex.h"
#include "platform/outcome.h"
#include "worker/worker_registry.h"

namespace tavrel::pipeline {

/// Spreads models over workers: splits their layers, tells every worker its shard, and keeps the
/// record of each pipeline in memory.
///
/// Threads: any. mu_ is a leaf lock; workers are called without it, several at once. While one
/// caller changes a pipeline, others that want to change it are refused (409).
/// Failure: told by the outcomes.
class PipelineCoordinator {
 public:
  /// How many workers are called at once.
  static constexpr std::size_t kMaxCallsAtOnce = 16;

  /// Where the data worker that stores models is reached now; empty when there is none.
  using DataWorkerUrl = std::function<std::string()>;

  /// The references must outlive this.
  PipelineCoordinator(net::WorkerClient& client, const worker::WorkerRegistry& workers,
                      DataWorkerUrl data_worker_url);
  PipelineCoordinator(const PipelineCoordinator&) = delete;
  PipelineCoordinator& operator=(const PipelineCoordinator&) = delete;

  platform::Outcome deploy(const PipelineDeployRequest& request) TV_EXCLUDES(mu_);
  platform::Outcome undeploy(const std::string& pipeline_id) TV_EXCLUDES(mu_);
  /// Splits the model anew over those of the pipeline's workers that are online.
  platform::Outcome rebalance(const std::string& pipeline_id) TV_EXCLUDES(mu_);
  /// The same as undeploy but for its answer.
  platform::Outcome remove(const std::string& pipeline_id) TV_EXCLUDES(mu_);

  std::optional<PipelineConfig> find(const std::string& pipeline_id) const TV_EXCLUDES(mu_);
  std::vector<PipelineConfig> all() const TV_EXCLUDES(mu_);  ///< in id order

  /// What a worker says of its shards in a heartbeat: an array of {"pipeline_id", "status",
  /// "error", "layer_start", "layer_end"}, the status "loading", "ready" or "error". The layers may
  /// be left out; a report of others than the worker's shard has now is ignored, as is whatever
  /// else there is.
  void reportShards(const std::string& worker_id, const nlohmann::json& shards) TV_EXCLUDES(mu_);

 private:
  struct Entry {
    PipelineConfig config;
    GGUFModelMetadata model;  ///< without its tensors
    std::vector<std::string> workers;
    std::optional<std::vector<ManualLayers>> manual_layers;
    bool busy = false;  ///< somebody is changing it
  };
  using Workers = std::vector<worker::WorkerPtr>;
  template <class Value>
  using Or = std::variant<Value, platform::Outcome>;  ///< a value or the refusal

  Or<Workers> onlineWorkers(const std::vector<std::string>& ids) const;
  Or<Entry> entryFor(const PipelineDeployRequest& request);
  std::optional<platform::Outcome> readFromDataWorker(const std::string& model_id, Entry& entry);
  std::optional<platform::Outcome> readFromFile(const std::string& path, Entry& entry);
  Or<std::vector<ShardAssignment>> assign(const Entry& entry, const Workers& workers) const;

  /// Tells every worker its shard; shards that could not be pushed have an error afterwards.
  void load(PipelineConfig& config);
  /// Tells every worker to let go of its shard, and calls `done` for those that did.
  void unload(const PipelineConfig& config,
              const std::function<void(const ShardAssignment&)>& done);

  /// A copy of the entry, which is then ours alone to change, or the refusal.
  Or<Entry> claim(const std::string& pipeline_id) TV_EXCLUDES(mu_);
  /// Puts the changed entry in the claimed one's place. What workers reported meanwhile stands.
  PipelineConfig release(Entry entry) TV_EXCLUDES(mu_);
  std::optional<platform::Outcome> takeDown(const std::string& pipeline_id) TV_EXCLUDES(mu_);

  net::WorkerClient& client_;
  const worker::WorkerRegistry& workers_;
  const DataWorkerUrl data_worker_url_;
  mutable platform::Mutex mu_;
  std::map<std::string, Entry> pipelines_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::pipeline
