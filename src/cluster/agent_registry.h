#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cluster/cluster_transport.h"
#include "cluster/node_registry.h"
#include "cluster/remote_agent.h"
#include "platform/mutex.h"

namespace tavrel::cluster {

/// The agents that nodes of the cluster host, by id, and invocations of them. Agents stay until
/// they are removed. The tasks and the load of the agents that are handed out follow the
/// invocations in flight; one with no task to spare is not available.
///
/// Threads: any; mu_ is a leaf lock, calls and callbacks run without it. Callbacks are added before
///   other threads use the registry.
/// Failure: an unknown id gives nothing or false; invocations tell by their result.
class AgentRegistry {
 public:
  using Callback = std::function<void(const RemoteAgent&)>;

  static constexpr std::size_t kMaxAgents = 20'000;
  static constexpr std::size_t kMaxAgentBytes = std::size_t{16} << 10;  ///< of its texts
  /// Sessions that are remembered; later ones, and those with longer ids, are served without.
  static constexpr std::size_t kMaxSessions = 100'000;
  static constexpr std::size_t kMaxIdBytes = 256;

  /// Both must outlive it.
  AgentRegistry(const NodeRegistry& registry, ClusterTransport& transport)
      : registry_(registry), transport_(transport) {}
  AgentRegistry(const AgentRegistry&) = delete;
  AgentRegistry& operator=(const AgentRegistry&) = delete;

  /// Enters the agent, over one of its id that may be there. False when there is no room,
  /// or it is larger than any real one.
  bool registerAgent(const RemoteAgent& agent) TV_EXCLUDES(mu_);
  bool unregisterAgent(const std::string& id) TV_EXCLUDES(mu_);
  std::optional<RemoteAgent> getAgent(const std::string& id) const TV_EXCLUDES(mu_);
  std::vector<RemoteAgent> getAllAgents() const TV_EXCLUDES(mu_);  ///< in id order
  std::vector<RemoteAgent> getAgentsByNode(const std::string& node_id) const;
  std::vector<RemoteAgent> getAgentsByType(AgentType type) const;
  std::vector<RemoteAgent> getAvailableAgents() const;
  std::size_t getAgentCount() const TV_EXCLUDES(mu_);
  std::size_t getAvailableAgentCount() const;
  /// What an agent does besides the invocations from here.
  bool updateAgentStatus(const std::string& id, bool available, std::int32_t active_tasks)
      TV_EXCLUDES(mu_);

  /// The available one with the least load; of equals the first in id order.
  std::optional<RemoteAgent> selectAgent(AgentType type) const TV_EXCLUDES(mu_);
  /// The one that the session had, while that is available; else as above, and remembered.
  std::optional<RemoteAgent> selectAgentForSession(const std::string& session_id, AgentType type)
      TV_EXCLUDES(mu_);

  AgentResult invoke(const AgentInvocation& invocation) TV_EXCLUDES(mu_);

  std::uint64_t totalInvocations() const { return total_invocations_.load(); }
  nlohmann::json getStats() const TV_EXCLUDES(mu_);

  void onAgentRegistered(Callback callback) { registered_.push_back(std::move(callback)); }
  void onAgentUnregistered(Callback callback) { unregistered_.push_back(std::move(callback)); }

 private:
  struct Entry {
    RemoteAgent agent;  ///< with the tasks that it told of
    std::int32_t in_flight = 0;

    RemoteAgent current() const;
  };

  template <class Wanted>
  std::vector<RemoteAgent> agentsThat(Wanted wanted) const TV_EXCLUDES(mu_);
  std::optional<RemoteAgent> selectLocked(AgentType type) const TV_REQUIRES(mu_);
  std::optional<RemoteAgent> selectForSessionLocked(const std::string& session_id, AgentType type)
      TV_REQUIRES(mu_);
  /// Chooses and takes one of its tasks; the error when there is none.
  std::string claim(const AgentInvocation& invocation, RemoteAgent& agent) TV_EXCLUDES(mu_);
  void release(const std::string& id) TV_EXCLUDES(mu_);
  AgentResult sendToAgent(const RemoteAgent& agent, const AgentInvocation& invocation) const;

  const NodeRegistry& registry_;
  ClusterTransport& transport_;
  mutable platform::Mutex mu_;
  std::map<std::string, Entry> agents_ TV_GUARDED_BY(mu_);
  std::map<std::string, std::string> sessions_ TV_GUARDED_BY(mu_);  ///< to agent ids
  std::vector<Callback> registered_;
  std::vector<Callback> unregistered_;
  std::atomic<std::uint64_t> total_invocations_{0};
  std::atomic<std::uint64_t> successful_invocations_{0};
};

}  // namespace tavrel::cluster
