#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "cluster/cluster_transport.h"
#include "platform/clock.h"
#include "platform/mutex.h"

namespace tavrel::cluster {

enum class PeerStatus : std::int32_t { kUnknown = 0, kAlive = 2, kFailed = 4 };

/// A controller that gossip is exchanged with. A plain value.
struct PeerController {
  std::string id;  ///< "host:port" until the peer has told its own
  std::string address;
  std::int32_t port = 0;
  PeerStatus status = PeerStatus::kUnknown;
  platform::SteadyTime last_seen;
  std::int32_t missed_pings = 0;

  Endpoint endpoint() const { return {address, port}; }
  nlohmann::json toJson() const;
};

/// The limits of gossip; nothing sets them differently.
struct GossipConfig {
  std::chrono::milliseconds gossip_interval_ms{1000};
  std::size_t fanout = 3;  ///< peers per heartbeat and per sync
  std::chrono::milliseconds sync_interval_ms{30'000};
  std::chrono::milliseconds message_timeout_ms{2000};  ///< half of it for the connection
  std::int32_t max_missed_pings = 3;                   ///< in a row, until a peer has failed
  std::chrono::milliseconds dead_peer_timeout_ms{60'000};
  std::chrono::milliseconds alive_age_ms{30'000};  ///< a peer silent for longer is not alive
  std::size_t max_peers = 1000;                    ///< more are refused
  /// No ping is begun later than this after its pass began: peers that hang, however many, cannot
  /// keep the pass from the next pings of those that answer.
  std::chrono::milliseconds ping_pass_limit{1000};
};

/// The peers of a gossiping node, in id order, one per id and one per address and port; and the
/// endpoints that an operator named, which are tried again after their peer was lost.
/// Threads: any; mu_ is a leaf lock. Time is passed in. The seed decides whom gossip reaches.
class GossipPeers {
 public:
  GossipPeers(const GossipConfig& config, std::uint32_t seed) : config_(config), random_(seed) {}

  /// Adds a peer under its provisional id and remembers its endpoint. False when the endpoint is in
  /// the table, or the table is full.
  bool add(const Endpoint& endpoint, platform::SteadyTime now) TV_EXCLUDES(mu_);
  /// The peer at the endpoint said who it is: from now on it is alive under that id.
  std::optional<PeerController> confirm(const Endpoint& endpoint, const std::string& id,
                                        platform::SteadyTime now) TV_EXCLUDES(mu_);
  /// A peer introduced itself. Nothing when the table is full.
  std::optional<PeerController> join(const std::string& id, const Endpoint& endpoint,
                                     platform::SteadyTime now) TV_EXCLUDES(mu_);
  /// Removes the peer, and gives it.
  std::optional<PeerController> leave(const std::string& id) TV_EXCLUDES(mu_);
  /// Forgets the endpoint: it is this node's own.
  void forget(const Endpoint& endpoint) TV_EXCLUDES(mu_);
  void heardFrom(const std::string& id, platform::SteadyTime now) TV_EXCLUDES(mu_);

  struct PingOutcome {
    bool failed_now = false;  ///< this was one ping too many without an answer
    bool back_again = false;  ///< answered after silence: it may have forgotten this node
    PeerController peer{};
  };
  /// Nothing when the peer has gone.
  std::optional<PingOutcome> pinged(const std::string& id, bool answered, platform::SteadyTime now)
      TV_EXCLUDES(mu_);
  /// Removes the peers that were silent for too long, and gives them.
  std::vector<PeerController> removeDead(platform::SteadyTime now) TV_EXCLUDES(mu_);

  /// `fanout` peers at random, among those that have not failed for long.
  std::vector<PeerController> selectTargets(platform::SteadyTime now) TV_EXCLUDES(mu_);
  /// Endpoints that an operator named and that no peer of the table has.
  std::vector<Endpoint> lostEndpoints() const TV_EXCLUDES(mu_);

  std::vector<PeerController> all() const TV_EXCLUDES(mu_);
  /// All, in the order in which they are pinged: those that answered last time first.
  std::vector<PeerController> inPingOrder() const TV_EXCLUDES(mu_);
  std::vector<PeerController> alive(platform::SteadyTime now) const TV_EXCLUDES(mu_);
  std::size_t size() const TV_EXCLUDES(mu_);

 private:
  struct Named {
    Endpoint endpoint;
    std::string id{};  ///< of the peer that was last found there
  };

  bool isAlive(const PeerController& peer, platform::SteadyTime now) const {
    return now - peer.last_seen < config_.alive_age_ms;
  }
  std::optional<PeerController> putLocked(const std::string& id, const Endpoint& endpoint,
                                          platform::SteadyTime now) TV_REQUIRES(mu_);
  bool hasEndpointLocked(const Endpoint& endpoint) const TV_REQUIRES(mu_);

  const GossipConfig config_;
  mutable platform::Mutex mu_;
  std::map<std::string, PeerController> peers_ TV_GUARDED_BY(mu_);
  std::vector<Named> named_ TV_GUARDED_BY(mu_);
  std::mt19937 random_ TV_GUARDED_BY(mu_);
};

}  // namespace tavrel::cluster
