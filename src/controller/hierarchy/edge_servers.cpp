#include "controller/hierarchy/edge_servers.h"

#include <algorithm>
#include <utility>

#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/random.h"

namespace tavrel::controller {

using nlohmann::json;
using platform::MutexLock;
using platform::readField;

namespace {

constexpr std::size_t kIdDigits = 8;

EdgeServer edgeFrom(const json& body, platform::WallTime now) {
  EdgeServer edge;
  readField(body, "hostname", edge.hostname);
  readField(body, "mode", edge.mode);
  readField(body, "tls_mode", edge.tls_mode);
  readField(body, "http_port", edge.http_port);
  readField(body, "https_port", edge.https_port);
  readField(body, "router_count", edge.router_count);
  readField(body, "peer_count", edge.peer_count);
  readField(body, "metrics", edge.metrics);
  edge.registered_at = now;
  edge.last_heartbeat = now;
  return edge;
}

bool isTooLarge(const EdgeServer& edge) {
  return platform::dumpJson(edge.toJson()).size() > EdgeServers::kMaxBytes;
}

}  // namespace

json EdgeServer::toJson() const {
  return {{"edge_id", edge_id},
          {"hostname", hostname},
          {"mode", mode},
          {"tls_mode", tls_mode},
          {"http_port", http_port},
          {"https_port", https_port},
          {"router_count", router_count},
          {"peer_count", peer_count},
          {"status", status},
          {"metrics", metrics},
          {"registered_at", platform::toEpochSeconds(registered_at)},
          {"last_heartbeat", platform::toEpochSeconds(last_heartbeat)}};
}

std::optional<EdgeServer> EdgeServers::registerEdge(const json& body, platform::WallTime now) {
  EdgeServer edge = edgeFrom(body, now);
  readField(body, "edge_id", edge.edge_id);
  if (edge.edge_id.empty()) edge.edge_id = "edge-" + platform::randomHex(kIdDigits);
  if (isTooLarge(edge)) return std::nullopt;
  const MutexLock lock(mu_);
  edges_[edge.edge_id] = edge;
  forgetSurplus();
  return edge;
}

void EdgeServers::forgetSurplus() {
  if (edges_.size() <= kMost) return;
  edges_.erase(std::min_element(edges_.begin(), edges_.end(), [](const auto& a, const auto& b) {
    return a.second.last_heartbeat < b.second.last_heartbeat;
  }));
}

EdgeServers::Heartbeat EdgeServers::heartbeat(const std::string& id, const json& body,
                                              platform::WallTime now) {
  EdgeServer sent = edgeFrom(body, now);
  sent.edge_id = id;
  if (isTooLarge(sent)) return Heartbeat::kTooLarge;
  const MutexLock lock(mu_);
  const auto [place, added] = edges_.try_emplace(id);
  EdgeServer& edge = place->second;
  if (added) {
    edge = std::move(sent);
    forgetSurplus();
    return Heartbeat::kRegistered;
  }
  edge.status = "online";
  edge.last_heartbeat = now;
  if (body.contains("metrics")) edge.metrics = std::move(sent.metrics);
  return Heartbeat::kKnown;
}

std::optional<EdgeServer> EdgeServers::find(const std::string& id) const {
  const MutexLock lock(mu_);
  const auto place = edges_.find(id);
  return place == edges_.end() ? std::nullopt : std::optional(place->second);
}

std::vector<EdgeServer> EdgeServers::all() const {
  const MutexLock lock(mu_);
  std::vector<EdgeServer> edges;
  edges.reserve(edges_.size());
  for (const auto& [id, edge] : edges_) edges.push_back(edge);
  return edges;
}

}  // namespace tavrel::controller
