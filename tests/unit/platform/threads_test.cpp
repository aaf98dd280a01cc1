#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

#include "platform/bounded_threads.h"
#include "platform/clock.h"
#include "platform/mutex.h"
#include "platform/side_by_side.h"

namespace tavrel::platform {
namespace {

/// Lets jobs wait until somebody opens it, and tells how many do.
class Barrier {
 public:
  void pass() TV_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    most_ = std::max(most_, ++inside_);
    changed_.notifyAll();
    while (!open_) changed_.wait(mutex_);
    --inside_;
  }
  void waitFor(int inside) TV_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    while (inside_ < inside) changed_.wait(mutex_);
  }
  void open() TV_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    open_ = true;
    changed_.notifyAll();
  }
  int most() TV_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    return most_;
  }

 private:
  Mutex mutex_;
  CondVar changed_;
  int inside_ TV_GUARDED_BY(mutex_) = 0;
  int most_ TV_GUARDED_BY(mutex_) = 0;
  bool open_ TV_GUARDED_BY(mutex_) = false;
};

TEST(BoundedThreads, RunEveryJobButNotTooManyAtOnce) {
  Barrier barrier;
  std::atomic<int> done{0};
  BoundedThreads threads("test", 3);
  for (int i = 0; i < 50; ++i) {
    threads.run([&] {
      barrier.pass();
      ++done;
    });
  }
  barrier.waitFor(3);
  barrier.open();
  while (done < 50) std::this_thread::yield();
  EXPECT_EQ(barrier.most(), 3);

  // Threads that ended make room for new ones, and a throwing job takes nothing with it.
  for (int i = 0; i < 20; ++i) threads.run([] { throw std::runtime_error("as it should"); });
  for (int i = 0; i < 20; ++i) threads.run([&] { ++done; });
  while (done < 70) std::this_thread::yield();
}

TEST(BoundedThreads, StoppingForgetsWhatHasNotBegun) {
  Barrier barrier;
  std::atomic<int> begun{0};
  BoundedThreads threads("test", 2);
  for (int i = 0; i < 10; ++i) {
    threads.run([&] {
      ++begun;
      barrier.pass();
    });
  }
  barrier.waitFor(2);
  std::thread opener([&] { barrier.open(); });
  threads.stop();
  opener.join();
  const int at_stop = begun;
  threads.run([&] { ++begun; });
  threads.stop();
  EXPECT_EQ(begun, at_stop);
}

TEST(SideBySide, RunsEveryJobOnceWithinItsBound) {
  for (const std::size_t at_once : {1U, 4U, 100U}) {
    std::vector<std::atomic<int>> runs(50);
    std::atomic<int> inside{0};
    std::atomic<int> most{0};
    std::vector<std::function<void()>> jobs;
    for (auto& count : runs) {
      jobs.emplace_back([&] {
        const int now = ++inside;
        int seen = most;
        while (seen < now && !most.compare_exchange_weak(seen, now)) {
        }
        ++count;
        std::this_thread::yield();
        --inside;
      });
    }
    runSideBySide(jobs, at_once);
    for (const auto& count : runs) EXPECT_EQ(count, 1);
    EXPECT_LE(most, static_cast<int>(at_once));
  }
}

TEST(SideBySide, BeginsNothingAfterItsTimeButTheFirst) {
  int runs = 0;
  const std::vector<std::function<void()>> jobs(5, [&] { ++runs; });
  runSideBySide(jobs, 1, std::chrono::milliseconds(-1));
  EXPECT_EQ(runs, 1);
}

}  // namespace
}  // namespace tavrel::platform
