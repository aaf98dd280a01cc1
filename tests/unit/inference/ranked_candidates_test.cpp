#include "inference/ranked_candidates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "support/workers.h"
#include "worker/worker_registry.h"

namespace tavrel::inference {
namespace {

using test::onlineWorker;
using ::testing::ElementsAre;

struct PortRank {
  int value = 0;
  bool operator<(const PortRank& other) const { return value < other.value; }
  bool counted() const { return value > 2; }
};

template <class Rank>
std::vector<std::string> idsInOrder(const typename RankedCandidates<Rank>::Group* group) {
  std::vector<std::string> ids;
  if (group == nullptr) return ids;
  for (const auto* candidate : group->by_rank) ids.push_back(candidate->worker->worker_id);
  return ids;
}

TEST(RankedCandidates, ANewRankMovesTheCandidateInEveryModelItHas) {
  worker::WorkerRegistry registry;
  for (const char* id : {"a", "b", "c"})
    registry.registerWorker(onlineWorker(id, 8090, {"m", "n"}), false);
  RankedCandidates<int> candidates(registry);
  candidates.refresh([](const worker::WorkerInfo&) { return 0; });
  candidates.rerank("a", 5);
  candidates.rerank("c", -1);
  candidates.rerank("unknown", -9);
  for (const char* model : {"m", "n"}) {
    EXPECT_THAT(idsInOrder<int>(candidates.find(model)), ElementsAre("c", "b", "a"));
    EXPECT_EQ(candidates.find(model)->best().worker->worker_id, "c");
    EXPECT_EQ(candidates.find(model)->by_id[0]->worker->worker_id, "a");
  }
}

// The mirror must equal what a walk over the whole registry finds, after any sequence of changes
// and however many of them it missed (the journal is bounded).
TEST(RankedCandidates, StaysEqualToAWalkOverTheRegistry) {
  const std::vector<std::string> models = {"m0", "m1", "m2", "m3"};
  std::mt19937 random(7);
  const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
  worker::WorkerRegistry registry;
  RankedCandidates<PortRank> candidates(registry);
  const auto rank_of = [](const worker::WorkerInfo& info) { return PortRank{info.port}; };

  const auto check = [&] {
    candidates.refresh(rank_of);
    for (const std::string& model : models) {
      auto expected = registry.onlineWithModel(model);
      const auto* group = candidates.find(model);
      ASSERT_EQ(group == nullptr, expected.empty());
      if (group == nullptr) continue;
      ASSERT_EQ(group->by_id.size(), expected.size());
      for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(group->by_id[i]->worker, expected[i]);
      }
      ASSERT_EQ(group->counted, std::count_if(expected.begin(), expected.end(),
                                              [](const auto& w) { return w->port > 2; }));
      std::stable_sort(expected.begin(), expected.end(),
                       [](const auto& a, const auto& b) { return a->port < b->port; });
      std::vector<worker::WorkerPtr> ranked;
      for (const auto* candidate : group->by_rank) ranked.push_back(candidate->worker);
      ASSERT_EQ(ranked, expected);
    }
  };

  for (int round = 0; round < 400; ++round) {
    const int changes = round % 100 == 99 ? 20'000 : below(8);
    for (int i = 0; i < changes; ++i) {
      const std::string id = "w" + std::to_string(below(30));
      switch (below(5)) {
        case 0: {
          auto info = onlineWorker(id, 8090, {models[random() % 4], models[random() % 4]});
          info.port = below(6);
          registry.registerWorker(std::move(info), false);
          break;
        }
        case 1:
          registry.remove(id);
          break;
        default:
          registry.update(id, [&](worker::WorkerInfo& info) {
            info.port = below(6);
            if (below(4) == 0) info.capabilities.installed_models = {models[random() % 4]};
            info.status =
                below(5) == 0 ? worker::WorkerStatus::kOffline : worker::WorkerStatus::kOnline;
          });
      }
    }
    check();
    if (HasFatalFailure()) FAIL() << "in round " << round;
  }
}

}  // namespace
}  // namespace tavrel::inference
