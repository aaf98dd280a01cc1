#include "inference/load_selector.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <random>

#include "support/workers.h"
#include "worker/worker_registry.h"

namespace tavrel::inference {
namespace {

using test::onlineWorker;

void setLoad(worker::WorkerInfo& info, float cpu_percent, std::uint64_t memory_used,
             std::uint64_t memory_total) {
  info.metrics.cpu_usage = cpu_percent;
  info.metrics.memory_used = memory_used;
  info.metrics.memory_total = memory_total;
}

/// The rule in its plain form: look at every candidate, every time.
class PlainRule {
 public:
  explicit PlainRule(const worker::WorkerRegistry& registry) : registry_(registry) {}

  std::string select(const std::string& model, LoadStrategy& strategy) {
    const auto candidates = registry_.onlineWithModel(model);
    if (candidates.empty()) return {};
    bool reported = false;
    double best_score = std::numeric_limits<double>::infinity();
    std::string best;
    for (const auto& candidate : candidates) {
      const auto& metrics = candidate->metrics;
      const double cpu = metrics.cpu_usage;
      const double memory = metrics.memory_total == 0
                                ? 0
                                : static_cast<double>(metrics.memory_used) /
                                      static_cast<double>(metrics.memory_total) * 100;
      reported = reported || cpu != 0 || memory != 0;
      const double score = active_[candidate->worker_id] * 100.0 + cpu * 0.5 + memory * 0.3;
      if (score < best_score) {
        best_score = score;
        best = candidate->worker_id;
      }
    }
    strategy = LoadStrategy::kLoadBased;
    if (!reported || best_score == 0) {
      strategy = LoadStrategy::kRoundRobin;
      best = candidates[counter_++ % candidates.size()]->worker_id;
    }
    ++active_[best];
    return best;
  }

  void countRouted(const std::string& id) { ++active_[id]; }

 private:
  const worker::WorkerRegistry& registry_;
  std::map<std::string, int> active_;
  std::size_t counter_ = 0;
};

TEST(LoadSelector, ChoosesExactlyWhatThePlainRuleChooses) {
  std::mt19937 random(11);
  const auto below = [&](unsigned n) { return random() % n; };
  worker::WorkerRegistry registry;
  LoadSelector selector(registry);
  PlainRule plain(registry);
  const std::vector<std::string> models = {"m", "n"};
  for (int step = 0; step < 20'000; ++step) {
    const std::string id = "w" + std::to_string(below(step < 10'000 ? 4 : 40));
    // Few distinct loads, so that ties and scores of exactly 0 are common.
    const auto cpu = static_cast<float>(below(3)) * 20;
    const std::uint64_t memory = below(3);
    switch (below(12)) {
      case 0: {
        auto info = onlineWorker(id, 8090, below(2) == 0 ? std::vector<std::string>{"m"} : models);
        setLoad(info, cpu, memory, 4);
        registry.registerWorker(info, false);
        break;
      }
      case 1:
        if (below(4) == 0) registry.remove(id);
        break;
      case 2:
        registry.update(id, [&](worker::WorkerInfo& info) {
          setLoad(info, below(2) == 0 ? 0 : cpu, below(2) == 0 ? 0 : memory, below(2) * 4);
        });
        break;
      case 3:
        selector.countRouted(id);
        plain.countRouted(id);
        break;
      default: {
        const std::string& model = models[below(2)];
        LoadStrategy expected_strategy{};
        const std::string expected = plain.select(model, expected_strategy);
        const auto choice = selector.select(model);
        ASSERT_EQ(choice ? choice->worker->worker_id : "", expected) << "step " << step;
        if (choice) {
          ASSERT_EQ(choice->strategy, expected_strategy) << "step " << step;
        }
      }
    }
  }
}

}  // namespace
}  // namespace tavrel::inference
