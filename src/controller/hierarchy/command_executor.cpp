#include "controller/hierarchy/command_executor.h"

#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cluster/router_registry.h"
#include "cluster/worker_mirror.h"
#include "worker/worker_registry.h"

namespace tavrel::controller {

using nlohmann::json;

namespace {

struct CommandKind {
  std::string_view type;
  ControllerOperation operation;
  CommandActions::Action CommandActions::*action;
};

constexpr CommandKind kCommandKinds[] = {
    {"report_status", ControllerOperation::kReportStatus, &CommandActions::report_status},
    {"health_check", ControllerOperation::kLocalHealthCheck, &CommandActions::health_check},
    {"list_workers", ControllerOperation::kExecuteCommand, &CommandActions::list_workers},
    {"deploy_local_worker", ControllerOperation::kDeployLocalWorker,
     &CommandActions::deploy_local_worker},
    {"deploy_local_router", ControllerOperation::kDeployLocalRouter,
     &CommandActions::deploy_local_router},
    {"mirror_registry", ControllerOperation::kMirrorRegistry, &CommandActions::mirror_registry},
};

std::size_t onlineCount(const std::vector<worker::WorkerPtr>& workers) {
  std::size_t online = 0;
  for (const worker::WorkerPtr& worker : workers) {
    if (worker->status == worker::WorkerStatus::kOnline) ++online;
  }
  return online;
}

}  // namespace

CommandActions localActions(ControllerHierarchy& hierarchy, const worker::WorkerRegistry& workers,
                            const cluster::RouterRegistry& routers, cluster::WorkerMirror& mirror) {
  CommandActions actions;
  actions.report_status = [&](const json&) {
    const auto all = workers.snapshot();
    json status = hierarchy.getStatus();
    status["id"] = hierarchy.id();
    status["worker_count"] = all.size();
    status["online_workers"] = onlineCount(all);
    status["router_count"] = routers.size();
    hierarchy.reportStatusToMaster(status);
    return status;
  };
  actions.health_check = [&](const json&) {
    const auto all = workers.snapshot();
    const std::size_t online = onlineCount(all);
    return json{{"status", online == all.size() ? "healthy" : "degraded"},
                {"worker_count", all.size()},
                {"online_workers", online},
                {"router_count", routers.size()},
                {"healthy_routers", routers.healthyCount()}};
  };
  actions.list_workers = [&](const json&) {
    worker::WorkerListing listing = workers.listing();
    return json{{"workers", json::parse(listing.workers)}, {"count", listing.count}};
  };
  actions.mirror_registry = [&](const json&) {
    return json{{"workers", mirror.addFrom(hierarchy.masterUrl(""))}};
  };
  return actions;
}

CommandExecutor::CommandExecutor(ControllerHierarchy& hierarchy, CommandActions actions)
    : hierarchy_(hierarchy), actions_(std::move(actions)), threads_("command", kThreads) {
  hierarchy_.onCommandReceived([this](const MasterCommand&) {
    threads_.run([this] {
      if (const auto command = hierarchy_.nextPendingCommand()) execute(*command);
    });
  });
}

CommandExecutor::~CommandExecutor() {
  stop();
}

void CommandExecutor::execute(const MasterCommand& command) {
  json result;
  std::string error;
  try {
    result = resultOf(command);
  } catch (const std::exception& failure) {
    error = failure.what();
    if (error.empty()) error = "failed";
  }
  hierarchy_.reportCommandResult(command.id, error.empty(), result, error);
}

json CommandExecutor::resultOf(const MasterCommand& command) const {
  if (command.type == "ping") {
    hierarchy_.requireOperation(ControllerOperation::kExecuteCommand);
    return {{"pong", true}, {"controller_id", hierarchy_.id()}};
  }
  for (const CommandKind& kind : kCommandKinds) {
    if (kind.type != command.type) continue;
    hierarchy_.requireOperation(kind.operation);
    const CommandActions::Action& action = actions_.*kind.action;
    if (!action) throw std::runtime_error(command.type + " is not available on this controller");
    return action(command.payload);
  }
  throw std::runtime_error("Unknown command type: " + command.type);
}

}  // namespace tavrel::controller
