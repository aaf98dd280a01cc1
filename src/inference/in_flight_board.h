#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>
#include <span>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "inference/ranked_candidates.h"
#include "inference/worker_health.h"
#include "net/worker_address.h"
#include "platform/clock.h"
#include "platform/mutex.h"
#include "worker/worker_registry.h"

namespace tavrel::inference {

class WorkerLease;

/// How a request that was given to a worker ended.
enum class LeaseEnd {
  kAnswered,      ///< the worker did its part
  kFault,         ///< the worker failed: it counts against it
  kBackPressure,  ///< the worker has no room now: no fault, and no sign of health either
  kUndecided,     ///< the client left first, or the end says nothing about the worker
};

/// Chooses workers by the requests they have under way right now: the fewest first, equal ones by
/// their load, then whoever was chosen longest ago. Workers that keep failing are passed over (see
/// WorkerHealth), but never more than half of a model's workers and never the last one: the ones
/// whose time is up soonest are let in again.
///
/// A request that fails quickly keeps counting for kHold, or the worker that fails fastest would
/// look the idlest of all. What is known of a worker belongs to its id and address: under another
/// address it starts afresh, and ends of requests to the old one no longer count against it.
///
/// Threads: any; one lock, a leaf but for the registry's own. Time is passed in. Failure: no
/// worker gives an empty lease. Must outlive its leases.
class InFlightBoard {
 public:
  static constexpr std::chrono::milliseconds kHold{1000};

  /// `registry` must outlive this.
  explicit InFlightBoard(const worker::WorkerRegistry& registry) : candidates_(registry) {}

  /// Takes the best online worker that has the model and is not among `tried` (ids).
  WorkerLease choose(const std::string& model, std::span<const std::string> tried,
                     platform::SteadyTime now) TV_EXCLUDES(mu_);

  /// Requests under way at a worker, those still held included.
  std::size_t inFlight(const std::string& worker_id) const TV_EXCLUDES(mu_);
  /// Workers passed over at `now`.
  std::size_t passedOver(platform::SteadyTime now) const TV_EXCLUDES(mu_);

 private:
  friend class WorkerLease;

  struct Rank {
    platform::SteadyTime passed_until;  // the epoch: not passed over
    std::uint64_t in_flight = 0;
    int load = 0;  // whole points
    std::uint64_t last_chosen = 0;

    auto operator<=>(const Rank&) const = default;
    bool counted() const { return passed_until != platform::SteadyTime(); }
    bool idlerThan(const Rank& other) const {
      return std::tie(in_flight, load, last_chosen) <
             std::tie(other.in_flight, other.load, other.last_chosen);
    }
  };
  using Candidates = RankedCandidates<Rank>;

  struct Entry {
    net::WorkerAddress address;
    WorkerHealth health;
    std::uint64_t in_flight = 0;
    std::uint64_t held = 0;
    std::uint64_t last_chosen = 0;
    platform::SteadyTime passed_until;  // as in Rank
  };

  void release(const worker::WorkerInfo& worker, LeaseEnd end, platform::SteadyTime now)
      TV_EXCLUDES(mu_);

  Rank rankOf(const worker::WorkerInfo& worker) TV_REQUIRES(mu_);
  static const Candidates::Candidate* pick(const Candidates::Group& group,
                                           std::span<const std::string> tried);
  void refresh() TV_REQUIRES(mu_);
  void rerank(const std::string& worker_id) TV_REQUIRES(mu_);
  void expire(platform::SteadyTime now) TV_REQUIRES(mu_);
  void passOver(const std::string& worker_id, Entry& entry) TV_REQUIRES(mu_);
  void readmit(const std::string& worker_id, Entry& entry) TV_REQUIRES(mu_);
  void sweep() TV_REQUIRES(mu_);

  mutable platform::Mutex mu_;
  Candidates candidates_ TV_GUARDED_BY(mu_);
  std::unordered_map<std::string, Entry> entries_ TV_GUARDED_BY(mu_);  // workers chosen before
  std::deque<std::pair<platform::SteadyTime, std::string>> holds_ TV_GUARDED_BY(mu_);
  std::set<std::pair<platform::SteadyTime, std::string>> passes_ TV_GUARDED_BY(mu_);
  std::uint64_t choices_ TV_GUARDED_BY(mu_) = 0;
  std::size_t sweep_at_ TV_GUARDED_BY(mu_) = 256;
};

/// One request's place at one worker, counted from the choice until `end` or destruction.
/// Threads: one at a time.
class WorkerLease {
 public:
  WorkerLease() = default;
  WorkerLease(InFlightBoard& board, worker::WorkerPtr worker)
      : board_(&board), worker_(std::move(worker)) {}
  ~WorkerLease() { end(LeaseEnd::kUndecided, {}); }
  WorkerLease(WorkerLease&& other) noexcept
      : board_(std::exchange(other.board_, nullptr)), worker_(std::move(other.worker_)) {}
  WorkerLease& operator=(WorkerLease&& other) noexcept {
    std::swap(board_, other.board_);
    std::swap(worker_, other.worker_);
    return *this;
  }

  explicit operator bool() const { return worker_ != nullptr; }
  const worker::WorkerInfo& worker() const { return *worker_; }

  /// Only the first end counts. An empty lease may be ended too.
  void end(LeaseEnd how, platform::SteadyTime now) {
    if (board_ != nullptr) std::exchange(board_, nullptr)->release(*worker_, how, now);
  }

 private:
  InFlightBoard* board_ = nullptr;
  worker::WorkerPtr worker_;
};

}  // namespace tavrel::inference
