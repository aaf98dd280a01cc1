#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <random>
#include <string>
#include <vector>

#include "cluster/cluster_manager.h"
#include "cluster/gossip_peers.h"
#include "cluster/gossip_state.h"
#include "cluster/node_registry.h"
#include "platform/periodic_task.h"

namespace tavrel::cluster {

enum class GossipMessageType : std::int32_t;
struct GossipMessage;

/// Controllers that were told of each other keep a table of peers, ping them every second and
/// exchange their node registries, so that every controller learns the nodes the others know.
///
/// Rules: a peer that missed three pings has failed; after 60 s of silence it leaves the table. One
/// that an operator named is tried again with every sync from then on.
///
/// Threads: any may call; start, stop and the destructor belong to the owner. The threads are
///   `gossip` and `gossip-sync`; calls within a pass run side by side, so hung peers delay nobody.
///   No lock is held during calls or callbacks.
/// Callbacks are added before start; they run on the thread where it happened.
/// Failure: peers that do not answer show in the table, nothing is thrown.
class GossipProtocol {
 public:
  using PeerCallback = std::function<void(const PeerController&)>;

  /// Who this node is.
  struct Self {
    std::string id;
    std::string address;
    std::int32_t port = 0;  ///< of its HTTP server; 0: not known yet
    /// Its record, which every sync carries. May be called by any thread.
    std::function<NodeInfo()> record;
  };

  /// The registry and the transport must outlive it.
  GossipProtocol(Self self, NodeRegistry& registry, ClusterEnvironment env,
                 std::uint32_t seed = std::random_device{}());
  ~GossipProtocol();
  GossipProtocol(const GossipProtocol&) = delete;
  GossipProtocol& operator=(const GossipProtocol&) = delete;

  bool start();  ///< always true
  void stop();

  /// The HTTP server's port, for a node that learns it only when the server listens: introduces
  /// this node to its peers again, and waits for them.
  void setPort(std::int32_t port);

  /// Adds the peer and introduces this node to it; waits for its answer, and for a first sync.
  void addPeer(const std::string& host, std::int32_t port);
  /// The same for several, which are waited for side by side.
  void addPeers(const std::vector<Endpoint>& endpoints);

  std::vector<PeerController> getPeers() const { return peers_.all(); }
  std::size_t getPeerCount() const { return peers_.size(); }
  std::size_t getAlivePeerCount() const { return peers_.alive(env_.now()).size(); }

  /// Handles a message from a peer; the answer to it.
  GossipMessage handleMessage(const GossipMessage& message);

  // The passes of the two threads. triggerSync returns when the pass is done.
  void gossipPass();
  void triggerSync();

  void broadcastNodeUpdate(const NodeInfo& node);
  void broadcastNodeRemoval(const std::string& node_id);

  nlohmann::json getStats() const;

  void onPeerJoined(PeerCallback callback) { joined_.push_back(std::move(callback)); }
  void onPeerLeft(PeerCallback callback) { left_.push_back(std::move(callback)); }
  void onPeerFailed(PeerCallback callback) { failed_.push_back(std::move(callback)); }

 private:
  using Type = GossipMessageType;
  using Jobs = std::vector<std::function<void()>>;

  GossipMessage createMessage(Type type, nlohmann::json payload);
  bool sendMessage(const Endpoint& to, const std::string& text);
  /// A message without ids when there was no answer, or none that can be read.
  GossipMessage sendAndReceive(const Endpoint& to, const GossipMessage& message);
  ClusterAnswer post(const Endpoint& to, const std::string& text);
  void broadcast(const GossipMessage& message);
  void runJobs(const Jobs& jobs) const;

  void introduceTo(const Endpoint& endpoint);
  void ping(const PeerController& peer);
  void syncWithPeer(const Endpoint& endpoint);
  std::string serializeNodeRegistry() const;  ///< the payload of a sync
  void mergeNodeRegistry(const nlohmann::json& payload);
  void registerHearsay(NodeInfo told);

  void handleJoin(const GossipMessage& message, GossipMessage& reply);
  void handleLeave(const GossipMessage& message);
  void handleSync(const GossipMessage& message, GossipMessage& reply);
  void handleDelta(const nlohmann::json& payload);
  void handleNodeUpdate(const nlohmann::json& payload);
  void handleNodeRemove(const nlohmann::json& payload);
  void removeNode(const std::string& id);

  const Self self_;
  std::atomic<std::int32_t> port_;
  const GossipConfig config_;
  NodeRegistry& registry_;
  const ClusterEnvironment env_;
  GossipPeers peers_;
  SeenMessages seen_;
  VectorClock clock_;
  std::atomic<std::uint64_t> messages_sent_{0};
  std::atomic<std::uint64_t> messages_received_{0};
  std::atomic<std::uint64_t> sync_count_{0};
  std::atomic<bool> running_{false};
  std::atomic<bool> stopping_{false};
  std::vector<PeerCallback> joined_;
  std::vector<PeerCallback> left_;
  std::vector<PeerCallback> failed_;

  platform::PeriodicTask gossip_;  // last: their threads use all of the above
  platform::PeriodicTask sync_;
};

}  // namespace tavrel::cluster
