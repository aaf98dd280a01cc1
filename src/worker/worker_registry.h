#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/clock.h"
#include "platform/mutex.h"
#include "worker/worker_info.h"

namespace tavrel::worker {

using WorkerPtr = std::shared_ptr<const WorkerInfo>;

/// One entry of the registry's journal: what became of a worker.
struct WorkerChange {
  std::string worker_id;
  WorkerPtr worker;  ///< the record now; null when it left
};

/// Inference workers by id, in id order. Owns the records and hands out immutable snapshots.
/// Threads: any; mu_ is a leaf lock, nothing foreign is called under it.
/// Time: callers pass `now`. Failure: an unknown id gives null or false, never an exception.
class WorkerRegistry {
 public:
  /// Stores the record under its id. Other records of the same non-empty name are removed when
  /// `displace_same_name`; their ids come back, in id order.
  std::vector<std::string> registerWorker(WorkerInfo info, bool displace_empty_name)
      TV_EXCLUDES(mu_);

  /// Replaces the record by a changed copy: `change` edits the copy, and must not call back.
  /// False when the id is unknown.
  bool update(const std::string& worker_id, const std::function<void(WorkerInfo&)>& change)
      TV_EXCLUDES(mu_);

  bool remove(const std::string& worker_id) TV_EXCLUDES(mu_);

  WorkerPtr find(const std::string& worker_id) const TV_EXCLUDES(mu_);
  std::vector<WorkerPtr> snapshot() const TV_EXCLUDES(mu_);  ///< in id order
  std::size_t size() const TV_EXCLUDES(mu_);

  /// Online workers that have the model installed, in id order.
  std::vector<WorkerPtr> onlineWithModel(const std::string& model) const TV_EXCLUDES(mu_);
  bool modelAvailable(const std::string& model) const TV_EXCLUDES(mu_);
  /// Every model installed on an online worker, sorted.
  std::vector<std::string> onlineModels() const TV_EXCLUDES(mu_);

  /// Grows with every change; cheap to compare.
  std::uint64_t version() const;

  /// Appends what changed after `since` (a value this call or version() returned) and returns the
  /// new version. When the journal no longer reaches back that far, `changes` gets every record and
  /// `*complete` is set: what the caller held before is void.
  std::uint64_t changesSince(std::uint64_t since, std::vector<WorkerChange>& changes,
                             bool* complete) const TV_EXCLUDES(mu_);
};

}  // namespace tavrel::worker
