#pragma once

#include <functional>
#include <thread>

namespace tavrel::controller {

/// Waits for SIGINT and SIGTERM on a thread of its own and runs `on_signal` there, once, with the
/// signal's number. A further signal, as long as this lives, ends the process at once, with the
/// status that signal has.
///
/// Construct it before any other thread is started: the signals are blocked from then on in this
/// thread and all it starts, so none is ever handled in the middle of something.
/// Owned by start-up; stop() ends the waiting when there was no signal.
class SignalWaiter {
 public:
  SignalWaiter();
  ~SignalWaiter();
  SignalWaiter(const SignalWaiter&) = delete;
  SignalWaiter& operator=(const SignalWaiter&) = delete;

  void start(std::function<void(int signal)> on_signal);
  /// Returns when `on_signal` has returned, or was never called and never will be.
  void stop();

 private:
  void wait(const std::function<void(int)>& on_signal);

  int signals_;  ///< a signalfd
  int wake_;     ///< an eventfd: readable once the waiter is to stop
  int over_;     ///< an eventfd: readable once this is being destroyed
  std::jthread waiter_;
  std::jthread watcher_;  ///< sees the second signal from the first one to the end
};

}  // namespace tavrel::controller
