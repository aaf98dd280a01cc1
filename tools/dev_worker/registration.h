#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "dev_worker/host_figures.h"
#include "dev_worker/options.h"
#include "dev_worker/stats.h"
#include "net/http_client.h"
#include "platform/clock.h"

namespace tavrel::dev_worker {

/// Who this worker is: what registrations and heartbeats say besides figures. Built once it
/// listens, when its port is known.
struct Identity {
  std::string id;
  std::string name;
  std::string host;
  int port = 0;
  std::string backend_type;
  std::string backend_url;
  std::string controller_url;
  std::map<std::string, std::string> labels;
};
Identity identityOf(const Options& options, int port);

nlohmann::json registrationBody(const Identity& identity, const std::vector<std::string>& models);

/// The registration again, so that a controller that forgot the worker learns all of it, and the
/// figures of now.
nlohmann::json heartbeatBody(const Identity& identity, const std::vector<std::string>& models,
                             nlohmann::json metrics, const Stats& stats, std::int64_t loaded_at);

/// Keeps the controller informed: registers, then sends a heartbeat per beat.
/// Threads: one (the heartbeat task). Failure: said once on standard error; the next beat tries
/// again, and a controller that has restarted registers the worker from its heartbeat.
class Registration {
 public:
  using Models = std::function<std::vector<std::string>()>;
  using Shards = std::function<nlohmann::json()>;  ///< how its shards of pipelines fare

  Registration(Identity identity, std::string api_key, Models models, Shards shards,
               const Stats& stats, net::HttpClient& client);

  void beat();

 private:
  bool send(const std::string& path, const nlohmann::json& body);
  void report(bool reached, const std::string& problem);

  const Identity identity_;
  const std::string api_key_;
  const Models models_;
  const Shards shards_;
  const Stats& stats_;
  net::HttpClient& client_;
  const std::int64_t started_;  ///< seconds since the epoch
  HostFigures figures_;
  bool registered_ = false;
  bool reached_ = true;
};

}  // namespace tavrel::dev_worker
