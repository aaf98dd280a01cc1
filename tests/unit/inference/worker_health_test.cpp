#include "inference/worker_health.h"

#include <gtest/gtest.h>

#include <vector>

namespace tavrel::inference {
namespace {

using std::chrono::seconds;

const platform::SteadyTime kStart = platform::SteadyTime() + std::chrono::hours(1);

TEST(WorkerHealth, PassesOverAfterThreeFaultsForAGrowingWhile) {
  WorkerHealth health;
  platform::SteadyTime now = kStart;
  EXPECT_FALSE(health.failed(now));
  EXPECT_FALSE(health.failed(now));
  std::vector<long> passes;
  for (int i = 0; i < 9; ++i) {
    ASSERT_TRUE(health.failed(now));
    EXPECT_TRUE(health.passedOver(health.until() - std::chrono::milliseconds(1)));
    EXPECT_FALSE(health.passedOver(health.until()));
    passes.push_back(std::chrono::duration_cast<seconds>(health.until() - now).count());
    now = health.until();
  }
  EXPECT_EQ(passes, (std::vector<long>{1, 2, 4, 8, 16, 32, 60, 60, 60}));
}

TEST(WorkerHealth, FaultsOfRequestsAlreadyUnderWayDoNotProlongThePass) {
  WorkerHealth health;
  for (int i = 0; i < 3; ++i) health.failed(kStart);
  const auto until = health.until();
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(health.failed(kStart + std::chrono::milliseconds(i)));
  EXPECT_EQ(health.until(), until);
}

TEST(WorkerHealth, ASuccessForgetsEverything) {
  WorkerHealth health;
  for (int i = 0; i < 3; ++i) health.failed(kStart);
  health.succeeded();
  EXPECT_FALSE(health.passedOver(kStart));
  EXPECT_FALSE(health.failed(kStart));
  EXPECT_FALSE(health.failed(kStart));
  EXPECT_TRUE(health.failed(kStart));
  EXPECT_EQ(health.until(), kStart + seconds(1));
}

}  // namespace
}  // namespace tavrel::inference
