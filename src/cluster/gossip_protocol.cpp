#include "cluster/gossip_protocol.h"

#include <exception>
#include <nlohmann/json.hpp>
#include <utility>

#include "cluster/gossip_message.h"
#include "cluster/node_reader.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/side_by_side.h"

namespace tavrel::cluster {

using nlohmann::json;

namespace {

constexpr std::size_t kMaxPeerIdBytes = 256;

void callAll(const std::vector<GossipProtocol::PeerCallback>& callbacks,
             const PeerController& peer) {
  for (const auto& callback : callbacks) {
    try {
      callback(peer);
    } catch (const std::exception& error) {
      platform::printError(std::string("[Gossip] Callback failed: ") + error.what());
    }
  }
}

/// The array under `key` of a payload, or null.
const json::array_t* arrayIn(const json& payload, const char* key) {
  const json* value = payload.is_object() ? platform::jsonMember(payload, key) : nullptr;
  return value == nullptr ? nullptr : value->get_ptr<const json::array_t*>();
}

std::string textOf(const json& value) {
  const auto* text = value.get_ptr<const json::string_t*>();
  return text == nullptr ? "" : *text;
}

/// Nothing for what cannot be a node: it must not keep its neighbours in a list from being read.
std::optional<NodeInfo> readNode(const json& value, NodeDetail detail) {
  try {
    return value.is_object() ? gossipedNode(value, detail) : std::nullopt;
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

/// A record that was told, with what this node itself knows of the member's life.
NodeInfo withOwnFindings(NodeInfo told, const NodeInfo* known) {
  if (known == nullptr) return told;
  told.last_heartbeat = known->last_heartbeat;
  told.consecutive_failures = known->consecutive_failures;
  told.consecutive_successes = known->consecutive_successes;
  told.latency_ms = known->latency_ms;
  told.max_concurrent_jobs = known->max_concurrent_jobs;
  return told;
}

}  // namespace

GossipProtocol::GossipProtocol(Self self, NodeRegistry& registry, ClusterEnvironment env,
                               std::uint32_t seed)
    : self_(std::move(self)),
      port_(self_.port),
      registry_(registry),
      env_(std::move(env)),
      peers_(config_, seed),
      clock_(self_.id),
      gossip_("gossip", config_.gossip_interval_ms, config_.gossip_interval_ms,
              [this](const std::stop_token&) { gossipPass(); }),
      sync_("gossip-sync", config_.sync_interval_ms, config_.sync_interval_ms,
            [this](const std::stop_token&) { triggerSync(); }) {}

GossipProtocol::~GossipProtocol() {
  stop();
}

bool GossipProtocol::start() {
  stopping_ = false;
  running_ = true;
  if (env_.threads) {
    gossip_.start();
    sync_.start();
  }
  env_.print("[Gossip] Started gossip protocol for " + self_.id);
  return true;
}

void GossipProtocol::stop() {
  if (!running_) return;
  running_ = false;
  stopping_ = true;
  broadcast(createMessage(Type::LEAVE, nullptr));
  gossip_.stop();
  sync_.stop();
  env_.print("[Gossip] Stopped gossip protocol");
}

GossipMessage GossipProtocol::createMessage(Type type, json payload) {
  GossipMessage message;
  message.id = env_.make_id();
  message.type = type;
  message.sender_id = self_.id;
  message.sender_address = self_.address;
  message.sender_port = port_;
  message.clock = clock_.tick();
  message.payload = std::move(payload);
  message.timestamp = env_.now();
  return message;
}

ClusterAnswer GossipProtocol::post(const Endpoint& to, const std::string& text) {
  ClusterCall call;
  call.to = to;
  call.path = "/gossip";
  call.body = text;
  call.total = config_.message_timeout_ms;
  call.connect = call.total / 2;
  ClusterAnswer answer = env_.transport.send(call);
  if (answer.error.empty()) ++messages_sent_;
  return answer;
}

bool GossipProtocol::sendMessage(const Endpoint& to, const std::string& text) {
  return post(to, text).error.empty();
}

GossipMessage GossipProtocol::sendAndReceive(const Endpoint& to, const GossipMessage& message) {
  const ClusterAnswer answer = post(to, message.toText());
  if (!answer.ok()) return {};
  try {
    return GossipMessage::fromJson(platform::parseForeignJson(answer.body));
  } catch (const std::exception&) {
    return {};  // not gossip: as if nobody had answered
  }
}

void GossipProtocol::runJobs(const Jobs& jobs) const {
  platform::runSideBySide(jobs, env_.at_once);
}

void GossipProtocol::broadcast(const GossipMessage& message) {
  const std::string text = message.toText();
  Jobs jobs;
  for (const PeerController& peer : peers_.alive(env_.now())) {
    jobs.emplace_back([this, peer, &text] { sendMessage(peer.endpoint(), text); });
  }
  runJobs(jobs);
}

void GossipProtocol::broadcastNodeUpdate(const NodeInfo& node) {
  broadcast(createMessage(Type::NODE_UPDATE, node.toJson()));
}

void GossipProtocol::broadcastNodeRemoval(const std::string& node_id) {
  broadcast(createMessage(Type::NODE_REMOVE, {{"node_id", node_id}}));
}

void GossipProtocol::setPort(std::int32_t port) {
  port_ = port;
  Jobs jobs;
  for (const PeerController& peer : peers_.all()) {
    jobs.emplace_back([this, endpoint = peer.endpoint()] {
      if (!stopping_) introduceTo(endpoint);
    });
  }
  runJobs(jobs);
}

void GossipProtocol::addPeer(const std::string& host, std::int32_t port) {
  addPeers({{host, port}});
}

void GossipProtocol::addPeers(const std::vector<Endpoint>& endpoints) {
  Jobs jobs;
  for (const Endpoint& endpoint : endpoints) {
    if (endpoint.host.size() > kMaxPeerIdBytes || !peers_.add(endpoint, env_.now())) continue;
    env_.print("[Gossip] Added peer: " + endpoint.text());
    jobs.emplace_back([this, endpoint] { introduceTo(endpoint); });
  }
  runJobs(jobs);
}

void GossipProtocol::introduceTo(const Endpoint& endpoint) {
  const GossipMessage reply = sendAndReceive(endpoint, createMessage(Type::JOIN, nullptr));
  if (reply.sender_id.empty() || reply.sender_id.size() > kMaxPeerIdBytes) return;
  if (reply.sender_id == self_.id) {
    peers_.forget(endpoint);
    return;
  }
  if (stopping_) return;
  if (const auto peer = peers_.confirm(endpoint, reply.sender_id, env_.now())) {
    callAll(joined_, *peer);
  }
  syncWithPeer(endpoint);
}

void GossipProtocol::gossipPass() {
  Jobs jobs;
  std::string heartbeat;
  const std::vector<PeerController> targets = peers_.selectTargets(env_.now());
  if (!targets.empty()) {
    heartbeat = createMessage(Type::HEARTBEAT, {{"node_count", registry_.nodeCount()}}).toText();
  }
  for (const PeerController& peer : targets) {
    jobs.emplace_back([this, peer, &heartbeat] {
      if (!stopping_) sendMessage(peer.endpoint(), heartbeat);
    });
  }
  for (const PeerController& peer : peers_.inPingOrder()) {
    jobs.emplace_back([this, peer] {
      if (!stopping_) ping(peer);
    });
  }
  platform::runSideBySide(jobs, env_.at_once, config_.ping_pass_limit);
  if (stopping_) return;
  for (const PeerController& peer : peers_.removeDead(env_.now())) {
    env_.print("[Gossip] Removing dead peer: " + peer.id);
    callAll(left_, peer);
  }
}

void GossipProtocol::ping(const PeerController& peer) {
  const GossipMessage reply = sendAndReceive(peer.endpoint(), createMessage(Type::PING, nullptr));
  const bool answered = reply.type == Type::ACK;
  const auto outcome = peers_.pinged(peer.id, answered, env_.now());
  if (!outcome || stopping_) return;
  if (outcome->failed_now) callAll(failed_, outcome->peer);
  // A peer that was away, or answers under another name, may never have heard of this node.
  if (!answered || reply.sender_id.empty()) return;
  if (outcome->back_again || reply.sender_id != peer.id) {
    introduceTo(peer.endpoint());
  }
}

void GossipProtocol::triggerSync() {
  Jobs jobs;
  for (const PeerController& peer : peers_.selectTargets(env_.now())) {
    jobs.emplace_back([this, endpoint = peer.endpoint()] {
      if (!stopping_) syncWithPeer(endpoint);
    });
  }
  for (const Endpoint& endpoint : peers_.lostEndpoints()) {
    jobs.emplace_back([this, endpoint] {
      if (!stopping_) introduceTo(endpoint);
    });
  }
  runJobs(jobs);
  ++sync_count_;
}

void GossipProtocol::syncWithPeer(const Endpoint& endpoint) {
  GossipMessage message = createMessage(Type::SYNC, nullptr);
  message.payload_text = serializeNodeRegistry();
  const GossipMessage reply = sendAndReceive(endpoint, message);
  if (reply.type == Type::SYNC_RESPONSE) mergeNodeRegistry(reply.payload);
}

std::string GossipProtocol::serializeNodeRegistry() const {
  platform::JsonArrayText nodes;
  if (self_.record) nodes.add(self_.record().toJson());
  for (const NodePtr& node : registry_.nodesToPassOn()) {
    if (!self_.record || node->id != self_.id) nodes.add(node->toJson());
  }
  return "{\"nodes\":" + nodes.take() + '}';
}

void GossipProtocol::mergeNodeRegistry(const json& payload) {
  const json::array_t* nodes = arrayIn(payload, "nodes");
  if (nodes == nullptr) return;
  for (const json& object : *nodes) {
    auto told = readNode(object, NodeDetail::kFull);
    if (!told || told->id == self_.id || registry_.isOwnNode(*told)) continue;
    registry_.registerNode(told->id, [&](const NodeInfo* known) -> std::optional<NodeInfo> {
      const bool wanted = known == nullptr || told->status == NodeStatus::kHealthy ||
                          known->status == NodeStatus::kUnhealthy;
      if (!wanted) return std::nullopt;
      return withOwnFindings(*told, known);
    });
  }
}

void GossipProtocol::registerHearsay(NodeInfo told) {
  if (told.id == self_.id || registry_.isOwnNode(told)) return;
  registry_.registerNode(told.id, [&](const NodeInfo* known) -> std::optional<NodeInfo> {
    return withOwnFindings(told, known);
  });
}

GossipMessage GossipProtocol::handleMessage(const GossipMessage& message) {
  ++messages_received_;
  if (!seen_.insert(message.id)) return createMessage(Type::ACK, nullptr);
  GossipMessage reply = createMessage(Type::ACK, nullptr);
  switch (message.type) {
    case Type::JOIN:
      handleJoin(message, reply);
      break;
    case Type::LEAVE:
      handleLeave(message);
      break;
    case Type::SYNC:
      handleSync(message, reply);
      break;
    case Type::DELTA:
      handleDelta(message.payload);
      break;
    case Type::NODE_UPDATE:
      handleNodeUpdate(message.payload);
      break;
    case Type::NODE_REMOVE:
      handleNodeRemove(message.payload);
      break;
    case Type::HEARTBEAT:
      clock_.merge(message.clock);
      break;
    default:
      break;
  }
  peers_.heardFrom(message.sender_id, env_.now());
  return reply;
}

void GossipProtocol::handleJoin(const GossipMessage& message, GossipMessage& reply) {
  const std::string& id = message.sender_id;
  const bool is_peer = !id.empty() && id.size() <= kMaxPeerIdBytes && id != self_.id &&
                       message.sender_address.size() <= kMaxPeerIdBytes;
  const auto peer = is_peer
                        ? peers_.join(id, {message.sender_address, message.sender_port}, env_.now())
                        : std::nullopt;
  if (peer) {
    env_.print("[Gossip] Peer joined: " + id);
    callAll(joined_, *peer);
  }
  reply.payload = {{"peers", platform::jsonArray(peers_.all())}};
}

void GossipProtocol::handleLeave(const GossipMessage& message) {
  const auto peer = peers_.leave(message.sender_id);
  if (!peer) return;
  env_.print("[Gossip] Peer left: " + peer->id);
  callAll(left_, *peer);
}

void GossipProtocol::handleSync(const GossipMessage& message, GossipMessage& reply) {
  reply.type = Type::SYNC_RESPONSE;
  reply.payload_text = serializeNodeRegistry();  // before the merge: the sender knows its own nodes
  mergeNodeRegistry(message.payload);
}

void GossipProtocol::handleDelta(const json& payload) {
  if (const json::array_t* added = arrayIn(payload, "added")) {
    for (const json& object : *added) {
      if (auto told = readNode(object, NodeDetail::kPlace)) registerHearsay(*std::move(told));
    }
  }
  if (const json::array_t* removed = arrayIn(payload, "removed")) {
    for (const json& id : *removed) removeNode(textOf(id));
  }
}

void GossipProtocol::handleNodeUpdate(const json& payload) {
  if (auto told = readNode(payload, NodeDetail::kLoad)) registerHearsay(*std::move(told));
}

void GossipProtocol::handleNodeRemove(const json& payload) {
  const json* id = payload.is_object() ? platform::jsonMember(payload, "node_id") : nullptr;
  if (id != nullptr) removeNode(textOf(*id));
}

void GossipProtocol::removeNode(const std::string& id) {
  if (!id.empty() && id != self_.id) registry_.unregisterNode(id);
}

json GossipProtocol::getStats() const {
  return {{"self_id", self_.id},
          {"peer_count", getPeerCount()},
          {"alive_peers", getAlivePeerCount()},
          {"messages_sent", messages_sent_.load()},
          {"messages_received", messages_received_.load()},
          {"sync_count", sync_count_.load()},
          {"clock", clock_.entries()}};
}

}  // namespace tavrel::cluster
