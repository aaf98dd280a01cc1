#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <unordered_map>

#include "api/client_budget.h"
#include "api/connection.h"
#include "api/elastic_pool.h"
#include "api/request_fibers.h"
#include "platform/mutex.h"
#include "platform/periodic_task.h"

namespace tavrel::api {

/// Serves any number of HTTP connections with few threads.
///
/// The HTTP library would hold one thread per open connection. Here a connection is parked in an
/// epoll set until bytes arrive. Pool threads wait on that set themselves, one event each: the one
/// that gets a connection's event owns the connection until it parks it again (the events are
/// one-shot), so no queue and no hand-over lie between the socket and the handler. A request is
/// begun only once its whole head and the beginning of its body are there; whoever dribbles bytes
/// costs a wake-up each, no more. It is served on a fiber (RequestFibers): while it waits for a
/// socket, its own or a worker's, it holds a stack and no thread. What large or chunked bodies,
/// answers and streams may hold is limited, so that some is always left.
///
/// Limits kept here: bytes and fields of a head, the time a head and a body may take, the time a
/// connection may idle, the number of connections.
///
/// Threads: start and stop belong to the owner; `serve` is called from pool threads, many at once,
/// never twice at a time for one connection, and may return on another one than it was called on.
class ConnectionEngine {
 public:
  struct Settings {
    HeadLimits head;
    Connection::Timeouts timeouts;
    std::chrono::milliseconds idle_timeout;
    std::size_t max_connections;
    ElasticPool::Limits pool;
  };

  /// Serves the request at the front of the connection's input, whose head is complete, and returns
  /// whether the connection may carry another.
  using Serve = std::function<bool(Connection&)>;

  ConnectionEngine(const Settings& settings, Serve serve);
  ~ConnectionEngine();
  ConnectionEngine(const ConnectionEngine&) = delete;
  ConnectionEngine& operator=(const ConnectionEngine&) = delete;

  /// Takes over a bound socket and begins to accept from it.
  bool start(int listening_socket);

  /// Ends parked connections and streams at once, everything else after `grace` (`on_grace_over` is
  /// called then, if requests are still running), and returns when no handler runs any more.
  void stop(std::chrono::milliseconds grace, const std::function<void()>& on_grace_over);

  bool stopping() const { return stopping_.load(std::memory_order_relaxed); }

  /// Counts a stream in, so that streams never take the last threads; false when there are too
  /// many.
  bool openStream() { return budget_.takeStream(); }
  void closeStream() { budget_.giveStream(); }

 private:
  bool workOnce();
  void take(Connection& connection);
  bool beginServing();
  void endServing();
  bool waitUntilServed(std::chrono::milliseconds timeout) TV_EXCLUDES(served_mutex_);
  void accept();
  void adopt(int socket, std::string remote_address);
  void handle(Connection& connection);
  /// True when the connection is parked again, false when it is to be closed.
  bool serveInput(Connection& connection);
  void refuse(Connection& connection, int status);
  bool park(Connection& connection, std::chrono::milliseconds timeout);
  void close(Connection& connection);
  void keepHouse();
  void interruptAll(bool all);

  const Settings settings_;
  const Serve serve_;
  const int epoll_;
  const int wake_;  ///< an eventfd in the epoll set: readable once the threads may go
  int listener_ = -1;

  std::atomic<bool> stopping_{false};    ///< nothing new is begun
  std::atomic<bool> ended_{false};       ///< nothing is left, and the threads may go
  std::atomic<std::size_t> serving_{0};  ///< connections that are served, suspended ones included
  platform::Mutex served_mutex_;
  platform::CondVar served_;  ///< the last one has been, while the engine stops
  ClientBudget budget_;

  platform::Mutex mutex_;
  std::unordered_map<Connection*, std::unique_ptr<Connection>> connections_ TV_GUARDED_BY(mutex_);

  RequestFibers fibers_;  // outlives the threads that resume them
  ElasticPool pool_;
  int housekeeping_passes_ = 0;
  platform::PeriodicTask housekeeper_;
};

}  // namespace tavrel::api
