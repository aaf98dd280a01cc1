#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <nlohmann/json_fwd.hpp>

#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::dev_worker {

/// What the worker saw, for /dev/stats and for its heartbeats.
/// Threads: any. Counting a request takes no lock; noting a client that left does.
class Stats {
 public:
  /// One request being served: counted from construction to destruction.
  class Served {
   public:
    explicit Served(Stats& stats);
    ~Served();
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;

   private:
    Stats& stats_;
    const platform::SteadyTime start_;
  };

  std::shared_ptr<Served> begin() { return std::make_shared<Served>(*this); }
  void tokensGenerated(int tokens);
  void streamStarted();
  void faultPlayed();
  void clientLeft(platform::SteadyTime noticed) TV_EXCLUDES(mu_);

  std::uint64_t requests() const { return requests_.load(std::memory_order_relaxed); }
  std::uint64_t tokens() const { return tokens_.load(std::memory_order_relaxed); }
  std::int64_t inProgress() const { return in_progress_.load(std::memory_order_relaxed); }
  double averageLatencyMs() const;

  /// "requests", "in_progress", "streams", "tokens", "faults", "avg_latency_ms", "client_gone" and
  /// "client_gone_at_ns": when the last kKeptDepartures hang-ups were noticed, in nanoseconds of
  /// the monotonic clock all processes of a machine share. A stream the worker cut itself counts.
  nlohmann::json toJson() const TV_EXCLUDES(mu_);

  static constexpr std::size_t kKeptDepartures = 4096;

 private:
  std::atomic<std::uint64_t> requests_{0};
  std::atomic<std::uint64_t> finished_{0};
  std::atomic<std::uint64_t> busy_ns_{0};
  std::atomic<std::uint64_t> tokens_{0};
  std::atomic<std::uint64_t> streams_{0};
  std::atomic<std::uint64_t> faults_{0};
  std::atomic<std::int64_t> in_progress_{0};

  mutable platform::Mutex mu_;
  std::uint64_t departures_ TV_GUARDED_BY(mu_) = 0;
  std::deque<std::int64_t> departed_at_ns_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::dev_worker
