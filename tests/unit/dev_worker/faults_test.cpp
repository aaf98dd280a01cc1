#include "dev_worker/faults.h"

#include <gtest/gtest.h>

namespace tavrel::dev_worker {
namespace {

int countOf(FaultPlan& plan, FaultKind kind, int requests) {
  int count = 0;
  for (int i = 0; i < requests; ++i) count += plan.next() == kind ? 1 : 0;
  return count;
}

TEST(FaultPlan, BefallsTheShareOfRequestsAskedFor) {
  FaultPlan plan({{FaultKind::kStall, 0.2}});
  EXPECT_NEAR(countOf(plan, FaultKind::kStall, 10000), 2000, 150);
}

TEST(FaultPlan, RateOneMeansAlwaysAndRateZeroNever) {
  FaultPlan always({{FaultKind::kDrop, 0}, {FaultKind::kServerError, 1}});
  EXPECT_EQ(countOf(always, FaultKind::kServerError, 1000), 1000);
  FaultPlan none({});
  EXPECT_EQ(none.next(), std::nullopt);
}

TEST(FaultPlan, TheSameRequestMeetsTheSameFaultInEveryRun) {
  FaultPlan first({{FaultKind::kCut, 0.3}, {FaultKind::kSlow, 0.3}});
  FaultPlan second({{FaultKind::kCut, 0.3}, {FaultKind::kSlow, 0.3}});
  int befallen = 0;
  for (int i = 0; i < 200; ++i) {
    const auto fault = first.next();
    ASSERT_EQ(fault, second.next()) << "request " << i;
    befallen += fault ? 1 : 0;
  }
  EXPECT_GT(befallen, 60);
  EXPECT_LT(befallen, 150);
}

TEST(FaultPlan, OnlyCertainRefusalKeepsEverybodyOut) {
  EXPECT_TRUE(FaultPlan({{FaultKind::kRefuse, 1}}).refusesEverybody());
  EXPECT_FALSE(FaultPlan({{FaultKind::kRefuse, 0.9}}).refusesEverybody());
  EXPECT_FALSE(FaultPlan({{FaultKind::kStall, 1}}).refusesEverybody());
}

}  // namespace
}  // namespace tavrel::dev_worker
