#include "api/elastic_pool.h"

#include <pthread.h>

#include <utility>

#include "platform/periodic_task.h"

namespace tavrel::api {

/// Counts its thread out while that waits for somebody else.
class ElasticPool::Observer final : public platform::BlockingObserver {
 public:
  explicit Observer(ElasticPool& pool) : pool_(pool) { ofThisThread() = this; }
  ~Observer() override { ofThisThread() = nullptr; }
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;

  void enterBlocking() override {
    pool_.active_.fetch_sub(1, std::memory_order_relaxed);
    pool_.replaceIfNeeded();
  }
  void leaveBlocking() override { pool_.active_.fetch_add(1, std::memory_order_relaxed); }

 private:
  ElasticPool& pool_;
};

ElasticPool::ElasticPool(Limits limits, std::function<bool()> work)
    : limits_(limits), work_(std::move(work)) {}

ElasticPool::~ElasticPool() {
  requestStop();
  std::unique_lock lock(mutex_);
  empty_.wait(lock, [this] { return total_.load() == 0; });
}

void ElasticPool::start() {
  for (std::size_t i = 0; i < limits_.wanted; ++i) addThread();
}

bool ElasticPool::addThread() {
  {
    const std::lock_guard lock(mutex_);
    if (stopping_.load()) return false;
    if (resting_ > wake_ups_) {
      ++wake_ups_;
      active_.fetch_add(1, std::memory_order_relaxed);
      wake_.notify_one();
      return true;
    }
  }
  return spawn();
}

bool ElasticPool::spawn() {
  std::size_t before = total_.load();
  do {
    if (before >= limits_.maximum) return false;
  } while (!total_.compare_exchange_weak(before, before + 1));
  active_.fetch_add(1, std::memory_order_relaxed);

  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  ::pthread_attr_setstacksize(&attributes, limits_.stack_bytes);
  pthread_t thread{};
  const bool created = ::pthread_create(&thread, &attributes, &threadEntry, this) == 0;
  ::pthread_attr_destroy(&attributes);
  if (!created) {
    active_.fetch_sub(1, std::memory_order_relaxed);
    total_.fetch_sub(1);
  }
  return created;
}

void* ElasticPool::threadEntry(void* pool) {
  static_cast<ElasticPool*>(pool)->run();
  return nullptr;
}

void ElasticPool::run() {
  platform::nameThisThread("http");
  {
    const Observer observer(*this);
    while (!stopping_.load(std::memory_order_relaxed) && work_()) {
      if (!restIfSurplus()) break;
    }
  }
  const std::lock_guard lock(mutex_);
  // Under the lock to its end: the destructor may run as soon as the count is seen to be zero.
  if (total_.fetch_sub(1) == 1) empty_.notify_all();
}

void ElasticPool::replaceIfNeeded() {
  if (active_.load(std::memory_order_relaxed) < limits_.minimum && !stopping_.load()) addThread();
}

bool ElasticPool::restIfSurplus() {
  std::size_t active = active_.load(std::memory_order_relaxed);
  do {
    if (active <= limits_.wanted) return true;
  } while (!active_.compare_exchange_weak(active, active - 1));

  std::unique_lock lock(mutex_);
  ++resting_;
  const bool woken =
      wake_.wait_for(lock, limits_.rest, [this] { return wake_ups_ > 0 || stopping_.load(); });
  --resting_;
  if (!woken || stopping_.load()) return false;
  --wake_ups_;  // whoever woke it has counted it as active already
  return true;
}

void ElasticPool::requestStop() {
  const std::lock_guard lock(mutex_);
  stopping_.store(true);
  wake_.notify_all();
}

bool ElasticPool::waitUntilEmpty(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return empty_.wait_for(lock, timeout, [this] { return total_.load() == 0; });
}

}  // namespace tavrel::api
