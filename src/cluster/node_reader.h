#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>

#include "cluster/node_info.h"
#include "platform/clock.h"

// Reading node records that other nodes sent. Where `port` is 0, `api_port` takes its place. Each
// gives nothing for a record without an id, or with texts or lists longer than any real node has,
// and throws nlohmann's exception for a member of a wrong type. No state; any thread.
namespace tavrel::cluster {

/// Of a join request or of a join's answer: a healthy node that was heard of `now`.
std::optional<NodeInfo> joinedNode(const nlohmann::json& object, platform::SteadyTime now);

/// The record that an announcement makes of the one known so far (null: none): where and what the
/// node is, that it is healthy and was heard of `now`. The rest stays as it was.
std::optional<NodeInfo> announcedNode(const nlohmann::json& object, const NodeInfo* known,
                                      platform::SteadyTime now);

/// How much of a gossiped record is taken over.
enum class NodeDetail {
  kPlace,  ///< what and where it is, and its status
  kLoad,   ///< and what it does
  kFull,   ///< and its weight, version, models and capabilities
};
std::optional<NodeInfo> gossipedNode(const nlohmann::json& object, NodeDetail detail);

}  // namespace tavrel::cluster
