#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/clock.h"

namespace tavrel::cluster {

enum class ClusterEventType : std::int32_t { NodeJoined = 0, NodeLeft = 1, NodeStatusChanged = 2 };

/// Something that happened to a member, for programs that embed the cluster.
struct ClusterEvent {
  std::string id;
  ClusterEventType type = ClusterEventType::NodeJoined;
  std::string node_id;  ///< of this process
  platform::SteadyTime timestamp;
  nlohmann::json data;
};

}  // namespace tavrel::cluster
