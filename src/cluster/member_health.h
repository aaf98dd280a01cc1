#pragma once

#include <cstdint>
#include <string>

#include "cluster/node_info.h"
#include "platform/clock.h"

// What a health probe says about a member. No state; any thread; time is passed in.
namespace tavrel::cluster {

/// Probes in a row that change a member's status.
struct HealthThresholds {
  std::int32_t unhealthy = 3;
  std::int32_t healthy = 2;
};

/// One probe of one member, once it is over.
struct ProbeOutcome {
  bool answered = false;  ///< with status 200
  std::string body;
  platform::SteadyTime began;
  platform::SteadyTime ended;
};

/// Takes the outcome over into `node`, the record as it is now; `probed` is the one that the probe
/// started from. A sign of life that came while the probe ran outweighs its failure, and the answer
/// from an address that the node has left meanwhile says nothing. Returns whether the status
/// changed.
bool applyProbe(NodeInfo& node, const NodeInfo& probed, const ProbeOutcome& outcome,
                HealthThresholds thresholds);

}  // namespace tavrel::cluster
