#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "cluster/controller_transport.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/periodic_task.h"
#include "worker/worker_registry.h"

namespace tavrel::cluster {

struct RouterSyncConfig {
  std::string controller_url;
  std::string id;  ///< this router, as its controller is to know it
  std::string hostname;
  std::string address;
  std::int32_t port = 0;
  std::chrono::milliseconds interval{30000};
};

/// What router mode needs from outside. Tests put in their own network and clocks and call `tick`.
struct RouterSyncEnvironment {
  ControllerTransport& transport;
  std::function<platform::SteadyTime()> now = platform::steadyNow;
  std::function<platform::WallTime()> wall = platform::wallNow;
  std::function<void(std::string_view)> print = platform::printLine;
};

/// Router mode: makes the registry a copy of a controller's list of workers and tells the
/// controller that this router lives, at once and then with every interval. While the controller is
/// away the last list stays, its workers are kept from being given up as silent (and come back when
/// they were, after the machine slept or its clock jumped), and the controller is asked less and
/// less often, at least every five minutes.
///
/// Threads: one, `router-sync`; start, stop and the destructor belong to the owner. Stopping waits
///   for a running call.
/// Failure: printed, never thrown.
class RouterSync {
 public:
  static constexpr std::chrono::seconds kKeepAlivePeriod{30};
  static constexpr std::chrono::minutes kLongestWait{5};

  /// Registry and transport must outlive it.
  RouterSync(RouterSyncConfig config, worker::WorkerRegistry& workers, RouterSyncEnvironment env);

  void start(std::int32_t port);  ///< the port that this router listens on
  void stop() { task_.stop(); }

  /// Synchronises when it is time, otherwise only keeps the workers alive.
  void tick();

 private:
  bool synchronise();
  void removeUnlisted(const std::set<std::string>& listed);
  void sendHeartbeat();
  void keepAlive();
  std::chrono::milliseconds waitAfter(int errors) const;

  RouterSyncConfig config_;
  worker::WorkerRegistry& workers_;
  const RouterSyncEnvironment env_;
  // Of the thread that ticks.
  int errors_ = 0;  ///< in a row
  platform::SteadyTime next_sync_{};
  std::map<std::string, worker::WorkerPtr> mirrored_;  ///< as the controller listed them

  platform::PeriodicTask task_;  // last: its thread uses all of the above
};

}  // namespace tavrel::cluster
