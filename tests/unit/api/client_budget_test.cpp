#include "api/client_budget.h"

#include <gtest/gtest.h>

namespace tavrel::api {
namespace {

TEST(ClientBudget, KeepsThreadsFromStreamsAndMoreFromWaits) {
  ClientBudget budget(200);
  int waits = 0;
  while (waits < 1000 && budget.takeWait()) ++waits;
  EXPECT_EQ(waits, 100);
  int streams = 0;
  while (streams < 1000 && budget.takeStream()) ++streams;
  EXPECT_EQ(streams, 36);
  budget.giveWait();
  EXPECT_TRUE(budget.takeStream());
  EXPECT_FALSE(budget.takeWait());
}

TEST(ClientBudget, UnreadAnswersAreLimitedTogetherButNotAlone) {
  constexpr std::size_t kGigabyte = std::size_t{1} << 30;
  ClientBudget budget(200);
  EXPECT_TRUE(budget.takeMemory(2 * kGigabyte));
  EXPECT_FALSE(budget.takeMemory(1));
  budget.giveMemory(2 * kGigabyte);
  EXPECT_TRUE(budget.takeMemory(kGigabyte / 2));
  EXPECT_TRUE(budget.takeMemory(kGigabyte / 2));
  EXPECT_FALSE(budget.takeMemory(1));
}

}  // namespace
}  // namespace tavrel::api
