#include "dev_worker/stats.h"

#include <chrono>
#include <nlohmann/json.hpp>

namespace tavrel::dev_worker {
namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

std::int64_t nanoseconds(platform::SteadyTime::duration duration) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count();
}

}  // namespace

Stats::Served::Served(Stats& stats) : stats_(stats), start_(platform::steadyNow()) {
  stats_.requests_.fetch_add(1, kRelaxed);
  stats_.in_progress_.fetch_add(1, kRelaxed);
}

Stats::Served::~Served() {
  const std::int64_t spent = nanoseconds(platform::steadyNow() - start_);
  stats_.busy_ns_.fetch_add(static_cast<std::uint64_t>(spent), kRelaxed);
  stats_.finished_.fetch_add(1, kRelaxed);
  stats_.in_progress_.fetch_sub(1, kRelaxed);
}

void Stats::tokensGenerated(int tokens) {
  tokens_.fetch_add(static_cast<std::uint64_t>(tokens), kRelaxed);
}
void Stats::streamStarted() {
  streams_.fetch_add(1, kRelaxed);
}
void Stats::faultPlayed() {
  faults_.fetch_add(1, kRelaxed);
}

void Stats::clientLeft(platform::SteadyTime noticed) {
  const std::int64_t when = nanoseconds(noticed.time_since_epoch());
  const platform::MutexLock lock(mu_);
  ++departures_;
  departed_at_ns_.push_back(when);
  if (departed_at_ns_.size() > kKeptDepartures) departed_at_ns_.pop_front();
}

double Stats::averageLatencyMs() const {
  const std::uint64_t finished = finished_.load(kRelaxed);
  if (finished == 0) return 0;
  return static_cast<double>(busy_ns_.load(kRelaxed)) / 1e6 / static_cast<double>(finished);
}

nlohmann::json Stats::toJson() const {
  nlohmann::json out = {{"requests", requests()},
                        {"in_progress", inProgress()},
                        {"streams", streams_.load(kRelaxed)},
                        {"tokens", tokens()},
                        {"faults", faults_.load(kRelaxed)},
                        {"avg_latency_ms", averageLatencyMs()}};
  const platform::MutexLock lock(mu_);
  out["client_gone"] = departures_;
  out["client_gone_at_ns"] = departed_at_ns_;
  return out;
}

}  // namespace tavrel::dev_worker
