#include "api/connection_engine.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>
#include <utility>

#include "api/answer_writer.h"
#include "platform/console.h"

namespace tavrel::api {
namespace {

constexpr int kListenBacklog = 4096;
/// How often housekeeping looks for threads that are stuck and requests that waited long enough.
constexpr std::chrono::milliseconds kHousekeepingPeriod{50};
/// Connections are looked through for expired ones once in so many passes.
constexpr int kExpiryPasses = 10;

/// How long an answer that refuses the rest of a request is given to be read before the close.
constexpr std::chrono::milliseconds kLingerTime{1000};

std::string numericAddress(const sockaddr_storage& address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const void* source = nullptr;
  if (address.ss_family == AF_INET) {
    source = &reinterpret_cast<const sockaddr_in&>(address).sin_addr;
  } else if (address.ss_family == AF_INET6) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
    // An IPv4 client of a dual-stack socket is known by its IPv4 address.
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {
      ::inet_ntop(AF_INET, &v6.s6_addr[12], text.data(), text.size());
      return text.data();
    }
    source = &v6;
  } else {
    return {};
  }
  ::inet_ntop(address.ss_family, source, text.data(), text.size());
  return text.data();
}

}  // namespace

ConnectionEngine::ConnectionEngine(const Settings& settings, Serve serve)
    : settings_(settings),
      serve_(std::move(serve)),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      budget_(settings.pool.maximum),
      fibers_(epoll_, settings.pool.maximum, settings.pool.stack_bytes),
      pool_(settings.pool, [this] { return workOnce(); }),
      housekeeper_("http-house", kHousekeepingPeriod, kHousekeepingPeriod,
                   [this](const std::stop_token&) { keepHouse(); }) {}

ConnectionEngine::~ConnectionEngine() {
  stop(std::chrono::milliseconds(0), nullptr);
  ::close(wake_);
  ::close(epoll_);
}

bool ConnectionEngine::start(int listening_socket) {
  listener_ = listening_socket;
  ::fcntl(listener_, F_SETFL, ::fcntl(listener_, F_GETFL) | O_NONBLOCK);
  ::fcntl(listener_, F_SETFD, FD_CLOEXEC);
  // The library listened with a backlog of 5; listening again raises it.
  if (::listen(listener_, kListenBacklog) != 0) return false;

  epoll_event wake{};
  wake.events = EPOLLIN;
  wake.data.ptr = nullptr;
  epoll_event listening{};
  listening.events = EPOLLIN | EPOLLONESHOT;
  listening.data.ptr = this;
  if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &wake) != 0 ||
      ::epoll_ctl(epoll_, EPOLL_CTL_ADD, listener_, &listening) != 0 || !fibers_.start()) {
    return false;
  }
  pool_.start();
  housekeeper_.start();
  return true;
}

bool ConnectionEngine::workOnce() {
  epoll_event event{};
  const int count = ::epoll_wait(epoll_, &event, 1, -1);
  if (ended_.load(std::memory_order_relaxed)) return false;
  if (count <= 0) return true;
  pool_.beginWork();
  if (RequestFibers::owns(event.data.u64)) {
    fibers_.handleEvent(event.data.u64);
  } else if (event.data.ptr == this) {
    accept();
  } else if (event.data.ptr != nullptr) {
    take(*static_cast<Connection*>(event.data.ptr));
  }
  return true;
}

void ConnectionEngine::take(Connection& connection) {
  if (!beginServing()) {
    connection.unpark();  // makes what the thread that parked it has written visible to this one
    return close(connection);
  }
  fibers_.run(connection.descriptor(), [this, &connection] {
    handle(connection);
    endServing();
  });
}

/// False once the engine stops. Both this and stop write one variable and then read the other, so
/// at least one of them sees what the other has done.
bool ConnectionEngine::beginServing() {
  serving_.fetch_add(1);
  if (!stopping_.load()) return true;
  endServing();
  return false;
}

void ConnectionEngine::endServing() {
  if (serving_.fetch_sub(1) > 1 || !stopping_.load()) return;
  const platform::MutexLock lock(served_mutex_);
  served_.notifyAll();
}

bool ConnectionEngine::waitUntilServed(std::chrono::milliseconds timeout) {
  const auto deadline = platform::steadyNow() + timeout;
  const platform::MutexLock lock(served_mutex_);
  while (serving_.load() > 0) {
    const auto left = deadline - platform::steadyNow();
    if (left <= left.zero()) return false;
    served_.waitFor(served_mutex_, left);
  }
  return true;
}

void ConnectionEngine::accept() {
  // A bounded number per event, so that a flood of connections cannot keep a thread from requests.
  for (int i = 0; i < 64; ++i) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    const int socket = ::accept4(listener_, reinterpret_cast<sockaddr*>(&address), &length,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket >= 0) {
      adopt(socket, numericAddress(address));
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      // Out of descriptors: wait a moment for some to come back rather than spin.
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      break;
    } else if (errno != EINTR && errno != ECONNABORTED) {
      break;
    }
  }
  if (stopping()) return;
  epoll_event listening{};
  listening.events = EPOLLIN | EPOLLONESHOT;
  listening.data.ptr = this;
  ::epoll_ctl(epoll_, EPOLL_CTL_MOD, listener_, &listening);
}

void ConnectionEngine::adopt(int socket, std::string remote_address) {
  const int on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  auto owned =
      std::make_unique<Connection>(socket, std::move(remote_address), settings_.timeouts, budget_);
  Connection* connection = owned.get();
  {
    const platform::MutexLock lock(mutex_);
    if (connections_.size() < settings_.max_connections && !stopping()) {
      connections_.emplace(connection, std::move(owned));
    }
  }
  if (owned != nullptr) {
    refuse(*connection, 503);
    return;
  }
  connection->park(platform::toNanoseconds(platform::steadyNow() + settings_.idle_timeout));
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  event.data.ptr = connection;
  if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &event) != 0) close(*connection);
}

void ConnectionEngine::handle(Connection& connection) {
  const bool expired = !connection.unpark();
  if (expired) {
    // Only a client that had begun a request is owed an answer.
    if (connection.hasInput()) refuse(connection, 408);
    close(connection);
    return;
  }
  if (connection.receive() != Connection::Arrival::kClosed) {
    if (!serveInput(connection)) close(connection);
    return;
  }
  // A client that ended its sending side amid a body may still read why it gets nothing.
  if (connection.awaitsBody()) refuse(connection, 400);
  close(connection);
}

bool ConnectionEngine::serveInput(Connection& connection) {
  while (connection.hasInput()) {
    const RequestHead& head = connection.scanHead(settings_.head);
    if (head.state == RequestHead::State::kRefused) {
      refuse(connection, head.refusal);
      return false;
    }
    if (head.state == RequestHead::State::kIncomplete || connection.awaitsBody()) {
      return park(connection, settings_.timeouts.read);
    }
    connection.beginRequest();
    if (!serve_(connection) || stopping()) {
      if (!connection.requestConsumed() && !stopping()) connection.linger(kLingerTime);
      return false;
    }
  }
  return park(connection, settings_.idle_timeout);
}

void ConnectionEngine::refuse(Connection& connection, int status) {
  AnswerWriter(connection, {.keep_connection = false}).whole(status, "", "");
  if (connection.flush()) connection.linger(kLingerTime);
}

bool ConnectionEngine::park(Connection& connection, std::chrono::milliseconds timeout) {
  // Taken first: once parked, the connection may be served and closed by another thread.
  const int socket = connection.descriptor();
  // A head that is dribbled in keeps the deadline of its first byte.
  connection.park(
      platform::toNanoseconds(connection.parkingDeadline(platform::steadyNow(), timeout)));
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  event.data.ptr = &connection;
  return ::epoll_ctl(epoll_, EPOLL_CTL_MOD, socket, &event) == 0;
}

void ConnectionEngine::close(Connection& connection) {
  const platform::MutexLock lock(mutex_);
  connections_.erase(&connection);
}

void ConnectionEngine::keepHouse() {
  pool_.tick();
  fibers_.wakeDue(platform::steadyNow());
  if (++housekeeping_passes_ % kExpiryPasses != 0) return;
  fibers_.trim();
  const std::int64_t now = platform::toNanoseconds(platform::steadyNow());
  const platform::MutexLock lock(mutex_);
  for (const auto& [connection, owner] : connections_) connection->expireIfDue(now);
}

void ConnectionEngine::interruptAll(bool all) {
  const platform::MutexLock lock(mutex_);
  for (const auto& [connection, owner] : connections_) connection->interrupt(all);
}

void ConnectionEngine::stop(std::chrono::milliseconds grace,
                            const std::function<void()>& on_grace_over) {
  if (stopping_.exchange(true)) return;
  // Refuses new connections; the descriptor stays until no thread can be using it any more.
  if (listener_ >= 0) ::shutdown(listener_, SHUT_RDWR);
  interruptAll(/*all=*/false);
  // The threads go on, for requests that wait on fibers.
  if (!waitUntilServed(grace)) {
    interruptAll(/*all=*/true);
    if (on_grace_over) on_grace_over();
    while (!waitUntilServed(std::chrono::seconds(10))) {
      platform::printError("[Controller] Still waiting for running requests to end");
    }
  }
  ended_.store(true);
  ::eventfd_write(wake_, 1);
  pool_.requestStop();
  housekeeper_.stop();
  while (!pool_.waitUntilEmpty(std::chrono::seconds(10))) {
    platform::printError("[Controller] Still waiting for threads to end");
  }
  if (listener_ >= 0) ::close(listener_);
  const platform::MutexLock lock(mutex_);
  connections_.clear();
}

}  // namespace tavrel::api
