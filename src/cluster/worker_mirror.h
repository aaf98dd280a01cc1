#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "cluster/controller_transport.h"
#include "platform/clock.h"
#include "platform/mutex.h"
#include "worker/worker_info.h"

namespace tavrel::worker {
class WorkerRegistry;
}

namespace tavrel::cluster {

/// The workers another controller listed.
struct WorkerList {
  std::vector<worker::WorkerInfo> workers;
  std::set<std::string> ids;              ///< of all that it listed
  std::vector<std::string> unreadable{};  ///< why an entry is not among `workers`
};

/// GET /api/v1/workers of the controller at `base_url`.
net::HttpResult fetchWorkers(ControllerTransport& transport, const std::string& base_url);

/// Reads what fetchWorkers got. A worker that is on the other controller's own machine is reached
/// through the host of `base_url`. Throws nlohmann's parse_error when it is not JSON and
/// std::runtime_error when it is no list.
WorkerList readWorkerList(const std::string& body, const std::string& base_url,
                          platform::WallTime now);

/// Takes workers of another controller over beside the own ones, once for every call. Those that
/// are not taken over again are forgotten like any silent worker. Own workers are never replaced.
///
/// Threads: any; mu_ is a leaf lock. Registry and transport must outlive it.
class WorkerMirror {
 public:
  WorkerMirror(worker::WorkerRegistry& workers, ControllerTransport& transport)
      : workers_(workers), transport_(transport) {}

  /// How many were taken over. Throws std::runtime_error when the list cannot be had.
  std::size_t addFrom(const std::string& base_url) TV_EXCLUDES(mu_);

 private:
  worker::WorkerRegistry& workers_;
  ControllerTransport& transport_;

  platform::Mutex mu_;
  /// Those taken over, with the time their record then got: a later one is a heartbeat of their
  /// own.
  std::map<std::string, platform::WallTime> mirrored_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::cluster
