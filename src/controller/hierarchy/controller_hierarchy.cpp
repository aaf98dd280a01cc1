#include "controller/hierarchy/controller_hierarchy.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/side_by_side.h"

// What both roles share, and the master's side.
namespace tavrel::controller {

using nlohmann::json;
using platform::MutexLock;

namespace {

/// No probe is begun later than this after its pass began.
constexpr std::chrono::seconds kProbePassLimit{25};
constexpr double kOldShare = 0.8;  ///< of the smoothed response time

template <class Record>
std::vector<Record> valuesOf(const std::map<std::string, Record>& map) {
  std::vector<Record> records;
  records.reserve(map.size());
  for (const auto& [id, record] : map) records.push_back(record);
  return records;
}

}  // namespace

ControllerHierarchy::ControllerHierarchy(HierarchyConfig config, HierarchyEnvironment env)
    : config_(std::move(config)),
      env_(std::move(env)),
      port_(config_.port),
      task_("hierarchy", std::chrono::milliseconds(config_.heartbeat_interval_ms),
            std::chrono::milliseconds(config_.heartbeat_interval_ms),
            [this](const std::stop_token&) {
              role() == ControllerRole::kMaster ? checkSubControllerHealth() : commandPass();
            }) {
  master_.address = config_.master_address;
  master_.port = config_.master_port;
}

ControllerHierarchy::~ControllerHierarchy() {
  stop();
}

bool ControllerHierarchy::initialize() {
  if (role() == ControllerRole::kSub && config_.master_address.empty()) return false;
  {
    const MutexLock lock(subs_mu_);
    for (const SubControllerInfo& sub : config_.initial_sub_controllers) subs_[sub.id] = sub;
  }
  {
    const MutexLock lock(edges_mu_);
    for (const EdgeNodeInfo& edge : config_.initial_edge_nodes) edges_[edge.id] = edge;
  }
  env_.print("[Hierarchy] Initialized as " + controllerRoleToString(role()) + " controller");
  return true;
}

bool ControllerHierarchy::start() {
  if (running_) return true;
  if (role() == ControllerRole::kSub && !registerWithMaster()) {
    env_.print("[Hierarchy] Failed to register with master controller");
    return false;
  }
  running_ = true;
  if (env_.threads) task_.start();
  env_.print(role() == ControllerRole::kMaster
                 ? "[Hierarchy] Master controller started"
                 : "[Hierarchy] Sub-controller started, master: " + config_.master_address + ":" +
                       std::to_string(config_.master_port));
  return true;
}

void ControllerHierarchy::stop() {
  if (!running_.exchange(false)) return;
  task_.stop();
  env_.print("[Hierarchy] Controller hierarchy stopped");
}

bool ControllerHierarchy::isOperationAllowed(ControllerOperation op) const {
  return controller::isOperationAllowed(role(), op);
}

void ControllerHierarchy::requireOperation(ControllerOperation op) const {
  if (!isOperationAllowed(op)) throw PermissionDeniedException(op, role());
}

json ControllerHierarchy::getStatus() const {
  const auto subs = getSubControllers();
  const auto edges = getEdgeNodes();
  json status{{"role", controllerRoleToString(role())},
              {"running", running_.load()},
              {"sub_controller_count", subs.size()},
              {"edge_node_count", edges.size()},
              {"sub_controllers", platform::jsonArray(subs)},
              {"edge_nodes", platform::jsonArray(edges)},
              {"pending_commands", inbox_.size() + book_.waiting()}};
  if (role() == ControllerRole::kSub) status["master"] = masterRef().toJson();
  return status;
}

std::string ControllerHierarchy::newId(std::string_view prefix) {
  std::int64_t last = last_id_.load();
  std::int64_t next = 0;
  do {
    next = std::max(last + 1, platform::toEpochMilliseconds(env_.wall()));
  } while (!last_id_.compare_exchange_weak(last, next));
  return std::string(prefix) + std::to_string(next);
}

std::string ControllerHierarchy::httpGet(const std::string& url) {
  cluster::ControllerCall request;
  request.url = url;
  return call(std::move(request));
}

std::string ControllerHierarchy::httpPost(const std::string& url, std::string body) {
  cluster::ControllerCall request;
  request.url = url;
  request.body = std::move(body);
  return call(std::move(request));
}

std::string ControllerHierarchy::call(cluster::ControllerCall request) {
  request.timeouts = kCallTimeouts;
  if (role() == ControllerRole::kSub) {
    request.headers.emplace_back("X-Sub-Controller-Id", config_.controller_id);
  }
  net::HttpResult result = env_.transport.send(request);
  if (!result.transport_error.empty()) {
    throw std::runtime_error("CURL error: " + result.transport_error);
  }
  return std::move(result.body);
}

bool ControllerHierarchy::registerSubController(SubControllerInfo info) {
  requireOperation(ControllerOperation::kAddSubController);
  if (!info.hasPlace()) return false;
  info.last_heartbeat = env_.now();
  const std::string line = "[Hierarchy] Registered sub-controller: " + info.id + " (" +
                           info.address + ":" + std::to_string(info.port) +
                           ") region: " + info.region;
  book_.dropDelivered(info.id);
  {
    const MutexLock lock(subs_mu_);
    if (subs_.size() >= kMostSubs && !subs_.contains(info.id)) return false;
    subs_[info.id] = std::move(info);
  }
  env_.print(line);
  return true;
}

bool ControllerHierarchy::removeSubController(const std::string& id) {
  requireOperation(ControllerOperation::kRemoveSubController);
  {
    const MutexLock lock(subs_mu_);
    if (subs_.erase(id) == 0) return false;
  }
  book_.forget(id);
  env_.print("[Hierarchy] Removed sub-controller: " + id);
  return true;
}

bool ControllerHierarchy::subControllerHeartbeat(const std::string& id, const json& body) {
  SubControllerInfo described;
  readSubController(body, described);  // raises here, while nothing is touched
  {
    const MutexLock lock(subs_mu_);
    const auto place = subs_.find(id);
    if (place != subs_.end()) {
      SubControllerInfo& sub = place->second;
      const SubControllerInfo before = sub;
      readSubController(body, sub);
      sub.id = id;
      sub.status = before.status;  // the probes judge it
      if (described.address.empty()) sub.address = before.address;
      if (sub.port <= 0) sub.port = before.port;
      if (!sub.hasPlace()) {
        sub.address = before.address;
        sub.port = before.port;
      }
      sub.last_heartbeat = env_.now();
      return true;
    }
  }
  if (described.address.empty()) return false;
  described.id = id;
  return registerSubController(std::move(described));
}

ControllerHierarchy::SendResult ControllerHierarchy::sendCommand(const std::string& sub_id,
                                                                 MasterCommand command) {
  requireOperation(ControllerOperation::kModifyTopology);
  SubControllerInfo sub;
  {
    const MutexLock lock(subs_mu_);
    const auto place = subs_.find(sub_id);
    if (place != subs_.end()) sub = place->second;
  }
  if (sub.id.empty()) {
    env_.print("[Hierarchy] Sub-controller not found: " + sub_id);
    return SendResult::kUnknownSub;
  }
  command.issued_at = env_.wall();
  if (!book_.issue(sub_id, command)) {
    env_.print("[Hierarchy] Command for " + sub_id + " refused: too large, or too many wait");
    return SendResult::kRefused;
  }
  if (!pushCommand(sub, command)) return SendResult::kQueued;
  book_.markDelivered(sub_id, command.id);
  return SendResult::kDelivered;
}

bool ControllerHierarchy::pushCommand(const SubControllerInfo& sub, const MasterCommand& command) {
  try {
    const json reply = platform::parseForeignJson(
        httpPost(sub.url("/api/v1/hierarchy/command"), platform::dumpJson(command.toJson())));
    if (reply.value("success", false)) {
      env_.print("[Hierarchy] Command sent to " + sub.id);
      return true;
    }
    env_.print("[Hierarchy] Command rejected by " + sub.id + ": " +
               reply.value("error", "unknown"));
  } catch (const std::exception& error) {
    env_.print("[Hierarchy] Failed to send command to " + sub.id + ": " + error.what());
  }
  return false;
}

std::vector<MasterCommand> ControllerHierarchy::takeCommandsFor(const std::string& sub_id) {
  return book_.take(sub_id);
}

void ControllerHierarchy::checkSubControllerHealth() {
  std::vector<SubControllerInfo> subs = getSubControllers();
  // Those that answered last time first: silent ones cannot keep the pass from them.
  std::stable_sort(subs.begin(), subs.end(), [](const auto& a, const auto& b) {
    return a.consecutive_failures < b.consecutive_failures;
  });
  std::vector<std::function<void()>> jobs;
  jobs.reserve(subs.size());
  for (const SubControllerInfo& sub : subs) jobs.emplace_back([this, &sub] { probe(sub); });
  platform::runSideBySide(jobs, env_.at_once, kProbePassLimit);
}

void ControllerHierarchy::probe(const SubControllerInfo& sub) {
  const platform::SteadyTime begun = env_.now();
  bool answered = true;
  try {
    httpGet(sub.url("/api/v1/health"));
  } catch (const std::exception&) {
    answered = false;
  }
  const std::chrono::duration<double, std::milli> elapsed = env_.now() - begun;
  const char* became = nullptr;
  {
    const MutexLock lock(subs_mu_);
    const auto place = subs_.find(sub.id);
    if (place == subs_.end()) return;
    SubControllerInfo& known = place->second;
    const SubControllerStatus before = known.status;
    if (answered) {
      known.avg_response_time_ms =
          kOldShare * known.avg_response_time_ms + (1 - kOldShare) * elapsed.count();
      known.consecutive_failures = 0;
      known.last_heartbeat = env_.now();
      known.status = SubControllerStatus::kActive;
      if (before != known.status) became = " is now active";
    } else if (++known.consecutive_failures >= config_.max_failures) {
      known.status = SubControllerStatus::kOffline;
      if (before != known.status) became = " is offline";
    } else if (before == SubControllerStatus::kActive) {
      known.status = SubControllerStatus::kDegraded;
      became = " is degraded";
    }
  }
  if (became != nullptr) env_.print("[Hierarchy] Sub-controller " + sub.id + became);
}

std::vector<SubControllerInfo> ControllerHierarchy::getSubControllers() const {
  const MutexLock lock(subs_mu_);
  return valuesOf(subs_);
}

bool ControllerHierarchy::deployEdge(EdgeNodeInfo info) {
  requireOperation(ControllerOperation::kDeployEdge);
  env_.print("[Hierarchy] Registering edge node: " + info.id + " (" + info.address + ")");
  const std::size_t bytes = platform::dumpJson(info.toJson()).size() + info.tls_cert_path.size() +
                            info.tls_key_path.size();
  if (bytes > kMaxEdgeBytes) return false;
  {
    const MutexLock lock(edges_mu_);
    if (edges_.size() >= kMostEdges && !edges_.contains(info.id)) return false;
    edges_[info.id] = std::move(info);
  }
  env_.print("[Hierarchy] Edge node registered successfully");
  return true;
}

bool ControllerHierarchy::removeEdge(const std::string& id) {
  requireOperation(ControllerOperation::kDeployEdge);
  {
    const MutexLock lock(edges_mu_);
    if (edges_.erase(id) == 0) return false;
  }
  env_.print("[Hierarchy] Removed edge node: " + id);
  return true;
}

std::optional<EdgeNodeInfo> ControllerHierarchy::edgeNode(const std::string& id) const {
  const MutexLock lock(edges_mu_);
  const auto place = edges_.find(id);
  return place == edges_.end() ? std::nullopt : std::optional(place->second);
}

std::vector<EdgeNodeInfo> ControllerHierarchy::getEdgeNodes() const {
  const MutexLock lock(edges_mu_);
  return valuesOf(edges_);
}

}  // namespace tavrel::controller
