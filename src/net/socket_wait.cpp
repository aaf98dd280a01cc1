#include "net/socket_wait.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/blocking.h"

namespace tavrel::net {
namespace {

using Milliseconds = std::chrono::milliseconds;

/// Rounded up, so that a wait never ends just before its deadline and spins there.
int remainingMilliseconds(platform::SteadyTime deadline) {
  const auto left = std::chrono::ceil<Milliseconds>(deadline - platform::steadyNow());
  return static_cast<int>(
      std::clamp(left, Milliseconds(0), Milliseconds(std::chrono::hours(1))).count());
}

int pollAtMost(std::array<pollfd, 2>& descriptors, int milliseconds) {
  if (milliseconds == 0) return ::poll(descriptors.data(), descriptors.size(), 0);
  const platform::BlockingScope blocking;
  return ::poll(descriptors.data(), descriptors.size(), milliseconds);
}

}  // namespace

SocketWait waitForSocket(int descriptor, short events, int client_descriptor,
                         platform::SteadyTime deadline) {
  std::array<pollfd, 2> descriptors{{{descriptor, events, 0}, {client_descriptor, POLLRDHUP, 0}}};
  while (true) {
    const int milliseconds = remainingMilliseconds(deadline);
    const int count = pollAtMost(descriptors, milliseconds);
    if (count > 0) {
      // Any event of the client is a hang-up or an error. It comes first: what the worker has to
      // say has no reader any more.
      return descriptors[1].revents != 0 ? SocketWait::kClientGone : SocketWait::kReady;
    }
    if (count < 0 && errno != EINTR) return SocketWait::kTimedOut;
    if (count == 0 && milliseconds == 0) return SocketWait::kTimedOut;
  }
}

platform::SteadyTime deadlineAfter(std::chrono::milliseconds timeout) {
  return platform::steadyNow() +
         std::clamp(timeout, Milliseconds(0), Milliseconds(std::chrono::hours(24 * 365)));
}

}  // namespace tavrel::net
