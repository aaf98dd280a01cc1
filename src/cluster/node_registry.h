#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cluster/node_info.h"
#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::cluster {

using NodePtr = std::shared_ptr<const NodeInfo>;

/// The cluster nodes this process knows, by id. Owns the records and hands out immutable snapshots,
/// in id order.
///
/// A record whose `last_heartbeat` is the clock's epoch is hearsay: another node told of it and
/// nobody here has reached it yet.
///
/// A record with an `api_port` describes one process, and no two processes listen at the same
/// address and port: of two such records the one that was heard of first-hand stays. So the former
/// id of a node that came back under a new one does not live on in its successor's answers.
///
/// Threads: any; mu_ is a leaf lock. Callbacks are added before other threads use the registry;
/// they
///   run on the thread that made the change, without the lock, and may call the registry.
/// Time: callers pass `now`. Failure: an unknown id gives null or false, never an exception.
class NodeRegistry {
 public:
  using Callback = std::function<void(const NodeInfo&)>;

  /// Records that are kept; more new ones are refused. As many as fit into one exchange between
  /// nodes: its reader takes no more values than platform::kMaxJsonValues.
  static constexpr std::size_t kMaxNodes = 20'000;
  /// How long a node that was given up is remembered, so that nobody passes on old news of it.
  static constexpr std::chrono::minutes kGivenUpMemory{10};

  NodeRegistry() = default;
  NodeRegistry(const NodeRegistry&) = delete;
  NodeRegistry& operator=(const NodeRegistry&) = delete;

  /// Tells which node this process is. Its record is stored by registerNode like any other.
  void setOwnNode(const NodeInfo& own) TV_EXCLUDES(mu_);
  /// Whether the record has this process's id or endpoint. Others may not write such records.
  bool isOwnNode(const NodeInfo& node) const TV_EXCLUDES(mu_);

  /// Stores the record under its id, over one that may be there. False when there is no room, or
  /// when it is hearsay of a process where another one is known to listen.
  bool registerNode(NodeInfo node) TV_EXCLUDES(mu_);
  bool unregisterNode(const std::string& id) TV_EXCLUDES(mu_);
  /// Replaces the record of that id; an unknown one is ignored.
  void updateNode(const NodeInfo& node) TV_EXCLUDES(mu_);
  /// Replaces the record by a changed copy. `change` runs without the lock, again on a fresh copy
  /// when another change came first. Runs the callbacks for a changed status.
  bool update(const std::string& id, const std::function<void(NodeInfo&)>& change) TV_EXCLUDES(mu_);
  /// registerNode of what `make` gives, which is shown the record of that id (null: there is none).
  /// It runs without the lock, again when another change came first. False also when it declined.
  bool registerNode(const std::string& id,
                    const std::function<std::optional<NodeInfo>(const NodeInfo*)>& make)
      TV_EXCLUDES(mu_);
  bool updateNodeStatus(const std::string& id, NodeStatus status) TV_EXCLUDES(mu_);
  /// `load_factor` becomes 0.4 cpu + 0.3 memory + 0.3 times the share of jobs that run.
  void updateNodeMetrics(const std::string& id, double cpu, double memory, std::int32_t active_jobs,
                         platform::SteadyTime now) TV_EXCLUDES(mu_);

  NodePtr getNode(const std::string& id) const TV_EXCLUDES(mu_);
  std::vector<NodePtr> getAllNodes() const TV_EXCLUDES(mu_);
  std::vector<NodePtr> getHealthyNodes() const;  ///< the available ones
  std::vector<NodePtr> getNodesByType(NodeType type) const;
  std::vector<NodePtr> getNodesByStatus(NodeStatus status) const;
  std::vector<NodePtr> getNodesWithCapability(const std::string& name) const;
  std::vector<NodePtr> getNodesWithModel(const std::string& name) const;
  std::size_t nodeCount() const TV_EXCLUDES(mu_);
  std::size_t healthyNodeCount() const;  ///< the available ones
  std::map<NodeType, int> nodeCountByType() const;
  std::map<NodeStatus, int> nodeCountByStatus() const;

  /// What other nodes may be told: every record, except hearsay of nodes that were given up here.
  /// Without that exception two nodes could keep telling each other of a dead third for ever.
  std::vector<NodePtr> nodesToPassOn() const TV_EXCLUDES(mu_);

  /// Grows with every record that is added or replaced from outside.
  std::uint64_t version() const TV_EXCLUDES(mu_);
  /// Gives up the nodes whose last sign of life is more than `max_age` ago (in whole milliseconds).
  /// Hearsay counts as older than anything, but stays when it came after `version`: nobody had the
  /// chance to try it.
  void removeStaleNodes(std::chrono::milliseconds max_age, platform::SteadyTime now,
                        std::uint64_t version) TV_EXCLUDES(mu_);
  void clear() TV_EXCLUDES(mu_);

  void onNodeAdded(Callback callback) { added_.push_back(std::move(callback)); }
  void onNodeRemoved(Callback callback) { removed_.push_back(std::move(callback)); }
  void onNodeStatusChanged(Callback callback) { status_changed_.push_back(std::move(callback)); }

 private:
  struct Entry {
    NodePtr node;
    std::uint64_t version = 0;  ///< when it was last registered
  };
  using Nodes = std::map<std::string, Entry>;
  using Endpoint = std::pair<std::string, std::int32_t>;

  /// What became of an attempt to store a record.
  struct Stored {
    bool done = false;
    bool outdated = false;  ///< somebody else changed the record first
    bool added = false;
    NodePtr displaced;  ///< the former holder of the endpoint
  };
  /// Stores the record when there is room for it, and (given `expected`) what is there is still
  /// that (null: nothing).
  Stored storeLocked(const NodePtr& node, const NodePtr* expected) TV_REQUIRES(mu_);
  bool announceStored(const Stored& stored, const NodeInfo& node);
  bool replaceIf(const NodePtr& expected, const NodePtr& node) TV_EXCLUDES(mu_);
  void assignLocked(Entry& entry, NodePtr node) TV_REQUIRES(mu_);
  Nodes::iterator eraseLocked(Nodes::iterator place) TV_REQUIRES(mu_);
  void dropClaimLocked(const NodeInfo& node) TV_REQUIRES(mu_);
  template <class Wanted>
  std::vector<NodePtr> nodesThat(Wanted wanted) const TV_EXCLUDES(mu_);

  mutable platform::Mutex mu_;
  Nodes nodes_ TV_GUARDED_BY(mu_);
  /// Whose an endpoint is, for records with an `api_port`.
  std::map<Endpoint, std::string> claims_ TV_GUARDED_BY(mu_);
  std::string own_id_ TV_GUARDED_BY(mu_);
  Endpoint own_endpoint_ TV_GUARDED_BY(mu_);
  /// Nodes that were removed for their silence, and have given no sign of life since.
  std::map<std::string, platform::SteadyTime> given_up_ TV_GUARDED_BY(mu_);
  std::uint64_t version_ TV_GUARDED_BY(mu_) = 0;

  std::vector<Callback> added_;
  std::vector<Callback> removed_;
  std::vector<Callback> status_changed_;
};

}  // namespace tavrel::cluster
