#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/mutex.h"

namespace tavrel::platform {

/// Runs jobs that take long on threads of its own, at most `max_threads` at once; more wait in
/// order. A thread is made when a job needs it and ends when no job waits.
///
/// Threads: any may call run; stop belongs to the owner. Failure: what a job throws is reported on
/// standard error.
class BoundedThreads {
 public:
  using Job = std::function<void()>;

  BoundedThreads(std::string name, std::size_t max_threads);
  ~BoundedThreads();  ///< stops
  BoundedThreads(const BoundedThreads&) = delete;
  BoundedThreads& operator=(const BoundedThreads&) = delete;

  void run(Job job) TV_EXCLUDES(mutex_);

  /// Forgets the jobs that wait and returns when those that run are done: the owner sees to it that
  /// they end soon. Later jobs are not run. May be called twice.
  void stop() TV_EXCLUDES(mutex_);

 private:
  void work() TV_EXCLUDES(mutex_);
  void joinEnded() TV_EXCLUDES(mutex_);

  const std::string name_;
  const std::size_t max_threads_;

  Mutex mutex_;
  CondVar ended_;
  std::deque<Job> waiting_ TV_GUARDED_BY(mutex_);
  std::vector<std::thread> threads_ TV_GUARDED_BY(mutex_);        ///< ended ones among them
  std::vector<std::thread::id> ended_ids_ TV_GUARDED_BY(mutex_);  ///< of those to be joined
  std::size_t running_ TV_GUARDED_BY(mutex_) = 0;
  bool stopped_ TV_GUARDED_BY(mutex_) = false;
};

}  // namespace tavrel::platform
