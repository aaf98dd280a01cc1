#pragma once

#include <atomic>

#include "api/client_connection.h"
#include "dev_worker/stats.h"
#include "platform/clock.h"

namespace tavrel::dev_worker {

/// Waits on behalf of one request and notices at once when its client leaves; that is counted once.
/// Threads: the one that serves the request. `stopping` tells a client that left from a worker that
/// is being stopped, which looks the same on the socket.
class ClientWatch {
 public:
  ClientWatch(const api::ClientConnection* client, Stats& stats, const std::atomic<bool>& stopping)
      : client_(client), stats_(stats), stopping_(stopping) {}

  /// Returns true at `time`, false as soon as the client has left or the worker stops.
  bool waitUntil(platform::SteadyTime time);
  void waitUntilGone();

  /// To be called when writing to the client failed.
  void noteGone();

  /// -1 where there is no socket.
  int descriptor() const { return client_ == nullptr ? -1 : client_->descriptor(); }

 private:
  const api::ClientConnection* client_;
  Stats& stats_;
  const std::atomic<bool>& stopping_;
  bool noted_ = false;
};

}  // namespace tavrel::dev_worker
