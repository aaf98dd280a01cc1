#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "models/model_registry.h"
#include "net/worker_client.h"
#include "platform/clock.h"
#include "platform/outcome.h"
#include "worker/typed_worker_registry.h"

namespace tavrel::models {

/// Training jobs live on training workers; this hands them over and finds them again.
///
/// Threads: any; no lock is held during calls. Failure: told by the outcomes.
class TrainingJobs {
 public:
  /// How many training workers are asked at once for their lists.
  static constexpr std::size_t kMaxCallsAtOnce = 16;
  /// How long workers are asked one after the other: registering is open to everybody, and
  /// thousands that do not answer must not hold a request for hours.
  static constexpr std::chrono::milliseconds kAskingTime{120'000};

  /// The references must outlive this.
  TrainingJobs(net::WorkerClient& client, const worker::TypedWorkerRegistry& training_workers,
               const ModelRegistry& registry, std::chrono::milliseconds asking_time = kAskingTime)
      : client_(client),
        training_workers_(training_workers),
        registry_(registry),
        asking_time_(asking_time) {}

  /// Hands the job to the least busy worker that has the backend asked for. Throws nlohmann's
  /// exception when the body is not an object or "backend" is neither a text nor null.
  platform::Outcome submit(nlohmann::json body, platform::WallTime now);
  /// The jobs of every worker heard of lately; those that fail to answer, or whose turn did not
  /// come within kAskingTime, are left out here and below.
  platform::Outcome list(platform::WallTime now);
  platform::Outcome find(const std::string& job_id);
  platform::Outcome cancel(const std::string& job_id);

 private:
  /// The least busy fresh worker that has the backend (any, when empty), or null.
  worker::TypedWorkerPtr choose(const std::string& backend, platform::WallTime now) const;
  std::vector<worker::TypedWorkerPtr> fresh(platform::WallTime now) const;

  /// A job and the worker that has it.
  struct Found {
    worker::TypedWorkerPtr worker;  ///< null: nobody knows the job
    nlohmann::json job;
  };
  Found locate(const std::string& job_id);

  net::WorkerClient& client_;
  const worker::TypedWorkerRegistry& training_workers_;
  const ModelRegistry& registry_;
  const std::chrono::milliseconds asking_time_;
};

}  // namespace tavrel::models
