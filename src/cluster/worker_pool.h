#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <future>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cluster/cluster_transport.h"
#include "cluster/load_balancer.h"
#include "cluster/node_registry.h"
#include "cluster/worker_task.h"
#include "platform/clock.h"
#include "platform/mutex.h"
#include "platform/periodic_task.h"

namespace tavrel::cluster {

/// A queue of tasks that dispatcher threads hand to worker nodes over HTTP: the highest priority
/// first, and of equals the oldest. A task whose requirements no node meets now waits, without
/// holding up the others, and fails when its own timeout has passed.
///
/// Threads: any may call; start and stop belong to the owner. The dispatchers are `worker-pool`,
///   `worker-expiry` fails those that waited too long; mu_ is a leaf, nothing is called or waited
///   for under it.
/// Stopping: queued tasks fail, running calls are waited for: cancel them before.
/// Failure: told by the task's result. Results are kept for a while, the newest kKeptResults of
///   them and no more than kKeptBytes.
class WorkerPool {
 public:
  static constexpr std::size_t kMaxQueued = 10'000;
  static constexpr std::size_t kMaxQueuedBytes = std::size_t{256} << 20;
  static constexpr std::size_t kKeptResults = 1000;
  static constexpr std::size_t kKeptBytes = std::size_t{64} << 20;
  static constexpr std::size_t kMaxAnswerBytes = std::size_t{8} << 20;
  /// Until a dispatcher that found nothing it could dispatch looks again.
  static constexpr std::chrono::milliseconds kRetryPause{100};
  /// How much later than its timeout a queued task may fail.
  static constexpr std::chrono::milliseconds kExpiryPass{200};

  /// All must outlive it.
  WorkerPool(const NodeRegistry& registry, LoadBalancer& balancer, ClusterTransport& transport);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void start(std::size_t dispatchers) TV_EXCLUDES(mu_);
  void stop() TV_EXCLUDES(mu_);

  /// The task's id; empty when the queue is full or the pool does not run.
  std::string submit(WorkerTask task) TV_EXCLUDES(mu_);
  std::future<WorkerResult> submitAsync(WorkerTask task) TV_EXCLUDES(mu_);
  WorkerResult submitSync(WorkerTask task) TV_EXCLUDES(mu_);
  /// Takes a task out of the queue. False for one that runs, or is unknown.
  bool cancel(const std::string& task_id) TV_EXCLUDES(mu_);

  std::optional<TaskStatus> getTaskStatus(const std::string& task_id) const TV_EXCLUDES(mu_);
  std::vector<TaskStatus> getPendingTasks() const TV_EXCLUDES(mu_);  ///< next to run first
  std::vector<TaskStatus> getRunningTasks() const TV_EXCLUDES(mu_);
  std::size_t getQueueDepth() const TV_EXCLUDES(mu_);
  std::size_t getWorkerCount() const;  ///< worker nodes, available or not
  std::size_t getBusyWorkerCount() const TV_EXCLUDES(mu_);
  std::vector<NodePtr> getAvailableWorkers() const;
  double getAverageWaitTime() const TV_EXCLUDES(mu_);       ///< milliseconds in the queue
  double getAverageExecutionTime() const TV_EXCLUDES(mu_);  ///< milliseconds
  nlohmann::json getStats() const TV_EXCLUDES(mu_);

 private:
  struct Job;
  struct Offer;
  using JobPtr = std::shared_ptr<Job>;
  /// Higher priorities first, then in order of submission.
  struct Place {
    std::int64_t descending_priority;
    std::uint64_t number;
    auto operator<=>(const Place&) const = default;
  };

  std::pair<std::string, std::future<WorkerResult>> enqueue(WorkerTask task) TV_EXCLUDES(mu_);
  void dispatch() TV_EXCLUDES(mu_);
  bool dispatchOne() TV_EXCLUDES(mu_);
  std::vector<TaskRequirements> wantedOf(const Offer& offer) const TV_EXCLUDES(mu_);
  JobPtr take(const TaskRequirements& requirements, const NodeInfo& node) TV_EXCLUDES(mu_);
  WorkerResult executeOnWorker(const NodeInfo& node, const Job& job) const;
  void handleTaskFailed(const JobPtr& job, TaskState state, std::string error) TV_EXCLUDES(mu_);
  void finish(const JobPtr& job, TaskState state, WorkerResult result) TV_EXCLUDES(mu_);
  void failExpired() TV_EXCLUDES(mu_);
  void unqueueLocked(const JobPtr& job, TaskState next) TV_REQUIRES(mu_);
  void forgetOldLocked() TV_REQUIRES(mu_);

  const NodeRegistry& registry_;
  LoadBalancer& balancer_;
  ClusterTransport& transport_;

  mutable platform::Mutex mu_;
  platform::CondVar changed_;
  bool running_ TV_GUARDED_BY(mu_) = false;
  std::map<std::string, JobPtr> jobs_ TV_GUARDED_BY(mu_);  ///< queued, running and kept ones
  std::map<TaskRequirements, std::map<Place, JobPtr>> queues_ TV_GUARDED_BY(mu_);
  std::size_t queued_ TV_GUARDED_BY(mu_) = 0;
  std::size_t queued_bytes_ TV_GUARDED_BY(mu_) = 0;
  std::map<std::string, JobPtr> active_ TV_GUARDED_BY(mu_);
  std::deque<JobPtr> kept_ TV_GUARDED_BY(mu_);  ///< oldest first
  std::size_t kept_bytes_ TV_GUARDED_BY(mu_) = 0;
  std::uint64_t submitted_ TV_GUARDED_BY(mu_) = 0;
  std::uint64_t started_ TV_GUARDED_BY(mu_) = 0;
  std::uint64_t completed_ TV_GUARDED_BY(mu_) = 0;
  std::uint64_t failed_ TV_GUARDED_BY(mu_) = 0;
  std::uint64_t executed_ TV_GUARDED_BY(mu_) = 0;
  double wait_ms_ TV_GUARDED_BY(mu_) = 0;       ///< of all that were started
  double execution_ms_ TV_GUARDED_BY(mu_) = 0;  ///< of all that have run

  std::vector<std::thread> dispatchers_;  // of the owner
  platform::PeriodicTask expiry_;         // last: its thread uses all of the above
};

}  // namespace tavrel::cluster
