#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "inference/ranked_candidates.h"
#include "platform/mutex.h"
#include "worker/worker_registry.h"

namespace tavrel::inference {

enum class LoadStrategy { kLoadBased, kRoundRobin };

/// A worker chosen for a request.
struct LoadChoice {
  worker::WorkerPtr worker;
  LoadStrategy strategy = LoadStrategy::kLoadBased;
};

/// Chooses workers by load: requests routed to a worker since the process started × 100 + CPU
/// percent × 0.5 + memory percent × 0.3, the lowest first, equal ones in id order. The requests are
/// never counted down again, on purpose: over time every worker gets its share. When no candidate
/// reports its load, or the best score is exactly 0, candidates take turns instead.
///
/// Threads: any; mu_ is a leaf but for the registry's own lock. Failure: no candidate, no choice.
class LoadSelector {
 public:
  /// `registry` must outlive this.
  explicit LoadSelector(const worker::WorkerRegistry& registry) : candidates_(registry) {}

  /// The worker for the next request, which is counted. Empty when no online worker has the model.
  std::optional<LoadChoice> select(const std::string& model) TV_EXCLUDES(mu_);

  /// Every online worker that has the model, in id order.
  std::vector<worker::WorkerPtr> candidates(const std::string& model) TV_EXCLUDES(mu_);
  /// The first of them, null when there is none.
  worker::WorkerPtr first(const std::string& model) TV_EXCLUDES(mu_);

  /// Counts a request that was routed to the worker by another rule.
  void countRouted(const std::string& worker_id) TV_EXCLUDES(mu_);

 private:
  struct Rank {
    double score = 0;
    bool reports_load = false;

    bool operator<(const Rank& other) const { return score < other.score; }
    bool counted() const { return reports_load; }
  };
  using Candidates = RankedCandidates<Rank>;

  static Rank rankOf(const worker::WorkerInfo& worker, std::int64_t active_requests);
  const Candidates::Group* upToDate(const std::string& model) TV_REQUIRES(mu_);
  void count(const std::string& worker_id) TV_REQUIRES(mu_);

  platform::Mutex mu_;
  Candidates candidates_ TV_GUARDED_BY(mu_);
  std::unordered_map<std::string, std::int64_t> active_requests_ TV_GUARDED_BY(mu_);
  std::uint64_t request_counter_ TV_GUARDED_BY(mu_) = 0;
};

}  // namespace tavrel::inference
