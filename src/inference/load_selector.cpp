#include "inference/load_selector.h"

namespace tavrel::inference {

LoadSelector::Rank LoadSelector::rankOf(const worker::WorkerInfo& worker,
                                        std::int64_t active_requests) {
  const double cpu = worker.metrics.cpu_usage;
  const double memory = worker.metrics.memory_total == 0
                            ? 0
                            : static_cast<double>(worker.metrics.memory_used) /
                                  static_cast<double>(worker.metrics.memory_total) * 100;
  return {.score = static_cast<double>(active_requests) * 100 + cpu * 0.5 + memory * 0.3,
          .reports_load = cpu != 0 || memory != 0};
}

const LoadSelector::Candidates::Group* LoadSelector::upToDate(const std::string& model) {
  // The analysis does not see through the template that this runs under mu_.
  candidates_.refresh([this](const worker::WorkerInfo& worker) TV_NO_ANALYSIS {
    const auto found = active_requests_.find(worker.worker_id);
    return rankOf(worker, found == active_requests_.end() ? 0 : found->second);
  });
  return candidates_.find(model);
}

void LoadSelector::count(const std::string& worker_id) {
  const std::int64_t active = ++active_requests_[worker_id];
  if (const auto* candidate = candidates_.candidate(worker_id)) {
    candidates_.rerank(worker_id, rankOf(*candidate->worker, active));
  }
}

std::optional<LoadChoice> LoadSelector::select(const std::string& model) {
  platform::MutexLock lock(mu_);
  const auto* group = upToDate(model);
  if (group == nullptr) return std::nullopt;
  LoadChoice choice;
  if (group->counted == 0 || group->best().rank.score == 0) {
    choice.strategy = LoadStrategy::kRoundRobin;
    choice.worker = group->by_id[request_counter_++ % group->by_id.size()]->worker;
  } else {
    choice.worker = group->best().worker;
  }
  count(choice.worker->worker_id);
  return choice;
}

std::vector<worker::WorkerPtr> LoadSelector::candidates(const std::string& model) {
  platform::MutexLock lock(mu_);
  std::vector<worker::WorkerPtr> workers;
  if (const auto* group = upToDate(model)) {
    workers.reserve(group->by_id.size());
    for (const auto* candidate : group->by_id) workers.push_back(candidate->worker);
  }
  return workers;
}

worker::WorkerPtr LoadSelector::first(const std::string& model) {
  platform::MutexLock lock(mu_);
  const auto* group = upToDate(model);
  return group == nullptr ? nullptr : group->by_id.front()->worker;
}

void LoadSelector::countRouted(const std::string& worker_id) {
  platform::MutexLock lock(mu_);
  count(worker_id);
}

}  // namespace tavrel::inference
