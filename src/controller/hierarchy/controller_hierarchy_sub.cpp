#include <exception>
#include <utility>

#include "cluster/cluster_transport.h"
#include "controller/hierarchy/controller_hierarchy.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"

// A sub's side: what it tells its master and what it gets from it.
namespace tavrel::controller {

using nlohmann::json;
using platform::MutexLock;

namespace {

/// The version of the protocol between master and subs.
constexpr const char* kHierarchyVersion = "3.0.8";
/// Of the commands that wait, in one pass.
constexpr int kMostPortions = 32;
constexpr std::size_t kMaxUnreported = 1000;
constexpr std::size_t kMaxUnreportedBytes = std::size_t{64} << 20;
constexpr std::size_t kMaxReportBytes = std::size_t{32} << 20;

/// Why the master said no.
std::string refusal(const json& reply) {
  const json* error = platform::jsonMember(reply, "error");
  return error != nullptr && error->is_string() ? error->get<std::string>() : "unknown";
}

bool succeeded(const json& reply) {
  const json* success = platform::jsonMember(reply, "success");
  return success != nullptr && success->is_boolean() && success->get<bool>();
}

}  // namespace

std::string ControllerHierarchy::masterUrl(const std::string& path) const {
  return cluster::endpointUrl({config_.master_address, config_.master_port}, path);
}

json ControllerHierarchy::selfDescription() const {
  const LocalCounts counts = env_.counts();
  return {{"version", kHierarchyVersion},   {"type", "sub_controller"},
          {"id", config_.controller_id},    {"name", config_.name},
          {"address", config_.address},     {"port", port_.load()},
          {"region", config_.region},       {"tier_id", config_.tier_id},
          {"worker_count", counts.workers}, {"router_count", counts.routers}};
}

void ControllerHierarchy::setPort(std::int32_t port) {
  port_ = port;
  if (role() == ControllerRole::kSub && config_.port == 0) sendHeartbeatToMaster();
}

MasterControllerRef ControllerHierarchy::masterRef() const {
  const MutexLock lock(master_mu_);
  return master_;
}

void ControllerHierarchy::setConnected(bool connected) {
  const MutexLock lock(master_mu_);
  master_.connected = connected;
}

bool ControllerHierarchy::registerWithMaster() {
  try {
    const json reply = platform::parseForeignJson(
        httpPost(masterUrl("/api/v1/hierarchy/register"), platform::dumpJson(selfDescription())));
    if (!succeeded(reply)) {
      env_.print("[Hierarchy] Master rejected registration: " + refusal(reply));
      return false;
    }
    std::string master_id = reply.value("master_id", "");
    {
      const MutexLock lock(master_mu_);
      master_.id = std::move(master_id);
      master_.connected = true;
    }
    env_.print("[Hierarchy] Registered with master controller");
    return true;
  } catch (const std::exception& error) {
    env_.print(std::string("[Hierarchy] Failed to register with master: ") + error.what());
    return false;
  }
}

void ControllerHierarchy::sendHeartbeatToMaster() {
  json body = selfDescription();
  body["timestamp"] = platform::toEpochSeconds(env_.wall());
  bool heard = false;
  try {
    heard = succeeded(platform::parseForeignJson(
        httpPost(masterUrl("/api/v1/hierarchy/heartbeat"), platform::dumpJson(body))));
  } catch (const std::exception&) {
    // The next heartbeat tells again; the status shows that the master is away.
  }
  setConnected(heard);
}

void ControllerHierarchy::pollCommandsFromMaster() {
  for (int fetched = 0; fetched < kMostPortions && fetchCommands(); ++fetched) continue;
}

bool ControllerHierarchy::fetchCommands() {
  json reply;
  try {
    reply = platform::parseForeignJson(httpGet(masterUrl("/api/v1/hierarchy/commands")));
  } catch (const std::exception&) {
    return false;  // asked again with the next pass
  }
  if (!reply.is_object() || !reply.contains("commands") || !reply["commands"].is_array()) {
    return false;
  }
  for (const json& sent : reply["commands"]) {
    MasterCommand command;
    try {
      platform::readField(sent, "id", command.id);
      platform::readField(sent, "type", command.type);
      platform::readField(sent, "payload", command.payload);
    } catch (const json::exception& error) {
      env_.print(std::string("[Hierarchy] Unreadable command from master: ") + error.what());
      continue;  // the others have been handed over as well
    }
    if (!receiveCommand(command)) {
      reportCommandResult(command.id, false, nullptr, "Too many commands wait, or too large");
    }
  }
  return !reply["commands"].empty();
}

bool ControllerHierarchy::receiveCommand(const MasterCommand& command) {
  const CommandInbox::Receipt receipt = inbox_.add(command);
  if (receipt != CommandInbox::Receipt::kNew) return receipt == CommandInbox::Receipt::kKnown;
  env_.print("[Hierarchy] Received command from master: " + command.type);
  for (const CommandCallback& callback : callbacks_) {
    try {
      callback(command);
    } catch (const std::exception& error) {
      platform::printError(std::string("[Hierarchy] Callback failed: ") + error.what());
    }
  }
  return true;
}

void ControllerHierarchy::reportCommandResult(const std::string& command_id, bool success,
                                              const json& result, const std::string& error) {
  const auto worded = [&](bool good, const json& what, const std::string& why) {
    return platform::dumpJson(
        {{"command_id", command_id}, {"success", good}, {"result", what}, {"error", why}});
  };
  std::string report = worded(success, result, error);
  if (report.size() > kMaxReportBytes ||
      !platform::jsonWithinLimits(report, platform::kMaxForeignJsonDepth)) {
    report = worded(false, nullptr, "The result is too large to be reported");
  }
  if (sendReport(report)) return;
  const MutexLock lock(master_mu_);
  std::size_t bytes = report.size();
  for (const std::string& kept : unreported_) bytes += kept.size();
  if (unreported_.size() < kMaxUnreported && bytes <= kMaxUnreportedBytes) {
    unreported_.push_back(std::move(report));
  }
}

bool ControllerHierarchy::sendReport(const std::string& report) {
  std::string answer;
  try {
    answer = httpPost(masterUrl("/api/v1/hierarchy/command/result"), report);
  } catch (const std::exception& error) {
    env_.print(std::string("[Hierarchy] Failed to report command result: ") + error.what());
    return false;
  }
  try {
    const json reply = platform::parseForeignJson(answer);
    if (!succeeded(reply)) {
      env_.print("[Hierarchy] Failed to report command result: " + refusal(reply));
    }
  } catch (const std::exception& error) {
    env_.print(std::string("[Hierarchy] Failed to report command result: ") + error.what());
  }
  return true;  // the master has it and would say the same again
}

void ControllerHierarchy::sendUnreported() {
  while (true) {
    std::string report;
    {
      const MutexLock lock(master_mu_);
      if (unreported_.empty()) return;
      report = std::move(unreported_.front());
      unreported_.pop_front();
    }
    if (sendReport(report)) continue;
    const MutexLock lock(master_mu_);
    unreported_.push_front(std::move(report));
    return;
  }
}

void ControllerHierarchy::reportStatusToMaster(const json& status) {
  try {
    httpPost(masterUrl("/api/v1/hierarchy/status"), platform::dumpJson(status));
  } catch (const std::exception& error) {
    env_.print(std::string("[Hierarchy] Failed to report status to master: ") + error.what());
  }
}

void ControllerHierarchy::commandPass() {
  sendHeartbeatToMaster();
  pollCommandsFromMaster();
  sendUnreported();
}

}  // namespace tavrel::controller
