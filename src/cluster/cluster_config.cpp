#include "cluster/cluster_config.h"

#include <nlohmann/json.hpp>

namespace tavrel::cluster {

nlohmann::json ClusterConfig::DataWorkerConfig::toJson() const {
  return {{"storage_type", storage_type}, {"storage_path", storage_path}};
}

nlohmann::json ClusterConfig::toJson() const {
  return {{"cluster_id", cluster_id},
          {"node_id", node_id},
          {"discovery_port", discovery_port},
          {"health_check_interval_ms", health_check_interval_ms},
          {"lb_strategy", static_cast<std::int32_t>(lb_strategy)},
          {"enable_failover", enable_failover},
          {"data_workers", data_workers.toJson()}};
}

}  // namespace tavrel::cluster
