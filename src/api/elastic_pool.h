#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <vector>

#include "platform/blocking.h"

namespace tavrel::api {

/// Threads that take work by themselves (each runs `work` again and again), as many as keep the
/// processors busy, plus one for each that is waiting for somebody else.
///
/// A thread that is about to wait says so (platform::BlockingScope), and another takes its place if
/// too few are left. When it comes back there may be more threads than wanted: the next one to
/// finish its piece of work rests, and ends if it is not needed for a while. So hundreds of
/// requests that block cost hundreds of sleeping threads, while the number that compete for a
/// processor stays small.
///
/// Threads: start, stop and the destructor belong to the owner; addThread may be called from any.
class ElasticPool {
 public:
  struct Limits {
    std::size_t wanted = 4;      ///< threads that are neither waiting nor resting
    std::size_t minimum = 2;     ///< below this many of them, a waiting thread is replaced
    std::size_t maximum = 4096;  ///< threads in all
    std::chrono::seconds rest{60};
    std::size_t stack_bytes = std::size_t{1} << 20;
  };

  /// `work` waits for one piece of work, calls beginWork and does it; it returns false to end the
  /// thread (the pool is being stopped).
  ElasticPool(Limits limits, std::function<bool()> work);
  ~ElasticPool();
  ElasticPool(const ElasticPool&) = delete;
  ElasticPool& operator=(const ElasticPool&) = delete;

  void start();

  /// The calling thread has got a piece of work.
  void beginWork();

  /// To be called regularly: a thread that has been at the same piece of work since the last call
  /// but one counts as waiting from now on.
  void tick();

  /// Wakes resting threads to end. The owner makes `work` return false.
  void requestStop();
  /// True when no thread is left; waits for that until `timeout` has passed.
  bool waitUntilEmpty(std::chrono::milliseconds timeout);

  std::size_t threads() const { return total_.load(std::memory_order_relaxed); }
  std::size_t maximum() const { return limits_.maximum; }

 private:
  class Member;
  static void* threadEntry(void* pool);
  void run();
  bool addThread();
  bool spawn();
  void replaceIfNeeded();
  /// False when the thread is to end.
  bool restIfSurplus();

  const Limits limits_;
  const std::function<bool()> work_;

  std::atomic<std::size_t> total_{0};
  std::atomic<std::size_t> active_{0};  ///< neither waiting nor resting
  std::atomic<std::uint32_t> ticks_{1};
  std::atomic<bool> stopping_{false};

  std::mutex mutex_;
  std::condition_variable empty_;  ///< the last thread ended
  std::set<Member*> members_;
  std::vector<Member*> resting_;  ///< the one that came last is woken first: its stack is warm
};

}  // namespace tavrel::api
