#include "cluster/gossip_peers.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace tavrel::cluster {

using platform::MutexLock;
using platform::SteadyTime;

nlohmann::json PeerController::toJson() const {
  return {{"id", id},
          {"address", address},
          {"port", port},
          {"status", static_cast<std::int32_t>(status)}};
}

bool GossipPeers::hasEndpointLocked(const Endpoint& endpoint) const {
  return std::any_of(peers_.begin(), peers_.end(),
                     [&](const auto& item) { return item.second.endpoint() == endpoint; });
}

bool GossipPeers::add(const Endpoint& endpoint, SteadyTime now) {
  const std::string id = endpoint.text();
  const MutexLock lock(mu_);
  if (peers_.size() >= config_.max_peers || peers_.contains(id) || hasEndpointLocked(endpoint)) {
    return false;
  }
  peers_[id] = {id, endpoint.host, endpoint.port, PeerStatus::kUnknown, now};
  const bool is_new = std::none_of(named_.begin(), named_.end(),
                                   [&](const Named& named) { return named.endpoint == endpoint; });
  if (is_new && named_.size() < config_.max_peers) named_.push_back({endpoint});
  return true;
}

std::optional<PeerController> GossipPeers::putLocked(const std::string& id,
                                                     const Endpoint& endpoint, SteadyTime now) {
  std::erase_if(peers_, [&](const auto& item) {
    return item.first != id && item.second.endpoint() == endpoint;
  });
  if (!peers_.contains(id) && peers_.size() >= config_.max_peers) return std::nullopt;
  PeerController& peer = peers_[id];
  peer = {id, endpoint.host, endpoint.port, PeerStatus::kAlive, now};
  return peer;
}

std::optional<PeerController> GossipPeers::confirm(const Endpoint& endpoint, const std::string& id,
                                                   SteadyTime now) {
  const MutexLock lock(mu_);
  for (Named& named : named_) {
    if (named.endpoint == endpoint) named.id = id;
  }
  return putLocked(id, endpoint, now);
}

std::optional<PeerController> GossipPeers::join(const std::string& id, const Endpoint& endpoint,
                                                SteadyTime now) {
  const MutexLock lock(mu_);
  return putLocked(id, endpoint, now);
}

std::optional<PeerController> GossipPeers::leave(const std::string& id) {
  const MutexLock lock(mu_);
  auto node = peers_.extract(id);
  return node.empty() ? std::nullopt : std::optional(std::move(node.mapped()));
}

void GossipPeers::forget(const Endpoint& endpoint) {
  const MutexLock lock(mu_);
  std::erase_if(named_, [&](const Named& named) { return named.endpoint == endpoint; });
  std::erase_if(peers_, [&](const auto& item) { return item.second.endpoint() == endpoint; });
}

void GossipPeers::heardFrom(const std::string& id, SteadyTime now) {
  const MutexLock lock(mu_);
  const auto place = peers_.find(id);
  if (place == peers_.end()) return;
  place->second.missed_pings = 0;
  place->second.status = PeerStatus::kAlive;
  place->second.last_seen = now;
}

std::optional<GossipPeers::PingOutcome> GossipPeers::pinged(const std::string& id, bool answered,
                                                            SteadyTime now) {
  const MutexLock lock(mu_);
  const auto place = peers_.find(id);
  if (place == peers_.end()) return std::nullopt;
  PeerController& peer = place->second;
  PingOutcome outcome;
  if (answered) {
    outcome.back_again = peer.missed_pings > 0 || peer.status != PeerStatus::kAlive;
    peer.missed_pings = 0;
    peer.status = PeerStatus::kAlive;
    peer.last_seen = now;
  } else if (++peer.missed_pings >= config_.max_missed_pings &&
             peer.status != PeerStatus::kFailed) {
    peer.status = PeerStatus::kFailed;
    outcome.failed_now = true;
  }
  outcome.peer = peer;
  return outcome;
}

std::vector<PeerController> GossipPeers::removeDead(SteadyTime now) {
  using std::chrono::milliseconds;
  std::vector<PeerController> dead;
  const MutexLock lock(mu_);
  for (auto place = peers_.begin(); place != peers_.end();) {
    const auto silence = std::chrono::floor<milliseconds>(now - place->second.last_seen);
    if (silence > config_.dead_peer_timeout_ms) {
      dead.push_back(std::move(place->second));
      place = peers_.erase(place);
    } else {
      ++place;
    }
  }
  return dead;
}

std::vector<PeerController> GossipPeers::selectTargets(SteadyTime now) {
  std::vector<PeerController> targets = all();
  std::erase_if(targets, [&](const PeerController& peer) {
    return peer.status == PeerStatus::kFailed && !isAlive(peer, now);
  });
  const MutexLock lock(mu_);
  std::shuffle(targets.begin(), targets.end(), random_);
  if (targets.size() > config_.fanout) targets.resize(config_.fanout);
  return targets;
}

std::vector<Endpoint> GossipPeers::lostEndpoints() const {
  std::vector<Endpoint> lost;
  const MutexLock lock(mu_);
  for (const Named& named : named_) {
    if (!peers_.contains(named.id) && !hasEndpointLocked(named.endpoint)) {
      lost.push_back(named.endpoint);
    }
  }
  return lost;
}

std::vector<PeerController> GossipPeers::all() const {
  std::vector<PeerController> peers;
  const MutexLock lock(mu_);
  peers.reserve(peers_.size());
  for (const auto& [id, peer] : peers_) peers.push_back(peer);
  return peers;
}

std::vector<PeerController> GossipPeers::inPingOrder() const {
  std::vector<PeerController> peers = all();
  std::stable_sort(peers.begin(), peers.end(), [](const PeerController& a, const auto& b) {
    return a.missed_pings < b.missed_pings;
  });
  return peers;
}

std::vector<PeerController> GossipPeers::alive(SteadyTime now) const {
  std::vector<PeerController> peers = all();
  std::erase_if(peers, [&](const PeerController& peer) { return !isAlive(peer, now); });
  return peers;
}

std::size_t GossipPeers::size() const {
  const MutexLock lock(mu_);
  return peers_.size();
}

}  // namespace tavrel::cluster
