#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::controller {

/// A running edge server, as it announced itself. A plain copyable value.
struct EdgeServer {
  std::string edge_id;
  std::string hostname;
  std::string mode = "single";
  std::string tls_mode = "none";
  std::int32_t http_port = 0;
  std::int32_t https_port = 0;
  std::int32_t router_count = 0;
  std::int32_t peer_count = 0;
  std::string status = "online";
  nlohmann::json metrics = nlohmann::json::object();  ///< of its last heartbeat
  platform::WallTime registered_at;                   ///< JSON: seconds since the epoch
  platform::WallTime last_heartbeat;                  ///< JSON: seconds since the epoch

  nlohmann::json toJson() const;
};

/// Edge servers by id, in id order. They announce themselves; the hierarchy's planned edge nodes
/// are another matter.
/// Threads: any; mu_ is a leaf lock. Time: callers pass `now`. Failure: values of a wrong type
/// throw nlohmann's exception and change nothing.
class EdgeServers {
 public:
  /// Anybody may announce edge servers: beyond so many the one that was silent longest is
  /// forgotten.
  static constexpr std::size_t kMost = 10'000;
  static constexpr std::size_t kMaxBytes = std::size_t{8} << 10;  ///< of one, as JSON

  /// One without an "edge_id" gets "edge-" and 8 hexadecimal digits. Nothing when it is too large.
  std::optional<EdgeServer> registerEdge(const nlohmann::json& body, platform::WallTime now)
      TV_EXCLUDES(mu_);
  enum class Heartbeat { kKnown, kRegistered, kTooLarge };
  /// An unknown edge is registered.
  Heartbeat heartbeat(const std::string& id, const nlohmann::json& body, platform::WallTime now)
      TV_EXCLUDES(mu_);
  std::optional<EdgeServer> find(const std::string& id) const TV_EXCLUDES(mu_);
  std::vector<EdgeServer> all() const TV_EXCLUDES(mu_);

 private:
  void forgetSurplus() TV_REQUIRES(mu_);

  mutable platform::Mutex mu_;
  std::map<std::string, EdgeServer> edges_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::controller
