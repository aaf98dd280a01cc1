#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "user_store_fixture.h"

namespace tavrel::identity {
namespace {

constexpr int kThreads = 8;

template <class Work>
void onThreads(Work work) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([&work, i] { work(i); });
}

using SharedStore = UserStoreTest;

TEST_F(SharedStore, LosesNoChangeAndUsesATokenOnce) {
  constexpr int kRounds = 20;
  User user = userNamed("ada");
  user.avatar_url = "0";
  ASSERT_TRUE(store_->createUser(user) && store_->createSession(sessionOf(user, "ts_a")));
  ASSERT_TRUE(store_->storeToken("once", user.id, "reset_password", 3600));
  std::atomic<int> failures = 0;
  std::atomic<int> uses = 0;
  onThreads([&](int i) {
    for (int round = 0; round < kRounds; ++round) {
      const bool fine = store_->changeUser(user.id,
                                           [](User& one) {
                                             one.avatar_url =
                                                 std::to_string(std::stoi(one.avatar_url) + 1);
                                             one.org_id = one.avatar_url;
                                           }) &&
                        store_->createUser(userNamed("u" + std::to_string(i * kRounds + round))) &&
                        store_->validateSession("ts_a");
      if (!fine) ++failures;
      store_->listUsers();
    }
    if (store_->deleteToken("once")) ++uses;
  });
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(uses, 1);
  EXPECT_EQ(store_->findById(user.id)->avatar_url, std::to_string(kThreads * kRounds));
  EXPECT_EQ(store_->validateSession("ts_a")->org_id, std::to_string(kThreads * kRounds));
  EXPECT_EQ(store_->listUsers().size(), 1U + kThreads * kRounds);
}

TEST_F(SharedStore, ClosesUnderItsCallers) {
  const User ada = userNamed("ada");
  ASSERT_TRUE(store_->createUser(ada) && store_->createSession(sessionOf(ada, "ts_a")));
  std::atomic<int> running = 0;
  onThreads([&](int i) {
    ++running;
    if (i == 0) {
      while (running < kThreads) std::this_thread::yield();
      store_->shutdown();
    }
    while (store_->validateSession("ts_a")) store_->setSetting("key", std::to_string(i));
  });
  EXPECT_FALSE(store_->findById(ada.id));
}

}  // namespace
}  // namespace tavrel::identity
