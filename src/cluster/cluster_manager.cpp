#include "cluster/cluster_manager.h"

#include <algorithm>
#include <exception>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "cluster/cluster_event.h"
#include "cluster/node_reader.h"
#include "platform/host.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/side_by_side.h"

namespace tavrel::cluster {

using nlohmann::json;
using platform::MutexLock;

namespace {

constexpr const char* kNodeVersion = "4.1.0";
constexpr std::size_t kMaxHealthAnswerBytes = std::size_t{1} << 20;

NodeInfo selfRecord(const ClusterConfig& config, const std::string& id, platform::SteadyTime now) {
  NodeInfo self;
  self.id = id;
  self.hostname = platform::getHostname();
  self.address = config.advertise_address;
  self.api_port = config.api_port != 0 ? config.api_port : config.discovery_port;
  self.type = config.node_type;
  self.status = NodeStatus::kStarting;
  self.version = kNodeVersion;
  self.last_heartbeat = now;
  return self;
}

bool calledEarlier(const NodePtr& a, const NodePtr& b) {
  const auto rank = [](const NodeInfo& node) {
    return std::pair(node.consecutive_failures, node.consecutive_successes == 0);
  };
  return rank(*a) < rank(*b);
}

/// The text of an object that is not empty, with the member "nodes" besides.
std::string withNodes(const json& object, const std::string& nodes) {
  std::string text = platform::dumpJson(object);
  text.pop_back();
  return text + ",\"nodes\":" + nodes + '}';
}

template <class Callbacks, class What>
void callAll(const Callbacks& callbacks, const What& what) {
  for (const auto& callback : callbacks) {
    try {
      callback(what);
    } catch (const std::exception& error) {
      platform::printError(std::string("[Cluster] Callback failed: ") + error.what());
    }
  }
}

}  // namespace

ClusterManager::ClusterManager(const ClusterConfig& config, NodeRegistry& registry,
                               ClusterEnvironment env)
    : registry_(registry),
      env_(std::move(env)),
      self_id_(config.node_id.empty() ? env_.make_id() : config.node_id),
      last_health_pass_(env_.now()),
      config_(config),
      self_(selfRecord(config, self_id_, env_.now())),
      health_("cluster-health", kHealthTick, kHealthTick,
              [this](const std::stop_token&) {
                const std::chrono::milliseconds interval(getConfig().health_check_interval_ms);
                if (env_.now() - last_health_pass_ < interval) return;
                healthPass();
                last_health_pass_ = env_.now();
              }),
      announcer_("cluster-announce", kAnnouncePeriod, kAnnouncePeriod,
                 [this](const std::stop_token&) { announcePresence(); }) {
  registry_.setOwnNode(getSelfNode());
}

ClusterManager::~ClusterManager() {
  stop();
}

bool ClusterManager::start() {
  if (running_) return false;
  const ClusterConfig config = getConfig();
  NodeInfo self = getSelfNode();
  env_.print("[Cluster] Starting cluster manager...");
  env_.print("[Cluster] Node ID: " + self.id);
  env_.print("[Cluster] Hostname: " + self.hostname);
  env_.print("[Cluster] Address: " + self.address);
  // A malformed seed ends the start before anything of it has begun.
  for (const std::string& seed : config.seed_nodes) parseEndpoint(seed, config.discovery_port);
  running_ = true;
  stopping_ = false;
  self.status = NodeStatus::kHealthy;
  {
    const MutexLock lock(mu_);
    self_.status = NodeStatus::kHealthy;
    seeds_.clear();
    for (const std::string& seed : config.seed_nodes) seeds_.push_back({seed});
  }
  registry_.registerNode(self);
  last_health_pass_ = env_.now();
  if (env_.threads) {
    health_.start();
    announcer_.start();
  }
  for (const std::string& seed : config.seed_nodes) {
    env_.print("[Cluster] Joining seed node: " + seed);
    joinCluster(seed);
  }
  publishEvent(ClusterEventType::NodeJoined, self.toJson());
  env_.print("[Cluster] Cluster manager started");
  return true;
}

void ClusterManager::stop() {
  if (!running_) return;
  env_.print("[Cluster] Stopping cluster manager...");
  stopping_ = true;
  health_.stop();
  announcer_.stop();
  running_ = false;
  env_.print("[Cluster] Cluster manager stopped");
}

void ClusterManager::setApiPort(std::int32_t port) {
  NodeInfo self;
  {
    const MutexLock lock(mu_);
    if (config_.discovery_port == 0) config_.discovery_port = port;
    config_.api_port = port;
    self_.api_port = port;
    for (Seed& seed : seeds_) seed.answered = false;
    self = self_;
  }
  registry_.setOwnNode(self);
  registry_.update(self_id_, [port](NodeInfo& node) { node.api_port = port; });
}

bool ClusterManager::joinCluster(const std::string& seed) {
  return join(seed, Join::kFirst);
}

bool ClusterManager::join(const std::string& seed, Join kind) {
  ClusterCall call;
  call.to = parseEndpoint(seed, getConfig().discovery_port);
  call.path = "/cluster/join";
  call.body = platform::dumpJson(getSelfNode().toJson());
  call.connect = kJoinConnectTimeout;
  call.total = kJoinTimeout;
  const ClusterAnswer answer = env_.transport.send(call);
  if (!answer.ok()) {
    env_.print(
        "[Cluster] Failed to join " + seed + ": " +
        (answer.error.empty() ? "HTTP status " + std::to_string(answer.status) : answer.error));
    return false;
  }
  std::string seed_id;
  try {
    seed_id = readJoinAnswer(answer.body, kind);
  } catch (const std::exception& error) {
    env_.print(std::string("[Cluster] Failed to parse join response: ") + error.what());
    return false;
  }
  const MutexLock lock(mu_);
  for (Seed& known : seeds_) {
    if (known.text == seed) {
      known.answered = true;
      known.node_id = seed_id;
    }
  }
  return true;
}

std::string ClusterManager::readJoinAnswer(const std::string& body, Join kind) {
  const json answer = platform::parseForeignJson(body);
  if (!answer.is_object()) return "";
  const json* self = platform::jsonMember(answer, "self");
  const std::string seed_id = self == nullptr || !self->is_object() ? "" : discover(*self, kind);
  const json* nodes = platform::jsonMember(answer, "nodes");
  if (nodes == nullptr || !nodes->is_array()) return seed_id;
  for (const json& object : *nodes) {
    const json* id = object.is_object() ? platform::jsonMember(object, "id") : nullptr;
    if (id == nullptr || *id != seed_id) discover(object, kind);
  }
  return seed_id;
}

std::string ClusterManager::discover(const json& object, Join kind) {
  const auto node = joinedNode(object, env_.now());
  if (!node) return "";
  const bool known = registry_.getNode(node->id) != nullptr;
  if (registry_.isOwnNode(*node) || (known && kind == Join::kAgain)) return node->id;
  registry_.registerNode(*node);
  env_.print("[Cluster] Discovered node: " + node->hostname);
  return node->id;
}

std::vector<NodePtr> ClusterManager::otherNodes() const {
  std::vector<NodePtr> nodes = registry_.getAllNodes();
  std::erase_if(nodes, [this](const NodePtr& node) { return node->id == self_id_; });
  return nodes;
}

/// The other nodes, in the order in which they are called: those that are known to answer first,
/// those that failed last. One call is made per endpoint, however many say that they are there.
std::vector<std::vector<NodePtr>> ClusterManager::otherNodesByEndpoint() const {
  std::vector<NodePtr> nodes = otherNodes();
  std::stable_sort(nodes.begin(), nodes.end(), calledEarlier);
  std::vector<std::vector<NodePtr>> groups;
  std::map<std::pair<std::string_view, std::int32_t>, std::size_t> places;
  for (NodePtr& node : nodes) {
    const auto [place, is_new] = places.try_emplace({node->address, node->port}, groups.size());
    if (is_new) groups.emplace_back();
    groups[place->second].push_back(std::move(node));
  }
  return groups;
}

std::vector<std::string> ClusterManager::seedsToJoin() {
  std::vector<Seed> seeds;
  std::size_t pass = 0;
  {
    const MutexLock lock(mu_);
    seeds = seeds_;
    pass = ++announcements_;
  }
  if (!seeds.empty() && pass % kPassesPerRefresh == 0) {
    seeds[pass / kPassesPerRefresh % seeds.size()].answered = false;
  }
  const bool alone = otherNodes().empty();
  std::vector<std::string> to_join;
  for (const Seed& seed : seeds) {
    const bool lost = seed.node_id.empty()
                          ? alone
                          : seed.node_id != self_id_ && registry_.getNode(seed.node_id) == nullptr;
    if (!seed.answered || lost) to_join.push_back(seed.text);
  }
  return to_join;
}

void ClusterManager::announcePresence() {
  const std::string body = platform::dumpJson(getSelfNode().toJson());
  std::vector<std::function<void()>> jobs;
  for (const std::string& seed : seedsToJoin()) {
    jobs.emplace_back([this, seed] {
      if (!stopping_) join(seed, Join::kAgain);
    });
  }
  for (const std::vector<NodePtr>& nodes : otherNodesByEndpoint()) {
    jobs.emplace_back([this, to = nodes.front(), &body] {
      if (stopping_) return;
      ClusterCall call;
      call.to = {to->address, to->port};
      call.path = "/cluster/announce";
      call.body = body;
      call.connect = call.total = kAnnounceTimeout;
      call.max_answer_bytes = kMaxHealthAnswerBytes;
      env_.transport.send(call);
    });
  }
  platform::runSideBySide(jobs, env_.at_once, kAnnouncePassLimit);
}

void ClusterManager::probe(const std::vector<NodePtr>& nodes) {
  const ClusterConfig config = getConfig();
  ClusterCall call;
  call.to = {nodes.front()->address, nodes.front()->port};
  call.path = "/api/v1/health";
  call.with_key = false;
  call.total = std::chrono::milliseconds(config.health_check_timeout_ms);
  call.connect = call.total / 2;
  call.max_answer_bytes = kMaxHealthAnswerBytes;
  ProbeOutcome outcome;
  outcome.began = env_.now();
  ClusterAnswer answer = env_.transport.send(call);
  outcome.ended = env_.now();
  outcome.answered = answer.ok();
  outcome.body = std::move(answer.body);

  for (const NodePtr& node : nodes) {
    bool changed = false;
    NodeInfo now;
    const bool known = registry_.update(node->id, [&](NodeInfo& current) {
      changed = applyProbe(current, *node, outcome,
                           {config.unhealthy_threshold, config.healthy_threshold});
      if (changed) now = current;
    });
    if (known && changed) publishEvent(ClusterEventType::NodeStatusChanged, now.toJson());
  }
}

void ClusterManager::checkAllNodesHealth() {
  std::vector<std::function<void()>> jobs;
  for (const std::vector<NodePtr>& nodes : otherNodesByEndpoint()) {
    jobs.emplace_back([this, nodes] {
      if (!stopping_) probe(nodes);
    });
  }
  platform::runSideBySide(jobs, env_.at_once, kProbePassLimit);
}

void ClusterManager::checkNodeHealth(const std::string& id) {
  if (const NodePtr node = registry_.getNode(id)) probe({node});
}

void ClusterManager::healthPass() {
  const std::uint64_t version = registry_.version();
  checkAllNodesHealth();
  if (stopping_) return;
  const ClusterConfig config = getConfig();
  const std::chrono::milliseconds interval(config.health_check_interval_ms);
  registry_.removeStaleNodes(2 * interval * config.unhealthy_threshold, env_.now(), version);
}

std::string ClusterManager::handleJoin(const json& body) {
  if (auto node = joinedNode(body, env_.now()); node && !registry_.isOwnNode(*node)) {
    registry_.registerNode(*std::move(node));
  }
  platform::JsonArrayText nodes;
  for (const NodePtr& node : registry_.getAllNodes()) nodes.add(node->toJson());
  return withNodes({{"success", true}, {"self", getSelfNode().toJson()}}, nodes.take());
}

void ClusterManager::handleAnnounce(const json& body) {
  const auto sent = announcedNode(body, nullptr, env_.now());
  if (!sent || registry_.isOwnNode(*sent)) return;
  registry_.registerNode(
      sent->id, [&](const NodeInfo* known) { return announcedNode(body, known, env_.now()); });
}

NodeInfo ClusterManager::getSelfNode() const {
  const MutexLock lock(mu_);
  return self_;
}

void ClusterManager::updateSelfMetrics(double cpu, double memory, std::int32_t active_jobs) {
  {
    const MutexLock lock(mu_);
    self_.cpu_usage = cpu;
    self_.memory_usage = memory;
    self_.active_jobs = active_jobs;
  }
  registry_.updateNodeMetrics(self_id_, cpu, memory, active_jobs, env_.now());
}

json ClusterManager::getClusterStats() const {
  return json::parse(clusterStatsText());
}

std::string ClusterManager::clusterStatsText() const {
  platform::JsonArrayText nodes;
  json by_type = json::object();
  json by_status = json::object();
  std::size_t available = 0;
  const auto count = [](json& counts, const std::string& name) {
    counts[name] = counts.value(name, 0) + 1;
  };
  const std::vector<NodePtr> all = registry_.getAllNodes();
  for (const NodePtr& node : all) {
    nodes.add(node->toJson());
    count(by_type, nodeTypeToString(node->type));
    count(by_status, nodeStatusToString(node->status));
    available += isAvailable(node->status) ? 1U : 0U;
  }
  return withNodes({{"cluster_id", getConfig().cluster_id},
                    {"self_node_id", self_id_},
                    {"total_nodes", all.size()},
                    {"healthy_nodes", available},
                    {"nodes_by_type", std::move(by_type)},
                    {"nodes_by_status", std::move(by_status)}},
                   nodes.take());
}

ClusterConfig ClusterManager::getConfig() const {
  const MutexLock lock(mu_);
  return config_;
}

void ClusterManager::setConfig(const ClusterConfig& config) {
  const MutexLock lock(mu_);
  config_ = config;
}

void ClusterManager::publishEvent(ClusterEventType type, const json& data) {
  const ClusterEvent event{env_.make_id(), type, self_id_, env_.now(), data};
  callAll(events_, event);
  if (type != ClusterEventType::NodeJoined && type != ClusterEventType::NodeLeft) return;
  NodeInfo node;
  if (data.is_object()) platform::readField(data, "id", node.id);
  callAll(type == ClusterEventType::NodeJoined ? joined_ : left_, node);
}

}  // namespace tavrel::cluster
