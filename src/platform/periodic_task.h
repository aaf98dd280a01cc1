#pragma once

#include <chrono>
#include <functional>
#include <stop_token>
#include <string>
#include <thread>

#include "platform/mutex.h"

namespace tavrel::platform {

/// A named background loop: waits `first_delay`, runs `step`, waits `period`, runs it again, until
/// stopped.
///
/// Threads: start, stop and the destructor belong to the owner; step runs on the task's own thread.
/// Stopping: takes effect at once while waiting, else as soon as the running step returns; a step
/// that waits for something passes the stop token on. Both start and stop may be called twice.
/// Failure: an exception from step is reported on standard error and the loop goes on.
class PeriodicTask {
 public:
  using Step = std::function<void(std::stop_token)>;

  PeriodicTask(std::string name, std::chrono::milliseconds first_delay,
               std::chrono::milliseconds period, Step step);
  ~PeriodicTask();
  PeriodicTask(const PeriodicTask&) = delete;
  PeriodicTask& operator=(const PeriodicTask&) = delete;

  void start();
  void stop();

 private:
  void run(std::stop_token stop);
  /// False when the task was stopped meanwhile.
  bool waitFor(std::chrono::milliseconds delay, const std::stop_token& stop);

  const std::string name_;
  const std::chrono::milliseconds first_delay_;
  const std::chrono::milliseconds period_;
  const Step step_;

  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::jthread thread_;  // last: joined before the members above go away
};

/// Names the calling thread as debuggers and /proc show it (cut to the kernel's 15 characters).
void nameThisThread(const std::string& name);

}  // namespace tavrel::platform
