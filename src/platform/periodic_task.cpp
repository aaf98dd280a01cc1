#include "platform/periodic_task.h"

#include <pthread.h>

#include <exception>
#include <utility>

#include "platform/console.h"

namespace tavrel::platform {

PeriodicTask::PeriodicTask(std::string name, std::chrono::milliseconds first_delay,
                           std::chrono::milliseconds period, Step step)
    : name_(std::move(name)), first_delay_(first_delay), period_(period), step_(std::move(step)) {}

PeriodicTask::~PeriodicTask() {
  stop();
}

void PeriodicTask::start() {
  if (thread_.joinable()) return;
  thread_ = std::jthread([this](std::stop_token stop) { run(std::move(stop)); });
}

void PeriodicTask::stop() {
  if (!thread_.joinable()) return;
  thread_.request_stop();
  thread_.join();
}

void PeriodicTask::run(std::stop_token stop) {
  nameThisThread(name_);
  if (!waitFor(first_delay_, stop)) return;
  do {
    try {
      step_(stop);
    } catch (const std::exception& error) {
      printError("[Controller] Background task " + name_ + " failed: " + error.what());
    }
  } while (waitFor(period_, stop));
}

bool PeriodicTask::waitFor(std::chrono::milliseconds delay, const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  wake_.wait_for(lock, stop, delay, [] { return false; });
  return !stop.stop_requested();
}

void nameThisThread(const std::string& name) {
  ::pthread_setname_np(::pthread_self(), name.substr(0, 15).c_str());
}

}  // namespace tavrel::platform
