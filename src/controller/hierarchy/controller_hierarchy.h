#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/controller_transport.h"
#include "controller/hierarchy/command_book.h"
#include "controller/hierarchy/hierarchy_records.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/mutex.h"
#include "platform/periodic_task.h"

namespace tavrel::controller {

/// What a sub tells its master about its size.
struct LocalCounts {
  std::size_t workers = 0;
  std::size_t routers = 0;
};

/// What the hierarchy needs from outside. Tests put in their own network and clock; without threads
/// they call the passes themselves.
struct HierarchyEnvironment {
  cluster::ControllerTransport& transport;  ///< carries the master's API key
  std::function<LocalCounts()> counts = [] { return LocalCounts{}; };
  std::function<platform::SteadyTime()> now = platform::steadyNow;
  std::function<platform::WallTime()> wall = platform::wallNow;
  std::function<void(std::string_view)> print = platform::printLine;
  std::size_t at_once = 32;  ///< probes that may be under way side by side
  bool threads = true;
};

/// This controller's place among a master and its sub-controllers. A master keeps a table of its
/// subs, probes them, orders commands from them and keeps the results; it also keeps the planned
/// edge nodes. A sub registers with its master, tells it that it lives, and receives commands,
/// pushed or fetched, each of them once.
///
/// Threads: any may call; initialize, start, stop and the destructor belong to the owner. One
///   thread, `hierarchy`, runs healthPass or commandPass. The mutexes are leaves: calls to others
///   are made on copies, outside of them.
/// Callbacks are added before start. They run on the thread that received the command, an HTTP
///   worker among them, and hand over what takes long.
/// Failure: what others do not answer is printed and never stops the thread. Operations that the
///   role does not allow throw PermissionDeniedException.
class ControllerHierarchy {
 public:
  using CommandCallback = std::function<void(const MasterCommand&)>;

  /// Whoever may plan edge nodes cannot fill the memory with them.
  static constexpr std::size_t kMostEdges = 10'000;
  static constexpr std::size_t kMaxEdgeBytes = std::size_t{16} << 10;  ///< of its texts
  static constexpr std::size_t kMostSubs = 10'000;
  static constexpr net::Timeouts kCallTimeouts{std::chrono::seconds{5}, std::chrono::seconds{10}};

  /// The transport must outlive it.
  ControllerHierarchy(HierarchyConfig config, HierarchyEnvironment env);
  ~ControllerHierarchy();
  ControllerHierarchy(const ControllerHierarchy&) = delete;
  ControllerHierarchy& operator=(const ControllerHierarchy&) = delete;

  /// Takes the initial lists over. False when a sub has no master.
  bool initialize();
  /// False when this is a sub and its master does not take it.
  bool start();
  void stop();

  /// The port that the server got. Where the configuration left it to the system, a sub tells its
  /// master at once, which takes up to kCallTimeouts.
  void setPort(std::int32_t port) TV_EXCLUDES(master_mu_);

  ControllerRole role() const { return config_.role; }
  const std::string& id() const { return config_.controller_id; }
  bool isOperationAllowed(ControllerOperation op) const;
  void requireOperation(ControllerOperation op) const;
  nlohmann::json getStatus() const;
  /// `prefix` and the milliseconds since the epoch, or a later number where that was given away.
  std::string newId(std::string_view prefix);

  // A master's side.

  /// False when it cannot be anywhere, or no more are kept.
  bool registerSubController(SubControllerInfo info) TV_EXCLUDES(subs_mu_);
  bool removeSubController(const std::string& id) TV_EXCLUDES(subs_mu_);
  /// A sub told that it lives. What the body has of its description replaces what is known. An
  /// unknown sub is registered when the body says where it is: this master has begun anew. False
  /// when it stays unknown.
  bool subControllerHeartbeat(const std::string& id, const nlohmann::json& body)
      TV_EXCLUDES(subs_mu_);
  enum class SendResult { kUnknownSub, kRefused, kQueued, kDelivered };
  /// Queues the command for the sub and pushes it there, which takes up to kCallTimeouts.
  SendResult sendCommand(const std::string& sub_id, MasterCommand command) TV_EXCLUDES(subs_mu_);
  std::vector<MasterCommand> takeCommandsFor(const std::string& sub_id);
  void storeCommandResult(const CommandResult& result) { book_.storeResult(result); }
  std::optional<nlohmann::json> commandResult(const std::string& command_id) const {
    return book_.result(command_id);
  }
  /// Probes all subs. Runs on the thread of a master.
  void checkSubControllerHealth() TV_EXCLUDES(subs_mu_);
  std::vector<SubControllerInfo> getSubControllers() const TV_EXCLUDES(subs_mu_);

  /// False when no more edge nodes are kept, or not such large ones.
  bool deployEdge(EdgeNodeInfo info) TV_EXCLUDES(edges_mu_);
  bool removeEdge(const std::string& id) TV_EXCLUDES(edges_mu_);
  std::optional<EdgeNodeInfo> edgeNode(const std::string& id) const TV_EXCLUDES(edges_mu_);
  std::vector<EdgeNodeInfo> getEdgeNodes() const TV_EXCLUDES(edges_mu_);

  // A sub's side.

  void onCommandReceived(CommandCallback callback) { callbacks_.push_back(std::move(callback)); }
  bool registerWithMaster() TV_EXCLUDES(master_mu_);
  void sendHeartbeatToMaster() TV_EXCLUDES(master_mu_);
  /// Fetches what waits, in as many portions as it takes.
  void pollCommandsFromMaster();
  /// A command came. False when too many wait, or it is too large.
  bool receiveCommand(const MasterCommand& command);
  /// A report that does not reach the master is sent again with the next pass. A result that the
  /// master would not read is a failure.
  void reportCommandResult(const std::string& command_id, bool success,
                           const nlohmann::json& result, const std::string& error)
      TV_EXCLUDES(master_mu_);
  void reportStatusToMaster(const nlohmann::json& status);
  std::vector<MasterCommand> getPendingCommands() { return inbox_.takeAll(); }
  std::optional<MasterCommand> nextPendingCommand() { return inbox_.takeOne(); }
  /// Tells the master that this lives, fetches commands, and reports what could not be reported.
  /// Runs on the thread of a sub.
  void commandPass() TV_EXCLUDES(master_mu_);
  MasterControllerRef masterRef() const TV_EXCLUDES(master_mu_);
  std::string masterUrl(const std::string& path) const;

 private:
  std::string httpGet(const std::string& url);
  std::string httpPost(const std::string& url, std::string body);
  std::string call(cluster::ControllerCall request);

  void probe(const SubControllerInfo& sub) TV_EXCLUDES(subs_mu_);
  bool pushCommand(const SubControllerInfo& sub, const MasterCommand& command);

  nlohmann::json selfDescription() const;
  void setConnected(bool connected) TV_EXCLUDES(master_mu_);
  /// False when none came.
  bool fetchCommands();
  /// False when the master could not be reached.
  bool sendReport(const std::string& report);
  void sendUnreported() TV_EXCLUDES(master_mu_);

  const HierarchyConfig config_;
  const HierarchyEnvironment env_;
  std::vector<CommandCallback> callbacks_;
  std::atomic<std::int32_t> port_;
  std::atomic<bool> running_{false};
  std::atomic<std::int64_t> last_id_{0};
  CommandBook book_;
  CommandInbox inbox_;

  mutable platform::Mutex subs_mu_;
  std::map<std::string, SubControllerInfo> subs_ TV_GUARDED_BY(subs_mu_);
  mutable platform::Mutex edges_mu_;
  std::map<std::string, EdgeNodeInfo> edges_ TV_GUARDED_BY(edges_mu_);
  mutable platform::Mutex master_mu_;
  MasterControllerRef master_ TV_GUARDED_BY(master_mu_);
  std::deque<std::string> unreported_ TV_GUARDED_BY(master_mu_);

  platform::PeriodicTask task_;  // last: its thread uses all of the above
};

}  // namespace tavrel::controller
