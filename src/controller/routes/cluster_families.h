#pragma once

namespace tavrel::api {
class RouteBook;
}
namespace tavrel::cluster {
class ClusterManager;
class GossipProtocol;
class NodeRegistry;
}  // namespace tavrel::cluster

namespace tavrel::controller {

/// Membership and gossip. Null: not part of this process; the routes then say so. What is given
/// must outlive the server.
void addClusterRoutes(api::RouteBook& book, cluster::ClusterManager* manager,
                      cluster::NodeRegistry* registry, cluster::GossipProtocol* gossip);

}  // namespace tavrel::controller
