#include "platform/bounded_threads.h"

#include <exception>
#include <system_error>
#include <utility>

#include "platform/console.h"
#include "platform/periodic_task.h"

namespace tavrel::platform {

BoundedThreads::BoundedThreads(std::string name, std::size_t max_threads)
    : name_(std::move(name)), max_threads_(max_threads) {}

BoundedThreads::~BoundedThreads() {
  stop();
}

void BoundedThreads::run(Job job) {
  joinEnded();
  const MutexLock lock(mutex_);
  if (stopped_) return;
  waiting_.push_back(std::move(job));
  if (running_ == max_threads_) return;
  try {
    threads_.emplace_back([this] { work(); });
    ++running_;
  } catch (const std::system_error& error) {
    // With other threads there the job only waits longer.
    if (running_ > 0) return;
    waiting_.pop_back();
    throw;
  }
}

void BoundedThreads::stop() {
  {
    const MutexLock lock(mutex_);
    stopped_ = true;
    waiting_.clear();
    while (running_ > 0) ended_.wait(mutex_);
  }
  joinEnded();
}

void BoundedThreads::work() {
  nameThisThread(name_);
  for (;;) {
    Job job;
    {
      const MutexLock lock(mutex_);
      if (waiting_.empty()) {
        --running_;
        ended_ids_.push_back(std::this_thread::get_id());
        ended_.notifyAll();
        return;
      }
      job = std::move(waiting_.front());
      waiting_.pop_front();
    }
    try {
      job();
    } catch (const std::exception& error) {
      printError("[" + name_ + "] " + error.what());
    }
  }
}

void BoundedThreads::joinEnded() {
  std::vector<std::thread> ended;
  {
    const MutexLock lock(mutex_);
    for (const std::thread::id id : ended_ids_) {
      for (std::thread& thread : threads_) {
        if (thread.get_id() == id) ended.push_back(std::move(thread));
      }
    }
    std::erase_if(threads_, [](const std::thread& thread) { return !thread.joinable(); });
    ended_ids_.clear();
  }
  for (std::thread& thread : ended) thread.join();
}

}  // namespace tavrel::platform
