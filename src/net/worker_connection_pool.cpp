#include "net/worker_connection_pool.h"

#include <algorithm>
#include <functional>
#include <list>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "net/worker_connection_state.h"
#include "platform/mutex.h"

namespace tavrel::net {
namespace {

using Connection = std::unique_ptr<WorkerConnection>;
/// Connections on their way out: closed when the vector goes, which is after the lock.
using Dropped = std::vector<Connection>;

struct Idle {
  WorkerAddress address;
  Connection connection;
  platform::SteadyTime since;
};
using IdleList = std::list<Idle>;

struct AddressHash {
  std::size_t operator()(const WorkerAddress& address) const {
    return std::hash<std::string>()(address.host) * 31 + static_cast<std::size_t>(address.port);
  }
};

}  // namespace

struct WorkerConnectionPool::Impl {
  explicit Impl(Limits wanted) : limits(wanted) {}

  Connection popNewest(const WorkerAddress& address) TV_EXCLUDES(mutex);
  void removeLocked(IdleList::iterator idle, Dropped& dropped) TV_REQUIRES(mutex);
  void expireLocked(platform::SteadyTime now, Dropped& dropped) TV_REQUIRES(mutex);
  void addLocked(Idle idle, Dropped& dropped) TV_REQUIRES(mutex);

  const Limits limits;
  platform::Mutex mutex;
  /// Oldest first; so is each worker's own list.
  IdleList by_age TV_GUARDED_BY(mutex);
  std::unordered_map<WorkerAddress, std::vector<IdleList::iterator>, AddressHash> by_address
      TV_GUARDED_BY(mutex);
};

Connection WorkerConnectionPool::Impl::popNewest(const WorkerAddress& address) {
  const platform::MutexLock lock(mutex);
  const auto worker = by_address.find(address);
  if (worker == by_address.end()) return nullptr;
  const auto newest = worker->second.back();
  worker->second.pop_back();
  if (worker->second.empty()) by_address.erase(worker);
  Connection connection = std::move(newest->connection);
  by_age.erase(newest);
  return connection;
}

/// `idle` is the oldest of its worker.
void WorkerConnectionPool::Impl::removeLocked(IdleList::iterator idle, Dropped& dropped) {
  const auto worker = by_address.find(idle->address);
  worker->second.erase(worker->second.begin());
  if (worker->second.empty()) by_address.erase(worker);
  dropped.push_back(std::move(idle->connection));
  by_age.erase(idle);
}

void WorkerConnectionPool::Impl::expireLocked(platform::SteadyTime now, Dropped& dropped) {
  while (!by_age.empty() && now - by_age.front().since > limits.max_idle) {
    removeLocked(by_age.begin(), dropped);
  }
}

void WorkerConnectionPool::Impl::addLocked(Idle idle, Dropped& dropped) {
  if (limits.idle_per_worker == 0 || limits.idle_in_total == 0) {
    dropped.push_back(std::move(idle.connection));
    return;
  }
  if (const auto worker = by_address.find(idle.address);
      worker != by_address.end() && worker->second.size() >= limits.idle_per_worker) {
    removeLocked(worker->second.front(), dropped);
  } else if (by_age.size() >= limits.idle_in_total) {
    removeLocked(by_age.begin(), dropped);
  }
  by_age.push_back(std::move(idle));
  by_address[by_age.back().address].push_back(std::prev(by_age.end()));
}

WorkerConnectionPool::WorkerConnectionPool(Limits limits) : impl_(std::make_unique<Impl>(limits)) {}
WorkerConnectionPool::~WorkerConnectionPool() = default;

std::unique_ptr<WorkerConnection> WorkerConnectionPool::take(const WorkerAddress& address,
                                                             int client_descriptor,
                                                             platform::SteadyTime now) {
  expire(now);
  while (auto connection = impl_->popNewest(address)) {
    if (connection->state_->openAndSilent()) {
      connection->state_->client = client_descriptor;
      return connection;
    }
  }
  return nullptr;
}

void WorkerConnectionPool::giveBack(const WorkerAddress& address,
                                    std::unique_ptr<WorkerConnection> connection,
                                    platform::SteadyTime now) {
  if (connection == nullptr || !connection->reusable()) return;
  connection->state_->client = -1;
  connection->state_->beginExchange();  // lets go of the last answer
  Dropped dropped;
  const platform::MutexLock lock(impl_->mutex);
  impl_->expireLocked(now, dropped);
  impl_->addLocked({address, std::move(connection), now}, dropped);
}

void WorkerConnectionPool::forget(const WorkerAddress& address) {
  // Taken one by one: each is closed outside the lock.
  while (impl_->popNewest(address) != nullptr) {
  }
}

void WorkerConnectionPool::expire(platform::SteadyTime now) {
  Dropped dropped;
  const platform::MutexLock lock(impl_->mutex);
  impl_->expireLocked(now, dropped);
}

std::size_t WorkerConnectionPool::idleConnections() const {
  const platform::MutexLock lock(impl_->mutex);
  return impl_->by_age.size();
}

}  // namespace tavrel::net
