#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cluster/node_info.h"
#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::cluster {

/// One router: a front end between clients and workers. A plain copyable value.
struct RouterInfo {
  std::string id;
  std::string hostname;
  std::string address;    ///< host, or "host:port" as an operator gave it
  std::int32_t port = 0;  ///< 0: in `address`, or unknown
  std::string version;
  NodeStatus status = NodeStatus::kStarting;
  AIControlConfig ai_control;
  std::vector<RouterRule> rules;
  platform::WallTime last_heartbeat;  ///< JSON: seconds since the epoch; 0: never heard of

  nlohmann::json toJson() const;
  /// "http://address:port"; empty without an address.
  std::string baseUrl() const;
};

/// The rules of a JSON array; one without an id gets "rule-" and 8 hexadecimal digits. Values of a
/// wrong type throw nlohmann's exception.
std::vector<RouterRule> routerRulesFrom(const nlohmann::json& rules);

/// Routers by id, in id order. They stay until they are removed, however silent.
/// Threads: any; mu_ is a leaf lock. Getters return copies.
/// Time: callers pass `now`. Failure: an unknown id gives nothing or false.
class RouterRegistry {
 public:
  RouterRegistry() = default;
  RouterRegistry(const RouterRegistry&) = delete;
  RouterRegistry& operator=(const RouterRegistry&) = delete;

  /// Anybody may announce routers: that cannot fill the memory.
  static constexpr std::size_t kMostRouters = 10'000;
  static constexpr std::size_t kMaxTextBytes = std::size_t{8} << 10;  ///< of one, without rules

  /// Stores a router an operator described, under a new id "rtr-" and 8 hexadecimal digits. Nothing
  /// when it is too large, or no more are kept.
  std::optional<RouterInfo> add(RouterInfo router) TV_EXCLUDES(mu_);

  struct Heartbeat {
    RouterInfo router;        ///< as it is now
    bool registered = false;  ///< it was not known before
    bool refused = false;     ///< it is too large, or no more are kept; nothing was changed
  };
  /// Takes over what the body says of "hostname", "address", "port" and "version"; the router is
  /// healthy and heard of at `now`, and registered when it was not known. Values of a wrong type
  /// throw nlohmann's exception before anything is changed.
  Heartbeat heartbeat(const std::string& id, const nlohmann::json& body, platform::WallTime now)
      TV_EXCLUDES(mu_);
  /// Notes a sign of life and nothing else.
  bool touch(const std::string& id, platform::WallTime now) TV_EXCLUDES(mu_);

  bool setRules(const std::string& id, std::vector<RouterRule> rules) TV_EXCLUDES(mu_);
  bool remove(const std::string& id) TV_EXCLUDES(mu_);

  std::optional<RouterInfo> find(const std::string& id) const TV_EXCLUDES(mu_);
  std::optional<RouterInfo> firstHealthy() const TV_EXCLUDES(mu_);
  std::vector<RouterInfo> all() const TV_EXCLUDES(mu_);  ///< in id order
  std::size_t size() const TV_EXCLUDES(mu_);
  std::size_t healthyCount() const TV_EXCLUDES(mu_);

 private:
  mutable platform::Mutex mu_;
  std::map<std::string, RouterInfo> routers_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::cluster
