#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "cluster/cluster_manager.h"
#include "cluster/gossip_message.h"
#include "cluster/gossip_protocol.h"
#include "cluster/node_registry.h"
#include "platform/json_text.h"

// What other controllers post: joins, announcements and gossip, and what they answer to these. It
// is read or refused; what was taken over can be listed, passed on and read by another node; and
// nobody writes this node's own record.
namespace {

using nlohmann::json;
using namespace tavrel::cluster;

void check(bool holds) {
  if (!holds) std::abort();
}

/// Answers every call with the input.
struct Echo : ClusterTransport {
  std::string answer;
  ClusterAnswer send(const ClusterCall& call) override {
    endpointUrl(call.to, call.path);
    return {"", 200, answer};
  }
};

ClusterEnvironment environment(Echo& echo) {
  ClusterEnvironment env{echo};
  env.now = [] { return tavrel::platform::SteadyTime(std::chrono::hours(1)); };
  env.make_id = [] { return std::string("id"); };
  env.print = [](std::string_view) {};
  env.at_once = 1;
  env.threads = false;
  return env;
}

ClusterConfig config(const char* id) {
  ClusterConfig config;
  config.node_id = id;
  config.advertise_address = id;
  return config;
}

struct Node {
  explicit Node(const char* id)
      : manager(config(id), registry, environment(echo)),
        gossip({id, id, 8080, [this] { return manager.getSelfNode(); }}, registry,
               environment(echo), 1) {
    registry.registerNode(manager.getSelfNode());
  }

  Echo echo;
  NodeRegistry registry;
  ClusterManager manager;
  GossipProtocol gossip;
};

template <class Read>
void tolerated(Read read) {
  try {
    read();
  } catch (const json::exception&) {
    // A value of a wrong type: the request is answered with 500.
  }
}

void checkOwnRecord(const Node& node) {
  const NodePtr own = node.registry.getNode("self");
  check(own != nullptr && own->address == "self" && own->port == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Node node("self");
  node.echo.answer = text;
  const json body = json::parse(text, nullptr, false);
  if (!body.is_discarded()) {
    tolerated([&] { node.manager.handleJoin(body); });
    tolerated([&] { node.manager.handleAnnounce(body); });
    tolerated([&] {
      const GossipMessage message = GossipMessage::fromJson(body);
      const GossipMessage again = GossipMessage::fromJson(message.toJson());
      check(again.toJson() == message.toJson());
      node.gossip.handleMessage(message).toText();
      GossipMessage as_sync = message;
      as_sync.id += "-";
      as_sync.type = GossipMessageType::SYNC;
      node.gossip.handleMessage(as_sync);
    });
  }
  node.manager.joinCluster("seed:1");
  node.gossip.addPeer("peer", 1);
  node.gossip.gossipPass();
  node.gossip.triggerSync();
  node.manager.announcePresence();
  node.manager.checkAllNodesHealth();
  checkOwnRecord(node);

  // All of it can be read by another node.
  Node other("other");
  const std::string stats = node.manager.clusterStatsText();
  other.echo.answer = stats;
  other.manager.joinCluster("seed:1");
  check(other.registry.nodeCount() + 1 >= node.registry.nodeCount());
  return 0;
}
