#pragma once

#include <chrono>

#include "platform/clock.h"

namespace tavrel::platform {

/// Suspends the fiber that runs on the current thread while it waits for sockets, so that the
/// thread can do something else. Installed by whoever runs fibers, around each resumption.
class SocketWaiter {
 public:
  virtual ~SocketWaiter() = default;

  /// Called on the fiber. Returns true after `descriptor` has reported one of `events` or an error,
  /// the client behind `client_descriptor` (-1: nobody) has hung up, `deadline` has passed (by up
  /// to a twentieth of a second), or for no reason: the caller looks for itself. False at once when
  /// it cannot be suspended for these descriptors.
  virtual bool suspend(int descriptor, short events, int client_descriptor,
                       SteadyTime deadline) = 0;

  /// The one of the fiber that runs on the calling thread; null when none does.
  static SocketWaiter* ofThisThread();
  static void setOfThisThread(SocketWaiter* waiter);
};

enum class SocketWait { kReady, kTimedOut, kClientGone };

/// Waits until `descriptor` reports one of `events` (poll's flags) or an error, until `deadline`
/// has passed, or until the client behind `client_descriptor` (-1: nobody) has hung up. A deadline
/// that has passed makes it look without waiting.
///
/// On a fiber it suspends that, and may return on another thread. Elsewhere it blocks the thread,
/// announced by a BlockingScope.
SocketWait waitForSocket(int descriptor, short events, int client_descriptor, SteadyTime deadline);

/// The moment `timeout` from now; a timeout too long for the clock is cut to a year.
SteadyTime deadlineAfter(std::chrono::milliseconds timeout);

}  // namespace tavrel::platform
