#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>

namespace tavrel::api {
class RouteBook;
}
namespace tavrel::cluster {
class ControllerTiers;
}

namespace tavrel::controller {

class ControllerHierarchy;
class EdgeServers;
struct EdgeNodeInfo;

/// Begins to install an edge node, in the background; false when it cannot. The second value is the
/// body of the request, null without one.
using EdgeInstaller = std::function<bool(const EdgeNodeInfo&, const nlohmann::json& request)>;

/// Master and sub-controllers, their commands, and the planned edge nodes. Without an installer no
/// edge can be deployed. What is given must outlive the server.
void addHierarchyRoutes(api::RouteBook& book, ControllerHierarchy& hierarchy,
                        EdgeInstaller install_edge);
/// The edge servers that announce themselves.
void addEdgeServerRoutes(api::RouteBook& book, EdgeServers& edges);
/// Parent, connected controllers, and the jobs passed on between them.
void addControllerRoutes(api::RouteBook& book, cluster::ControllerTiers& tiers);

}  // namespace tavrel::controller
