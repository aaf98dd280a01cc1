#include "controller/cluster_services.h"

#include <cstdlib>
#include <stdexcept>

#include "controller/command_line.h"
#include "controller/controller_identity.h"
#include "platform/console.h"
#include "platform/periodic_task.h"

namespace tavrel::controller {
namespace {

using platform::printError;
using platform::printLine;

constexpr std::int32_t kDefaultPeerPort = 8080;
constexpr std::size_t kDispatchers = 4;

cluster::ClusterConfig clusterConfig(const Options& options, const ControllerIdentity& self) {
  cluster::ClusterConfig config;
  config.cluster_id = options.cluster_id;
  config.node_id = self.id;
  config.node_type = static_cast<cluster::NodeType>(options.node_type);
  config.seed_nodes = options.seeds;
  config.discovery_port = options.port;
  config.api_port = options.port;
  config.advertise_address = self.address;
  return config;
}

std::unique_ptr<cluster::GossipProtocol> makeGossip(const Options& options,
                                                    ClusterServices& services) {
  const cluster::NodeInfo self = services.manager.getSelfNode();
  if (self.type != cluster::NodeType::kController || options.peers.empty()) return nullptr;
  return std::make_unique<cluster::GossipProtocol>(
      cluster::GossipProtocol::Self{self.id, self.address, options.port,
                                    [&services] { return services.manager.getSelfNode(); }},
      services.nodes, cluster::ClusterEnvironment{services.membership_transport});
}

}  // namespace

std::string clusterKey(const Options& options) {
  if (!options.cluster_key.empty()) return options.cluster_key;
  const char* key = std::getenv("TAVREL_CLUSTER_KEY");
  return key == nullptr ? "" : key;
}

ClusterServices::ClusterServices(const Options& options, const ControllerIdentity& self)
    : membership_transport(membership_http, clusterKey(options)),
      work_transport(work_http, clusterKey(options)),
      balancer(nodes, cluster::LoadBalanceStrategy::kLeastLoad),
      manager(clusterConfig(options, self), nodes,
              cluster::ClusterEnvironment{membership_transport}),
      llm_pool(nodes, balancer, work_transport),
      worker_pool(nodes, balancer, work_transport),
      agents(nodes, work_transport),
      gossip(makeGossip(options, *this)),
      peers_(options.peers) {}

ClusterServices::~ClusterServices() {
  stop();
}

bool ClusterServices::start(const std::string& tier_name) {
  std::vector<cluster::Endpoint> peers;
  try {
    for (const std::string& peer : peers_) {
      peers.push_back(cluster::parseEndpoint(peer, kDefaultPeerPort));
    }
    manager.start();
  } catch (const std::invalid_argument& error) {
    printError(std::string("[Controller] A seed or peer is ") + error.what());
    printError("[Controller] Failed to start cluster manager");
    return false;
  }
  printLine("[Controller] This controller: " + manager.getSelfNode().id + " (" + tier_name + ")");
  if (gossip != nullptr) startGossip(peers);
  printLine("[Controller] Cluster initialized successfully");
  worker_pool.start(kDispatchers);
  return true;
}

void ClusterServices::startGossip(const std::vector<cluster::Endpoint>& peers) {
  gossip->addPeers(peers);
  gossip->onPeerJoined([](const cluster::PeerController& peer) {
    printLine("[Gossip] Peer controller joined: " + peer.id + " (" + peer.endpoint().text() + ")");
  });
  gossip->onPeerFailed([](const cluster::PeerController& peer) {
    printLine("[Gossip] Peer controller failed: " + peer.id);
  });
  if (!gossip->start()) {
    printError("[Controller] Failed to start gossip protocol");
    return;
  }
  printLine("[Controller] Gossip protocol started with " + std::to_string(peers.size()) +
            " peer(s)");
}

void ClusterServices::listensAt(int port) {
  if (manager.getSelfNode().api_port == port) return;
  manager.setApiPort(port);
  late_introduction_ = std::jthread([this, port] {
    platform::nameThisThread("cluster-late");
    if (gossip != nullptr) gossip->setPort(port);
    manager.announcePresence();
  });
}

void ClusterServices::stop() {
  std::call_once(stopped_, [this] {
    cancelWork();
    if (gossip != nullptr) gossip->stop();
    membership_http.cancelAll();  // probes of nodes that hang
    if (late_introduction_.joinable()) late_introduction_.join();
    manager.stop();
    worker_pool.stop();
  });
}

void ClusterServices::refreshNode(const std::string& id, platform::SteadyTime now) {
  nodes.update(id, [now](cluster::NodeInfo& node) { node.last_heartbeat = now; });
}

}  // namespace tavrel::controller
