#include "platform/periodic_task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <semaphore>
#include <stdexcept>

namespace tavrel::platform {
namespace {

using namespace std::chrono_literals;

TEST(PeriodicTask, RunsAgainAndAgainAlsoAfterAFailure) {
  std::counting_semaphore<> ran(0);
  PeriodicTask task("test", 0ms, 1ms, [&](const std::stop_token&) {
    ran.release();
    throw std::runtime_error("on purpose");
  });
  task.start();
  task.start();
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(ran.try_acquire_for(10s));
  task.stop();
  task.stop();
}

TEST(PeriodicTask, StopDoesNotWaitForThePeriodAndReachesTheStep) {
  std::binary_semaphore started(0);
  std::atomic<bool> saw_stop{false};
  PeriodicTask busy("busy", 0ms, 1h, [&](const std::stop_token& stop) {
    std::atomic<bool> stopped{false};
    const std::stop_callback on_stop(stop, [&] {
      stopped = true;
      stopped.notify_all();
    });
    started.release();
    stopped.wait(false);
    saw_stop = true;
  });
  PeriodicTask waiting("waiting", 1h, 1h, [](const std::stop_token&) { FAIL(); });
  const auto start = std::chrono::steady_clock::now();
  busy.start();
  waiting.start();
  started.acquire();
  busy.stop();
  waiting.stop();
  EXPECT_TRUE(saw_stop);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

}  // namespace
}  // namespace tavrel::platform
