#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "cluster/load_balance_strategy.h"
#include "cluster/node_info.h"

namespace tavrel::cluster {

struct RegionInfo {
  std::string id;
  std::string name;
};

/// How this process takes part in a cluster. A plain value. What is marked "kept" is carried for
/// those who ask; the cluster manager does not read it.
struct ClusterConfig {
  /// Where data workers store what they keep; kept.
  struct DataWorkerConfig {
    std::string storage_type;
    std::string storage_path;

    nlohmann::json toJson() const;
  };

  std::string cluster_id = "tavrel-cluster";  ///< reported, compared with nobody's
  std::string node_id;                        ///< empty: a random one
  NodeType node_type = NodeType::kController;
  std::string region_id;                ///< kept
  std::string zone;                     ///< kept
  bool multi_region = false;            ///< kept
  std::vector<RegionInfo> regions;      ///< kept
  std::string discovery_method;         ///< kept
  std::vector<std::string> seed_nodes;  ///< "host" or "host:port", joined at start
  std::int32_t discovery_port = 8080;   ///< of a seed without one
  bool auto_discovery = true;           ///< kept
  std::int32_t health_check_interval_ms = 5000;
  std::int32_t health_check_timeout_ms = 2000;  ///< of one probe; half of it for the connection
  std::int32_t unhealthy_threshold = 3;         ///< failed probes in a row
  std::int32_t healthy_threshold = 2;           ///< good probes in a row
  LoadBalanceStrategy lb_strategy = LoadBalanceStrategy::kLeastLoad;  ///< reported
  bool sticky_sessions = false;                                       ///< kept
  std::int32_t session_timeout_s = 3600;                              ///< kept
  bool enable_failover = true;                                        ///< reported
  std::int32_t failover_timeout_ms = 5000;                            ///< kept
  std::int32_t max_retries = 3;                                       ///< kept
  std::int32_t max_connections = 100;                                 ///< kept
  std::int32_t queue_length = 100;                                    ///< kept
  DataWorkerConfig data_workers;                                      ///< reported

  std::string advertise_address;  ///< where others reach this node
  std::int32_t api_port = 0;      ///< and the port of its HTTP server; 0: the discovery port

  nlohmann::json toJson() const;
};

}  // namespace tavrel::cluster
