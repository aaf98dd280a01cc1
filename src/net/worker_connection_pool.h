#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "net/worker_connection.h"
#include "platform/clock.h"

namespace tavrel::net {

/// Kept-alive connections to workers: the one used last is handed out first; a bounded number per
/// worker and in total (the oldest makes room), each dropped after a while unused.
///
/// Threads: any; the lock is a leaf, sockets are probed and closed outside it.
/// Time: `now` decides what has been idle for too long; take and giveBack look for it too.
class WorkerConnectionPool {
 public:
  struct Limits {
    std::size_t idle_per_worker = 64;
    std::size_t idle_in_total = 2048;
    std::chrono::seconds max_idle{30};
  };
  explicit WorkerConnectionPool(Limits limits);
  ~WorkerConnectionPool();
  WorkerConnectionPool(const WorkerConnectionPool&) = delete;
  WorkerConnectionPool& operator=(const WorkerConnectionPool&) = delete;

  /// A kept connection that is still open and silent (checked without blocking), watching
  /// `client_descriptor`; null when there is none. The worker may still close it before it has read
  /// the request: see WorkerConnection::answerBegun.
  std::unique_ptr<WorkerConnection> take(const WorkerAddress& address, int client_descriptor,
                                         platform::SteadyTime now = platform::steadyNow());

  /// Keeps the connection if it is reusable, closes it otherwise.
  void giveBack(const WorkerAddress& address, std::unique_ptr<WorkerConnection> connection,
                platform::SteadyTime now = platform::steadyNow());

  /// Closes the kept connections to an address (a worker that left or failed).
  void forget(const WorkerAddress& address);

  /// Closes what has been idle for too long, for when nobody takes or gives back.
  void expire(platform::SteadyTime now);

  std::size_t idleConnections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavrel::net
