#include "inference/in_flight_board.h"

#include <algorithm>
#include <cmath>

namespace tavrel::inference {

namespace {

/// What a worker reports of its host, in whole points so that it only decides when it differs
/// visibly.
int loadPoints(const worker::SystemMetrics& metrics) {
  const double memory = metrics.memory_total == 0
                            ? 0.0
                            : static_cast<double>(metrics.memory_used) /
                                  static_cast<double>(metrics.memory_total) * 100.0;
  const double load = static_cast<double>(metrics.cpu_usage) * 0.5 + memory * 0.3;
  constexpr double kMost = 1e6;  // a worker may report anything
  return load > 0 ? static_cast<int>(std::lround(std::min(load, kMost))) : 0;
}

bool isAmong(std::span<const std::string> ids, const std::string& id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

bool isAt(const net::WorkerAddress& address, const worker::WorkerInfo& worker) {
  return address.port == worker.port && address.host == worker.ip_address;
}

}  // namespace

WorkerLease InFlightBoard::choose(const std::string& model, std::span<const std::string> tried,
                                  platform::SteadyTime now) {
  const platform::MutexLock lock(mu_);
  expire(now);
  refresh();
  const Candidates::Group* group = candidates_.find(model);
  const Candidates::Candidate* chosen = group == nullptr ? nullptr : pick(*group, tried);
  if (chosen == nullptr) return {};

  worker::WorkerPtr worker = chosen->worker;
  if (entries_.size() >= sweep_at_) sweep();
  const auto [it, is_new] = entries_.try_emplace(worker->worker_id);
  Entry& entry = it->second;
  if (is_new) entry.address = {worker->ip_address, worker->port};
  ++entry.in_flight;
  entry.last_chosen = ++choices_;
  rerank(worker->worker_id);
  return {*this, std::move(worker)};
}

const InFlightBoard::Candidates::Candidate* InFlightBoard::pick(
    const Candidates::Group& group, std::span<const std::string> tried) {
  const Candidates::Candidate* best = nullptr;
  for (const Candidates::Candidate* candidate : group.by_rank) {
    if (candidate->rank.counted()) break;
    if (isAmong(tried, candidate->worker->worker_id)) continue;
    best = candidate;
    break;
  }
  const std::size_t may_pass_over = group.by_id.size() / 2;
  if (group.counted <= may_pass_over) return best;

  std::size_t let_in = group.counted - may_pass_over;
  Candidates::Candidate first_passed_over;
  first_passed_over.rank.passed_until = platform::SteadyTime() + platform::SteadyTime::duration(1);
  for (auto it = group.by_rank.lower_bound(&first_passed_over);
       it != group.by_rank.end() && let_in > 0; ++it, --let_in) {
    if (isAmong(tried, (*it)->worker->worker_id)) continue;
    if (best == nullptr || (*it)->rank.idlerThan(best->rank)) best = *it;
  }
  return best;
}

void InFlightBoard::release(const worker::WorkerInfo& worker, LeaseEnd end,
                            platform::SteadyTime now) {
  const platform::MutexLock lock(mu_);
  const auto it = entries_.find(worker.worker_id);
  if (it == entries_.end()) return;
  Entry& entry = it->second;
  --entry.in_flight;
  if (end == LeaseEnd::kFault || end == LeaseEnd::kBackPressure) {
    ++entry.held;
    holds_.emplace_back(now + kHold, worker.worker_id);
  }
  if (isAt(entry.address, worker)) {
    if (end == LeaseEnd::kAnswered) {
      entry.health.succeeded();
      readmit(worker.worker_id, entry);
    } else if (end == LeaseEnd::kFault && entry.health.failed(now)) {
      passOver(worker.worker_id, entry);
    }
  }
  rerank(worker.worker_id);
}

std::size_t InFlightBoard::inFlight(const std::string& worker_id) const {
  const platform::MutexLock lock(mu_);
  const auto it = entries_.find(worker_id);
  return it == entries_.end() ? 0 : it->second.in_flight + it->second.held;
}

std::size_t InFlightBoard::passedOver(platform::SteadyTime now) const {
  const platform::MutexLock lock(mu_);
  return static_cast<std::size_t>(std::count_if(
      passes_.begin(), passes_.end(), [now](const auto& pass) { return pass.first > now; }));
}

InFlightBoard::Rank InFlightBoard::rankOf(const worker::WorkerInfo& worker) {
  Rank rank;
  rank.load = loadPoints(worker.metrics);
  const auto it = entries_.find(worker.worker_id);
  if (it == entries_.end()) return rank;
  Entry& entry = it->second;
  if (!isAt(entry.address, worker)) {
    entry.address = {worker.ip_address, worker.port};
    entry.health.succeeded();
    readmit(worker.worker_id, entry);
  }
  rank.in_flight = entry.in_flight + entry.held;
  rank.last_chosen = entry.last_chosen;
  rank.passed_until = entry.passed_until;
  return rank;
}

void InFlightBoard::refresh() {
  candidates_.refresh([this](const worker::WorkerInfo& worker)
                          TV_NO_ANALYSIS { return rankOf(worker); });
}

void InFlightBoard::rerank(const std::string& worker_id) {
  const Candidates::Candidate* candidate = candidates_.candidate(worker_id);
  if (candidate != nullptr) candidates_.rerank(worker_id, rankOf(*candidate->worker));
}

void InFlightBoard::expire(platform::SteadyTime now) {
  for (; !holds_.empty() && holds_.front().first <= now; holds_.pop_front()) {
    const auto it = entries_.find(holds_.front().second);
    if (it == entries_.end()) continue;
    --it->second.held;
    rerank(it->first);
  }
  while (!passes_.empty() && passes_.begin()->first <= now) {
    const auto it = entries_.find(passes_.begin()->second);
    readmit(it->first, it->second);
    rerank(it->first);
  }
}

void InFlightBoard::passOver(const std::string& worker_id, Entry& entry) {
  readmit(worker_id, entry);
  entry.passed_until = entry.health.until();
  passes_.emplace(entry.passed_until, worker_id);
}

void InFlightBoard::readmit(const std::string& worker_id, Entry& entry) {
  if (entry.passed_until == platform::SteadyTime()) return;
  passes_.erase({entry.passed_until, worker_id});
  entry.passed_until = {};
}

void InFlightBoard::sweep() {
  std::erase_if(entries_, [this](const auto& item) TV_NO_ANALYSIS {
    const auto& [worker_id, entry] = item;
    return entry.in_flight == 0 && entry.held == 0 &&
           entry.passed_until == platform::SteadyTime() &&
           candidates_.candidate(worker_id) == nullptr;
  });
  sweep_at_ = std::max<std::size_t>(256, entries_.size() * 2);
}

}  // namespace tavrel::inference
