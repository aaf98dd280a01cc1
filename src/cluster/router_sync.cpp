#include "cluster/router_sync.h"

#include <algorithm>
#include <exception>
#include <nlohmann/json.hpp>
#include <utility>

#include "cluster/worker_mirror.h"
#include "net/worker_client.h"
#include "platform/json_text.h"
#include "platform/text.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;

constexpr const char* kRouterVersion = "4.1.0";
constexpr std::chrono::milliseconds kShortestInterval{100};
constexpr net::Timeouts kHeartbeatTimeouts{std::chrono::seconds{5}, std::chrono::seconds{10}};
constexpr int kMostDoublings = 10;

}  // namespace

RouterSync::RouterSync(RouterSyncConfig config, worker::WorkerRegistry& workers,
                       RouterSyncEnvironment env)
    : config_(std::move(config)),
      workers_(workers),
      env_(std::move(env)),
      task_("router-sync", std::chrono::milliseconds{0},
            std::clamp<std::chrono::milliseconds>(config_.interval, kShortestInterval,
                                                  kKeepAlivePeriod),
            [this](const std::stop_token&) { tick(); }) {
  config_.interval = std::max(config_.interval, kShortestInterval);
}

void RouterSync::start(std::int32_t port) {
  config_.port = port;
  env_.print("[Router] Starting worker sync with controller: " + config_.controller_url);
  env_.print("[Router] Sync interval: " + std::to_string(config_.interval.count()) + "ms");
  task_.start();
}

std::chrono::milliseconds RouterSync::waitAfter(int errors) const {
  const int doublings = std::clamp(errors - 1, 0, kMostDoublings);
  const std::chrono::milliseconds longest =
      std::max<std::chrono::milliseconds>(config_.interval, kLongestWait);
  return std::min(config_.interval * (1 << doublings), longest);
}

void RouterSync::tick() {
  const platform::SteadyTime now = env_.now();
  if (now < next_sync_) {
    keepAlive();
    return;
  }
  if (synchronise()) {
    errors_ = 0;
  } else {
    ++errors_;
    keepAlive();
  }
  next_sync_ = now + waitAfter(errors_);
  sendHeartbeat();
}

bool RouterSync::synchronise() {
  const net::HttpResult result = fetchWorkers(env_.transport, config_.controller_url);
  if (const std::string failure = net::failureOf(result); !failure.empty()) {
    env_.print("[Router] Failed to fetch workers from controller: " + failure);
    return false;
  }
  try {
    WorkerList list = readWorkerList(result.body, config_.controller_url, env_.wall());
    for (const std::string& why : list.unreadable) {
      env_.print("[Router] Worker sync error: " + why);
    }
    removeUnlisted(list.ids);
    for (worker::WorkerInfo& worker : list.workers) {
      workers_.registerWorker(std::move(worker), false);
    }
    env_.print("[Router] Synced " + std::to_string(list.workers.size()) +
               " workers from controller");
    mirrored_.clear();
    for (const std::string& id : list.ids) {
      if (worker::WorkerPtr worker = workers_.find(id)) mirrored_.emplace(id, std::move(worker));
    }
    return true;
  } catch (const json::parse_error& error) {
    env_.print(std::string("[Router] Failed to parse worker response: ") + error.what());
  } catch (const std::exception& error) {
    env_.print(std::string("[Router] Worker sync error: ") + error.what());
  }
  return false;
}

void RouterSync::removeUnlisted(const std::set<std::string>& listed) {
  for (const worker::WorkerPtr& worker : workers_.snapshot()) {
    if (listed.contains(worker->worker_id) || !workers_.remove(worker->worker_id)) continue;
    env_.print("[Router] Removing worker no longer on controller: " + worker->worker_id);
  }
}

void RouterSync::keepAlive() {
  const platform::WallTime now = env_.wall();
  for (const auto& [id, listed] : mirrored_) {
    const worker::WorkerPtr worker = workers_.find(id);
    if (worker == nullptr) {
      worker::WorkerInfo back = *listed;
      back.last_heartbeat = now;
      workers_.registerWorker(std::move(back), false);
    } else if (worker->status != listed->status ||
               now - worker->last_heartbeat >= kKeepAlivePeriod) {
      workers_.update(id, [now, status = listed->status](worker::WorkerInfo& kept) {
        kept.last_heartbeat = now;
        kept.status = status;
      });
    }
  }
}

void RouterSync::sendHeartbeat() {
  ControllerCall call;
  call.url = net::joinUrl(config_.controller_url,
                          "/api/v1/routers/" + platform::percentEncode(config_.id) + "/heartbeat");
  call.body = platform::dumpJson({{"router_id", config_.id},
                                  {"hostname", config_.hostname},
                                  {"address", config_.address},
                                  {"port", config_.port},
                                  {"version", kRouterVersion},
                                  {"status", "healthy"},
                                  {"workers_synced", workers_.size()}});
  call.timeouts = kHeartbeatTimeouts;
  const std::string failure = net::failureOf(env_.transport.send(call));
  if (failure.empty()) return;
  env_.print("[Router] Failed to send heartbeat to controller: " + failure);
}

}  // namespace tavrel::cluster
