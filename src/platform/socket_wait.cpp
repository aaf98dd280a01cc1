#include "platform/socket_wait.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/blocking.h"

namespace tavrel::platform {
namespace {

using Milliseconds = std::chrono::milliseconds;
using Descriptors = std::array<pollfd, 2>;

thread_local SocketWaiter* waiter_of_thread = nullptr;

/// Rounded up, so that a wait never ends just before its deadline and spins there.
int remainingMilliseconds(SteadyTime deadline) {
  const auto left = std::chrono::ceil<Milliseconds>(deadline - steadyNow());
  return static_cast<int>(
      std::clamp(left, Milliseconds(0), Milliseconds(std::chrono::hours(1))).count());
}

/// The number of descriptors that have something, or a negative error number.
[[gnu::noinline]] int look(Descriptors& descriptors, int milliseconds) {
  const int count = ::poll(descriptors.data(), descriptors.size(), milliseconds);
  return count >= 0 ? count : -errno;
}

int lookAndBlock(Descriptors& descriptors, int milliseconds) {
  const BlockingScope blocking;
  return look(descriptors, milliseconds);
}

}  // namespace

[[gnu::noinline]] SocketWaiter* SocketWaiter::ofThisThread() {
  asm volatile("");
  return waiter_of_thread;
}

[[gnu::noinline]] void SocketWaiter::setOfThisThread(SocketWaiter* waiter) {
  asm volatile("");
  waiter_of_thread = waiter;
}

SocketWait waitForSocket(int descriptor, short events, int client_descriptor, SteadyTime deadline) {
  // The same one on whichever thread its fiber goes on.
  SocketWaiter* waiter = BlockingScope::active() ? nullptr : SocketWaiter::ofThisThread();
  Descriptors descriptors{{{descriptor, events, 0}, {client_descriptor, POLLRDHUP, 0}}};
  while (true) {
    const int milliseconds = remainingMilliseconds(deadline);
    const bool blocks = milliseconds > 0 && waiter == nullptr;
    const int count = blocks ? lookAndBlock(descriptors, milliseconds) : look(descriptors, 0);
    if (count > 0) {
      // Any event of the client is a hang-up or an error. It comes first: what the worker has to
      // say has no reader any more.
      return descriptors[1].revents != 0 ? SocketWait::kClientGone : SocketWait::kReady;
    }
    if (count < 0 && count != -EINTR) return SocketWait::kTimedOut;
    if (count == 0 && milliseconds == 0) return SocketWait::kTimedOut;
    if (waiter != nullptr && !waiter->suspend(descriptor, events, client_descriptor, deadline)) {
      waiter = nullptr;
    }
  }
}

SteadyTime deadlineAfter(std::chrono::milliseconds timeout) {
  return steadyNow() +
         std::clamp(timeout, Milliseconds(0), Milliseconds(std::chrono::hours(24 * 365)));
}

}  // namespace tavrel::platform
