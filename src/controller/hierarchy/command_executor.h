#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "controller/hierarchy/controller_hierarchy.h"
#include "platform/bounded_threads.h"

namespace tavrel::cluster {
class RouterRegistry;
class WorkerMirror;
}  // namespace tavrel::cluster
namespace tavrel::worker {
class WorkerRegistry;
}

namespace tavrel::controller {

/// What this controller does when its master orders it. Each gets the command's payload and returns
/// the result; an exception is the command's failure, with its text. One that is empty is something
/// this controller cannot do.
struct CommandActions {
  using Action = std::function<nlohmann::json(const nlohmann::json& payload)>;

  Action report_status;
  Action health_check;
  Action list_workers;
  Action deploy_local_worker;
  Action deploy_local_router;
  Action mirror_registry;
};

/// The actions that need nothing but this controller's own tables; the two installers are left
/// empty. Everything must outlive the actions.
CommandActions localActions(ControllerHierarchy& hierarchy, const worker::WorkerRegistry& workers,
                            const cluster::RouterRegistry& routers, cluster::WorkerMirror& mirror);

/// Carries out the commands that a sub-controller receives, and reports what came of each.
///
/// Threads: `command`, at most four; a command that takes long does not delay the others, and
///   neither do they delay who received them. Commands begin in the order in which they came.
/// Failure: a command of an unknown type, one that the role does not allow, or one that fails is
///   reported as failed, with the reason.
class CommandExecutor {
 public:
  static constexpr std::size_t kThreads = 4;

  /// Adds itself to the hierarchy's callbacks: made before the hierarchy starts, and stopped or
  /// destroyed after it has stopped. The hierarchy must outlive it.
  CommandExecutor(ControllerHierarchy& hierarchy, CommandActions actions);
  ~CommandExecutor();
  CommandExecutor(const CommandExecutor&) = delete;
  CommandExecutor& operator=(const CommandExecutor&) = delete;

  /// Forgets the commands that wait and returns when those that run are done.
  void stop() { threads_.stop(); }

  /// Carries one command out and reports it, on the calling thread.
  void execute(const MasterCommand& command);

 private:
  nlohmann::json resultOf(const MasterCommand& command) const;

  ControllerHierarchy& hierarchy_;
  const CommandActions actions_;
  platform::BoundedThreads threads_;
};

}  // namespace tavrel::controller
