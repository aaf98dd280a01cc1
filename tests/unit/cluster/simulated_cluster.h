#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <queue>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cluster/cluster_manager.h"
#include "cluster/gossip_message.h"
#include "cluster/gossip_protocol.h"
#include "cluster/node_registry.h"

namespace tavrel::test {

/// Many nodes on one thread, with a clock, a network and randomness of their own: the same seed
/// always gives the same run.
class SimulatedCluster {
 public:
  using Duration = std::chrono::milliseconds;

  struct NodeOptions {
    std::vector<std::size_t> seeds{};
    std::vector<std::size_t> peers{};  ///< none: the node does not gossip
    std::string id{};                  ///< empty: a new one with every start
  };
  struct Network {
    double loss = 0;  ///< share of requests, and of answers, that get lost
    double late = 0;  ///< share of requests that arrive seconds after their sender gave up
  };

  explicit SimulatedCluster(std::uint64_t seed) : random_(seed) {}

  ~SimulatedCluster() { closed_ = true; }  // what nodes say when they are destroyed reaches nobody

  /// The node is not running yet.
  std::size_t add(NodeOptions options) {
    places_[endpointOf(nodes_.size()).host] = nodes_.size();
    nodes_.push_back(std::make_unique<Node>(nodes_.size(), std::move(options)));
    return nodes_.size() - 1;
  }

  void start(std::size_t place) {
    Node& node = *nodes_[place];
    node.run = std::make_shared<Run>(*this, node);
    auto run = node.run;
    run->manager.start();
    repeat(run, Duration(5000), [](Run& r) { r.manager.healthPass(); });
    repeat(run, Duration(30'000), [](Run& r) { r.manager.announcePresence(); });
    if (node.options.peers.empty()) return;
    run->gossip.start();
    std::vector<cluster::Endpoint> peers;
    for (const std::size_t peer : node.options.peers) peers.push_back(endpointOf(peer));
    run->gossip.addPeers(peers);
    repeat(run, Duration(1000), [](Run& r) { r.gossip.gossipPass(); });
    repeat(run, Duration(30'000), [](Run& r) { r.gossip.triggerSync(); });
  }

  /// Nobody hears of it: as if the power failed.
  void kill(std::size_t place) {
    nodes_[place]->run->dead = true;
    nodes_[place]->run->transport.cut = true;
    nodes_[place]->run = nullptr;
  }
  void leave(std::size_t place) {
    nodes_[place]->run->gossip.stop();
    kill(place);
  }

  void run(Duration time) {
    const auto end = now_ + time;
    while (!events_.empty() && events_.top().at <= end) {
      const Event event = events_.top();
      events_.pop();
      now_ = std::max(now_, event.at);
      event.what();
    }
    now_ = end;
  }
  /// The clock leaps while nothing happens: the machines slept.
  void sleep(Duration time) { now_ += time; }

  /// Nodes of different groups do not reach each other; all that are not named are in group 0.
  void split(std::map<std::size_t, int> groups) { groups_ = std::move(groups); }
  void heal() { groups_.clear(); }
  void setNetwork(Network network) { network_ = network; }

  cluster::NodeRegistry& registry(std::size_t place) { return nodes_[place]->run->registry; }
  cluster::ClusterManager& manager(std::size_t place) { return nodes_[place]->run->manager; }
  cluster::GossipProtocol& gossip(std::size_t place) { return nodes_[place]->run->gossip; }
  bool isRunning(std::size_t place) const { return nodes_[place]->run != nullptr; }
  std::size_t size() const { return nodes_.size(); }
  std::string idOf(std::size_t place) const { return nodes_[place]->run->id; }

  static cluster::Endpoint endpointOf(std::size_t place) {
    return {"10.0." + std::to_string(place / 250) + "." + std::to_string(place % 250), 8080};
  }

  /// The other nodes that a node takes to be available, by their ids.
  std::set<std::string> membersSeenBy(std::size_t place) {
    std::set<std::string> members;
    for (const auto& node : registry(place).getHealthyNodes()) {
      if (node->id != idOf(place)) members.insert(node->id);
    }
    return members;
  }
  std::set<std::string> idsOf(const std::set<std::size_t>& places, std::size_t except) const {
    std::set<std::string> ids;
    for (const std::size_t place : places) {
      if (place != except) ids.insert(idOf(place));
    }
    return ids;
  }

 private:
  struct Node;

  class Transport : public cluster::ClusterTransport {
   public:
    Transport(SimulatedCluster& cluster, std::size_t from) : cluster_(cluster), from_(from) {}
    cluster::ClusterAnswer send(const cluster::ClusterCall& call) override {
      if (cut || cluster_.closed_) return {"Network is down", 0, {}};
      return cluster_.deliver(from_, call);
    }

    bool cut = false;

   private:
    SimulatedCluster& cluster_;
    const std::size_t from_;
  };

  /// One life of a node.
  struct Run {
    Run(SimulatedCluster& cluster, const Node& node)
        : id(node.options.id.empty() ? cluster.makeId() : node.options.id),
          transport(cluster, node.place),
          manager(configOf(node, id), registry, environment(cluster)),
          gossip({id, endpointOf(node.place).host, endpointOf(node.place).port,
                  [this] { return manager.getSelfNode(); }},
                 registry, environment(cluster), static_cast<std::uint32_t>(cluster.random_())) {}

    static cluster::ClusterConfig configOf(const Node& node, const std::string& id) {
      cluster::ClusterConfig config;
      config.node_id = id;
      config.advertise_address = endpointOf(node.place).host;
      for (const std::size_t seed : node.options.seeds) {
        config.seed_nodes.push_back(endpointOf(seed).text());
      }
      return config;
    }
    cluster::ClusterEnvironment environment(SimulatedCluster& cluster) {
      return {transport,
              [&cluster] { return cluster.now_; },
              [&cluster] { return cluster.makeId(); },
              [](std::string_view) {},
              1,
              false};
    }

    const std::string id;
    bool dead = false;
    Transport transport;
    cluster::NodeRegistry registry;
    cluster::ClusterManager manager;
    cluster::GossipProtocol gossip;
  };

  struct Node {
    Node(std::size_t its_place, NodeOptions its_options)
        : place(its_place), options(std::move(its_options)) {}
    const std::size_t place;
    const NodeOptions options;
    std::shared_ptr<Run> run{};
  };

  struct Event {
    platform::SteadyTime at;
    std::uint64_t number;
    std::function<void()> what;
    bool operator<(const Event& other) const {
      return std::pair(at, number) > std::pair(other.at, other.number);  // the earliest on top
    }
  };

  std::string makeId() { return "id-" + std::to_string(next_id_++); }
  bool chance(double share) {
    return share > 0 && std::uniform_real_distribution<double>(0, 1)(random_) < share;
  }
  int groupOf(std::size_t place) const {
    const auto group = groups_.find(place);
    return group == groups_.end() ? 0 : group->second;
  }

  void after(Duration delay, std::function<void()> what) {
    events_.push({now_ + delay, next_event_++, std::move(what)});
  }
  void repeat(const std::shared_ptr<Run>& run, Duration period,
              const std::function<void(Run&)>& what) {
    // Loops of different nodes are not in step.
    const Duration jitter(random_() % 1000);
    after(period + jitter, [this, run, period, what] {
      if (run->dead) return;
      what(*run);
      repeat(run, period, what);
    });
  }

  cluster::ClusterAnswer deliver(std::size_t from, const cluster::ClusterCall& call) {
    const cluster::ClusterAnswer none{"Timeout was reached", 0, {}};
    const auto place = places_.find(call.to.host);
    if (place == places_.end() || call.to.port != 8080) return none;
    const std::size_t to = place->second;
    if (groupOf(from) != groupOf(to) || chance(network_.loss)) return none;
    if (chance(network_.late)) {
      after(Duration(random_() % 10'000), [this, to, call] { answerOf(to, call); });
      return none;
    }
    cluster::ClusterAnswer answer = answerOf(to, call);
    return chance(network_.loss) ? none : answer;
  }

  cluster::ClusterAnswer answerOf(std::size_t to, const cluster::ClusterCall& call) {
    using nlohmann::json;
    const std::shared_ptr<Run> run = nodes_[to]->run;
    if (run == nullptr) return {"Couldn't connect to server", 0, {}};
    if (call.path == "/api/v1/health") return {"", 200, R"({"status":"ok"})"};
    const json body = json::parse(call.body);
    if (call.path == "/cluster/join") return {"", 200, run->manager.handleJoin(body)};
    if (call.path == "/cluster/announce") {
      run->manager.handleAnnounce(body);
      return {"", 200, "{}"};
    }
    if (nodes_[to]->options.peers.empty()) return {"", 503, "{}"};
    return {"", 200, run->gossip.handleMessage(cluster::GossipMessage::fromJson(body)).toText()};
  }

  std::mt19937_64 random_;
  platform::SteadyTime now_{std::chrono::hours{1}};
  std::uint64_t next_id_ = 0;
  std::uint64_t next_event_ = 0;
  bool closed_ = false;
  Network network_;
  std::map<std::size_t, int> groups_;
  std::priority_queue<Event> events_;
  std::vector<std::unique_ptr<Node>> nodes_;
  std::map<std::string, std::size_t> places_;  ///< by host
};

}  // namespace tavrel::test
