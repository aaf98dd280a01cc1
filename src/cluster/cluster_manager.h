#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/cluster_config.h"
#include "cluster/cluster_transport.h"
#include "cluster/member_health.h"
#include "cluster/node_registry.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/mutex.h"
#include "platform/periodic_task.h"
#include "platform/random.h"

namespace tavrel::cluster {

enum class ClusterEventType : std::int32_t;
struct ClusterEvent;

/// What the cluster needs from outside. Tests put in their own network, clock and randomness; with
/// `at_once` 1 and without threads everything happens on the calling thread, in a fixed order.
struct ClusterEnvironment {
  ClusterTransport& transport;
  std::function<platform::SteadyTime()> now = platform::steadyNow;
  std::function<std::string()> make_id = platform::generateUUID;
  std::function<void(std::string_view)> print = platform::printLine;
  std::size_t at_once = 64;  ///< calls that may be under way side by side
  bool threads = true;  ///< start begins the periodic passes; else they are called from outside
};

/// This process's membership of a cluster of controllers: joins the seeds, announces itself to
/// every node it knows, probes them and gives up those that are silent.
///
/// Seeds that did not answer, or whose node has been lost since, are joined again with every
/// announcement, and one of the others with every tenth: so a cluster that fell apart grows
/// together again, and two nodes that lost only each other find out.
///
/// Threads: any may call; start, stop and the destructor belong to the owner. The threads are
///   `cluster-health` and `cluster-announce`; calls within a pass run side by side. mu_ is a leaf.
/// Callbacks are added before start; they run on the thread where it happened, without a lock.
/// Failure: nodes that do not answer show in the registry; only a malformed seed throws
///   (std::invalid_argument), from joinCluster and start.
class ClusterManager {
 public:
  using NodeCallback = std::function<void(const NodeInfo&)>;
  using EventCallback = std::function<void(const ClusterEvent&)>;

  static constexpr std::chrono::milliseconds kHealthTick{500};
  static constexpr std::chrono::seconds kAnnouncePeriod{30};
  static constexpr std::size_t kPassesPerRefresh = 10;
  static constexpr std::chrono::seconds kAnnounceTimeout{2};
  static constexpr std::chrono::seconds kJoinConnectTimeout{3};
  static constexpr std::chrono::seconds kJoinTimeout{5};
  /// No probe, or announcement, is begun later than this after its pass began: a flood of nodes
  /// that do not answer cannot keep the pass from its next members.
  static constexpr std::chrono::seconds kProbePassLimit{5};
  static constexpr std::chrono::seconds kAnnouncePassLimit{25};

  /// The registry and the transport must outlive it.
  ClusterManager(const ClusterConfig& config, NodeRegistry& registry, ClusterEnvironment env);
  ~ClusterManager();
  ClusterManager(const ClusterManager&) = delete;
  ClusterManager& operator=(const ClusterManager&) = delete;

  /// Registers this node, starts the threads and joins the seeds one after another, each within
  /// kJoinTimeout. False when it already runs.
  bool start() TV_EXCLUDES(mu_);
  void stop();

  /// The HTTP server's port, for a node that learns it only when the server listens. The seeds are
  /// to be joined again with the next announcement: what they were told so far had no port.
  void setApiPort(std::int32_t port) TV_EXCLUDES(mu_);

  /// True when the seed took this node in.
  bool joinCluster(const std::string& seed) TV_EXCLUDES(mu_);
  void announcePresence() TV_EXCLUDES(mu_);
  void checkAllNodesHealth();
  void checkNodeHealth(const std::string& id);
  /// Probes all nodes, then gives up the silent ones.
  void healthPass() TV_EXCLUDES(mu_);

  // What other nodes ask. The answer to a join, as JSON text, lists all nodes, and this one as
  // "self".
  std::string handleJoin(const nlohmann::json& body);
  void handleAnnounce(const nlohmann::json& body);

  NodeInfo getSelfNode() const TV_EXCLUDES(mu_);
  void updateSelfMetrics(double cpu, double memory, std::int32_t active_jobs) TV_EXCLUDES(mu_);
  nlohmann::json getClusterStats() const;
  std::string clusterStatsText() const TV_EXCLUDES(mu_);  ///< the same as JSON text
  std::vector<NodePtr> getAllNodes() const { return registry_.getAllNodes(); }
  ClusterConfig getConfig() const TV_EXCLUDES(mu_);
  /// Taken over with the next pass. The seeds, the id and the addresses stay those of the start.
  void setConfig(const ClusterConfig& config) TV_EXCLUDES(mu_);

  void onNodeJoined(NodeCallback callback) { joined_.push_back(std::move(callback)); }
  void onNodeLeft(NodeCallback callback) { left_.push_back(std::move(callback)); }
  void onClusterEvent(EventCallback callback) { events_.push_back(std::move(callback)); }
  void publishEvent(ClusterEventType type, const nlohmann::json& data);

 private:
  struct Seed {
    std::string text;
    bool answered = false;
    std::string node_id{};  ///< empty when it did not tell
  };

  enum class Join { kFirst, kAgain };  ///< again: what is known of others already stays

  void probe(const std::vector<NodePtr>& nodes);  ///< all at one endpoint
  bool join(const std::string& seed, Join kind) TV_EXCLUDES(mu_);
  std::string readJoinAnswer(const std::string& body, Join kind);  ///< the seed's id, if it told
  std::string discover(const nlohmann::json& object, Join kind);
  std::vector<std::string> seedsToJoin() TV_EXCLUDES(mu_);
  std::vector<NodePtr> otherNodes() const;
  std::vector<std::vector<NodePtr>> otherNodesByEndpoint() const;

  NodeRegistry& registry_;
  const ClusterEnvironment env_;
  const std::string self_id_;
  std::vector<NodeCallback> joined_;
  std::vector<NodeCallback> left_;
  std::vector<EventCallback> events_;
  std::atomic<bool> running_{false};
  std::atomic<bool> stopping_{false};
  platform::SteadyTime last_health_pass_;  // of the health thread

  mutable platform::Mutex mu_;
  ClusterConfig config_ TV_GUARDED_BY(mu_);
  NodeInfo self_ TV_GUARDED_BY(mu_);
  std::vector<Seed> seeds_ TV_GUARDED_BY(mu_);
  std::size_t announcements_ TV_GUARDED_BY(mu_) = 0;

  platform::PeriodicTask health_;  // last: their threads use all of the above
  platform::PeriodicTask announcer_;
};

}  // namespace tavrel::cluster
