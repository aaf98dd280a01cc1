#pragma once

#include <chrono>

#include "platform/clock.h"

namespace tavrel::net {

enum class SocketWait { kReady, kTimedOut, kClientGone };

/// Waits until `descriptor` reports one of `events` (poll's flags) or an error, until `deadline`
/// has passed, or until the client behind `client_descriptor` (-1: nobody) has hung up. A deadline
/// that has passed makes it look without waiting.
SocketWait waitForSocket(int descriptor, short events, int client_descriptor,
                         platform::SteadyTime deadline);

/// The moment `timeout` from now; a timeout too long for the clock is cut to a year.
platform::SteadyTime deadlineAfter(std::chrono::milliseconds timeout);

}  // namespace tavrel::net
