#include "api/elastic_pool.h"

#include <pthread.h>

#include <algorithm>
#include <semaphore>
#include <utility>

#include "platform/periodic_task.h"

namespace tavrel::api {

/// One thread of the pool. It counts as active unless it waits, rests or seems stuck.
class ElasticPool::Member final : public platform::BlockingObserver {
 public:
  explicit Member(ElasticPool& pool) : pool_(pool) {
    ofThisThread() = this;
    const std::lock_guard lock(pool_.mutex_);
    pool_.members_.insert(this);
  }
  ~Member() override {
    ofThisThread() = nullptr;
    const std::lock_guard lock(pool_.mutex_);
    pool_.members_.erase(this);
  }
  Member(const Member&) = delete;
  Member& operator=(const Member&) = delete;

  void enterBlocking() override {
    countOut();
    pool_.replaceIfNeeded();
  }
  void leaveBlocking() override { countIn(); }

  void beginWork() { busy_since_.store(pool_.ticks_.load(std::memory_order_relaxed)); }
  void endWork() {
    busy_since_.store(0);
    countIn();  // had it seemed stuck, it is not
  }
  bool stuck(std::uint32_t now) const {
    const std::uint32_t since = busy_since_.load();
    return since != 0 && now - since >= 2;
  }

  /// Sleeps until somebody wakes it; false when nobody did for `longest`.
  bool rest(std::chrono::seconds longest) { return wake_.try_acquire_for(longest); }
  void restUntilWoken() { wake_.acquire(); }
  void wake() { wake_.release(); }

  void countOut() {
    if (counted_.exchange(false)) pool_.active_.fetch_sub(1);
  }
  void countIn() {
    if (!counted_.exchange(true)) pool_.active_.fetch_add(1);
  }

 private:
  ElasticPool& pool_;
  std::atomic<bool> counted_{true};           // whoever started the thread counted it
  std::atomic<std::uint32_t> busy_since_{0};  // a tick; 0 while it has no work
  // Each sleeps on its own: on a shared lock the woken one would wait for its waker.
  std::binary_semaphore wake_{0};
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
  Member* rested = nullptr;
  {
    const std::lock_guard lock(mutex_);
    if (stopping_.load()) return false;
    if (!resting_.empty()) {
      rested = resting_.back();
      resting_.pop_back();
    }
  }
  if (rested == nullptr) return spawn();
  active_.fetch_add(1, std::memory_order_relaxed);
  rested->wake();
  return true;
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
    Member member(*this);
    while (!stopping_.load(std::memory_order_relaxed) && work_()) {
      member.endWork();
      if (!restIfSurplus()) break;
    }
  }
  const std::lock_guard lock(mutex_);
  // Under the lock to its end: the destructor may run as soon as the count is seen to be zero.
  if (total_.fetch_sub(1) == 1) empty_.notify_all();
}

void ElasticPool::replaceIfNeeded() {
  if (active_.load(std::memory_order_relaxed) < limits_.minimum) addThread();
}

void ElasticPool::beginWork() {
  static_cast<Member*>(platform::BlockingObserver::ofThisThread())->beginWork();
}

void ElasticPool::tick() {
  const std::uint32_t now = ticks_.fetch_add(1) + 1;
  {
    const std::lock_guard lock(mutex_);
    for (Member* member : members_) {
      if (member->stuck(now)) member->countOut();
    }
  }
  while (active_.load() < limits_.minimum && addThread()) {
  }
}

bool ElasticPool::restIfSurplus() {
  std::size_t active = active_.load(std::memory_order_relaxed);
  do {
    if (active <= limits_.wanted) return true;
  } while (!active_.compare_exchange_weak(active, active - 1));

  Member& self = *static_cast<Member*>(platform::BlockingObserver::ofThisThread());
  {
    const std::lock_guard lock(mutex_);
    if (stopping_.load()) return false;
    resting_.push_back(&self);
  }
  if (self.rest(limits_.rest)) return !stopping_.load();
  {
    const std::lock_guard lock(mutex_);
    if (std::erase(resting_, &self) > 0) return false;
  }
  // Woken at the last moment: whoever did has counted it as active.
  self.restUntilWoken();
  return !stopping_.load();
}

void ElasticPool::requestStop() {
  const std::lock_guard lock(mutex_);
  stopping_.store(true);
  for (Member* member : std::exchange(resting_, {})) member->wake();
}

bool ElasticPool::waitUntilEmpty(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return empty_.wait_for(lock, timeout, [this] { return total_.load() == 0; });
}

}  // namespace tavrel::api
