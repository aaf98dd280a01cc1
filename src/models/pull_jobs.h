#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "events/event_stream_service.h"
#include "models/target_workers.h"
#include "net/worker_client.h"
#include "platform/bounded_threads.h"
#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::models {

/// How one worker fares in a pull job.
struct PullJobWorkerResult {
  std::string worker_id;
  std::string worker_name;
  std::string status;  ///< "pending", then "pulling", then "completed" or "error"
  std::string error;   ///< empty unless the pull failed
};

/// A model being pulled by several workers. A plain value.
struct PullJob {
  std::string job_id;
  std::string model;
  std::string status = "running";  ///< then "completed", "partial" or "failed"
  platform::WallTime created_at;
  platform::WallTime completed_at;           ///< when the last worker finished
  std::vector<PullJobWorkerResult> results;  ///< in the order of the targets
  std::int32_t workers_total = 0;
  std::int32_t workers_completed = 0;
  std::int32_t workers_failed = 0;

  nlohmann::json toJson() const;
};

/// Pulls models on many workers in the background, and remembers every job until the process ends.
///
/// Threads: any; at most kMaxPullsAtOnce of its own wait for workers, further pulls wait for their
/// turn. mu_ is a leaf lock; nobody is called under it.
/// Stopping: the owner cancels the HTTP client first, then stop returns within about a second.
class PullJobs {
 public:
  static constexpr std::size_t kMaxPullsAtOnce = 256;

  /// The references must outlive this.
  PullJobs(net::WorkerClient& client, events::EventStreamService& events);
  PullJobs(const PullJobs&) = delete;
  PullJobs& operator=(const PullJobs&) = delete;

  /// Begins to pull `model` on the targets (at least one). The job as it was stored.
  PullJob start(const std::string& model, const std::vector<TargetWorker>& targets)
      TV_EXCLUDES(mu_);

  std::optional<PullJob> find(const std::string& job_id) const TV_EXCLUDES(mu_);
  std::vector<PullJob> all() const TV_EXCLUDES(mu_);  ///< in id order

  /// Forgets the pulls that have not begun and waits for the others.
  void stop() { threads_.stop(); }

 private:
  void pullModelToWorkerAsync(const std::string& job_id, std::size_t index,
                              const TargetWorker& target, const std::string& model);
  void begin(const std::string& job_id, std::size_t index) TV_EXCLUDES(mu_);
  /// Stores the outcome (no error: success). The job as it is then, with this one result only.
  PullJob finish(const std::string& job_id, std::size_t index, const std::string& error)
      TV_EXCLUDES(mu_);
  void report(const PullJob& job, const PullJobWorkerResult& result);

  net::WorkerClient& client_;
  events::EventStreamService& events_;
  mutable platform::Mutex mu_;
  std::map<std::string, PullJob> jobs_ TV_GUARDED_BY(mu_);
  platform::BoundedThreads threads_;  // last: its jobs use the members above
};

}  // namespace tavrel::models
