#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "api/route_book.h"
#include "cluster/cluster_manager.h"
#include "cluster/gossip_message.h"
#include "cluster/gossip_protocol.h"
#include "cluster/node_reader.h"
#include "cluster/node_registry.h"
#include "controller/routes/families.h"
#include "controller/routes/route_input.h"
#include "platform/clock.h"
#include "platform/json_fields.h"

namespace tavrel::controller {
namespace {

using api::Request;
using api::Response;
using nlohmann::json;

constexpr std::int32_t kDefaultPeerPort = 8080;

Response written(std::string json_text) {
  Response response;
  response.body = std::move(json_text);
  return response;
}

struct MembershipRoutes {
  cluster::ClusterManager* manager;
  cluster::NodeRegistry* registry;

  Response join(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    if (manager != nullptr) return written(manager->handleJoin(*req.json()));
    const auto node = cluster::joinedNode(*req.json(), platform::steadyNow());
    if (registry != nullptr && node) registry->registerNode(*node);
    return Response::ok({{"success", true}, {"nodes", json::array()}});
  }

  Response announce(const Request& req) const {
    if (!req.json()) return invalidJsonBody();
    if (manager != nullptr) manager->handleAnnounce(*req.json());
    return Response::ok({{"success", true}});
  }

  Response stats() const {
    return manager == nullptr ? notInitialized() : written(manager->clusterStatsText());
  }

  Response self() const {
    return manager == nullptr ? notInitialized() : Response::ok(manager->getSelfNode().toJson());
  }

 private:
  static Response notInitialized() { return Response::error(503, "Cluster not initialized"); }
};

struct GossipRoutes {
  cluster::GossipProtocol* gossip;

  Response message(const Request& req) const {
    if (gossip == nullptr) return notEnabled();
    if (!req.json()) return invalidJsonBody();
    const auto message = cluster::GossipMessage::fromJson(*req.json());
    return written(gossip->handleMessage(message).toText());
  }

  Response stats() const {
    if (gossip != nullptr) return Response::ok(gossip->getStats());
    return Response::ok(
        {{"enabled", false},
         {"message", "Gossip protocol not enabled. Use --peer to add peer controllers."}});
  }

  Response peers() const {
    if (gossip == nullptr) return Response::ok({{"peers", json::array()}});
    return Response::ok({{"peers", platform::jsonArray(gossip->getPeers())},
                         {"peer_count", gossip->getPeerCount()},
                         {"alive_peers", gossip->getAlivePeerCount()}});
  }

  Response addPeer(const Request& req) const {
    if (gossip == nullptr) return notEnabled();
    if (!req.json()) return invalidJsonBody();
    std::string address;
    std::int32_t port = kDefaultPeerPort;
    platform::readField(*req.json(), "address", address);
    platform::readField(*req.json(), "port", port);
    if (address.empty()) return Response::error(400, "address is required");
    gossip->addPeer(address, port);
    return done("Peer added: " + address + ":" + std::to_string(port));
  }

  Response sync() const {
    if (gossip == nullptr) return notEnabled();
    gossip->triggerSync();
    return done("Sync triggered");
  }

 private:
  static Response notEnabled() { return Response::error(503, "Gossip protocol not enabled"); }
  static Response done(const std::string& message) {
    return Response::ok({{"success", true}, {"message", message}});
  }
};

}  // namespace

void addClusterRoutes(api::RouteBook& book, cluster::ClusterManager* manager,
                      cluster::NodeRegistry* registry, cluster::GossipProtocol* gossip) {
  const MembershipRoutes m{manager, registry};
  book.get("/api/v1/cluster/stats", [m](auto&, auto&) { return m.stats(); });
  book.get("/api/v1/cluster/self", [m](auto&, auto&) { return m.self(); });
  book.post("/cluster/join", [m](auto&, auto& req) { return m.join(req); });
  book.post("/cluster/announce", [m](auto&, auto& req) { return m.announce(req); });

  const GossipRoutes g{gossip};
  book.post("/gossip", [g](auto&, auto& req) { return g.message(req); });
  book.get("/api/v1/cluster/gossip/stats", [g](auto&, auto&) { return g.stats(); });
  book.get("/api/v1/cluster/gossip/peers", [g](auto&, auto&) { return g.peers(); });
  book.post("/api/v1/cluster/gossip/sync", [g](auto&, auto&) { return g.sync(); });
  book.post("/api/v1/cluster/gossip/peers", [g](auto&, auto& req) { return g.addPeer(req); });
}

}  // namespace tavrel::controller
