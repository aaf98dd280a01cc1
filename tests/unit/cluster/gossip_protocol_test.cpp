#include "cluster/gossip_protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "cluster/gossip_message.h"
#include "fake_transport.h"

namespace tavrel::cluster {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using Type = GossipMessageType;

GossipMessage aMessage(Type type, json payload = nullptr, const std::string& sender = "peer") {
  static std::atomic<int> next{0};
  GossipMessage message;
  message.id = "m" + std::to_string(next++);
  message.type = type;
  message.sender_id = sender;
  message.sender_address = "10.0.0.2";
  message.sender_port = 8080;
  message.payload = std::move(payload);
  return message;
}

ClusterAnswer answered(Type type, const std::string& sender, json payload = nullptr) {
  return {"", 200, aMessage(type, std::move(payload), sender).toJson().dump()};
}

json nodeOf(const std::string& id, NodeStatus status, const std::string& version = "") {
  return {{"id", id}, {"status", static_cast<int>(status)}, {"version", version}};
}

struct GossipTest : testing::Test {
  test::FakeWorld world;
  NodeRegistry registry;
  GossipProtocol gossip{{"self", "10.0.0.1", 8080,
                         [] {
                           NodeInfo self;
                           self.id = "self";
                           return self;
                         }},
                        registry,
                        world.environment(),
                        1};

  std::vector<Type> typesSent() {
    std::vector<Type> types;
    for (const ClusterCall& call : world.transport.take()) {
      types.push_back(static_cast<Type>(json::parse(call.body)["type"].get<int>()));
    }
    return types;
  }
  std::string peers() {
    std::string text;
    for (const PeerController& peer : gossip.getPeers()) {
      text += peer.id + "=" + std::to_string(static_cast<int>(peer.status)) + " ";
    }
    return text;
  }
  void addNode(const std::string& id, NodeStatus status) {
    NodeInfo node;
    node.id = id;
    node.status = status;
    node.version = "local";
    node.last_heartbeat = world.now;
    node.consecutive_failures = 2;
    registry.registerNode(node);
  }
};

TEST_F(GossipTest, MessagesReadBackAsTheyWereWritten) {
  GossipMessage message = aMessage(Type::HEARTBEAT, {{"node_count", 1}});
  message.clock = {{"a", 1}, {"b", std::numeric_limits<std::uint64_t>::max()}};
  message.timestamp = platform::SteadyTime(milliseconds(77));
  const json wire = message.toJson();
  EXPECT_EQ(wire["timestamp_ms"], 77);
  EXPECT_EQ(wire["type"], 10);
  const GossipMessage read = GossipMessage::fromJson(wire);
  EXPECT_EQ(read.clock, message.clock);
  EXPECT_EQ(read.payload, message.payload);
  EXPECT_EQ(read.sender_port, 8080);
  EXPECT_THROW(GossipMessage::fromJson({{"type", "PING"}}), json::exception);
  EXPECT_THROW(GossipMessage::fromJson({{"clock", {1}}}), json::exception);
  EXPECT_EQ(GossipMessage::fromJson(json::object()).sender_id, "");
}

TEST_F(GossipTest, AMessageIsHandledOnce) {
  gossip.handleMessage(aMessage(Type::JOIN));
  world.now += seconds(10);
  const GossipMessage ping = aMessage(Type::PING);
  gossip.handleMessage(ping);
  world.now += seconds(10);
  const GossipMessage reply = gossip.handleMessage(ping);
  EXPECT_EQ(reply.type, Type::ACK);
  EXPECT_TRUE(reply.payload.is_null());
  EXPECT_EQ(gossip.getPeers()[0].last_seen, world.now - seconds(10));
  EXPECT_EQ(gossip.getStats()["messages_received"], 3);
}

TEST(SeenMessages, HalfIsForgottenInTheOrderOfTheIds) {
  SeenMessages seen;
  const auto id = [](std::size_t number) { return std::to_string(100'000 + number); };
  for (std::size_t i = 0; i < SeenMessages::kMaxIds; ++i) EXPECT_TRUE(seen.insert(id(i)));
  EXPECT_FALSE(seen.insert(id(0)));
  EXPECT_TRUE(seen.insert(id(SeenMessages::kMaxIds)));
  EXPECT_EQ(seen.size(), SeenMessages::kMaxIds + 1 - SeenMessages::kForgotten);
  EXPECT_TRUE(seen.insert(id(SeenMessages::kForgotten - 1)));
  EXPECT_FALSE(seen.insert(id(SeenMessages::kForgotten)));
  const std::string endless(1 << 20, 'x');
  EXPECT_TRUE(seen.insert(endless));
  EXPECT_FALSE(seen.insert(endless));
  EXPECT_TRUE(seen.insert(endless + "y"));
}

TEST(VectorClock, TakesTheLargerAndStaysBounded) {
  VectorClock clock("self");
  clock.tick();
  clock.merge({{"self", 0}, {"a", 5}});
  clock.merge({{"a", 3}, {std::string(1000, 'x'), 1}});
  EXPECT_EQ(clock.entries(), (ClockEntries{{"self", 1}, {"a", 5}}));
  ClockEntries flood;
  for (std::size_t i = 0; i < 3 * VectorClock::kMaxEntries; ++i) flood[std::to_string(i)] = i;
  clock.merge(flood);
  EXPECT_EQ(clock.entries().size(), VectorClock::kMaxEntries);
  clock.merge({{"self", std::numeric_limits<std::uint64_t>::max()}});
  EXPECT_EQ(clock.tick()["self"], std::numeric_limits<std::uint64_t>::max());
}

TEST_F(GossipTest, MergeKeepsWhatIsKnownBetter) {
  addNode("degraded", NodeStatus::kDegraded);
  addNode("unhealthy", NodeStatus::kUnhealthy);
  addNode("healthy", NodeStatus::kHealthy);
  addNode("kept", NodeStatus::kHealthy);
  const GossipMessage reply = gossip.handleMessage(aMessage(
      Type::SYNC, {{"nodes",
                    {nodeOf("degraded", NodeStatus::kDegraded, "told"),
                     nodeOf("unhealthy", NodeStatus::kDegraded, "told"),
                     nodeOf("healthy", NodeStatus::kHealthy, "told"),
                     nodeOf("kept", NodeStatus::kUnhealthy, "told"),
                     nodeOf("new", NodeStatus::kOffline, "told"), nodeOf("", NodeStatus::kHealthy),
                     nodeOf("self", NodeStatus::kHealthy), json{{"id", 5}}, "no node",
                     nodeOf("last", NodeStatus::kHealthy)}}}));
  const auto versionOf = [&](const std::string& id) { return registry.getNode(id)->version; };
  EXPECT_EQ(versionOf("degraded"), "local");
  EXPECT_EQ(versionOf("unhealthy"), "told");
  EXPECT_EQ(versionOf("healthy"), "told");
  EXPECT_EQ(versionOf("kept"), "local");
  EXPECT_EQ(versionOf("new"), "told");
  EXPECT_EQ(registry.nodeCount(), 6u);  // and "last", in spite of its neighbours
  EXPECT_EQ(registry.getNode("new")->last_heartbeat, platform::SteadyTime{});
  // What was found out about it here is not undone by what others say.
  EXPECT_EQ(registry.getNode("healthy")->last_heartbeat, world.now);
  EXPECT_EQ(registry.getNode("healthy")->consecutive_failures, 2);

  EXPECT_EQ(reply.type, Type::SYNC_RESPONSE);
  const json payload = reply.toJson()["payload"];
  EXPECT_EQ(payload["nodes"].size(), 5u);  // as it was, and the own record
  EXPECT_EQ(payload["nodes"][0]["id"], "self");
}

TEST_F(GossipTest, SingleChangesAreTakenOver) {
  addNode("a", NodeStatus::kHealthy);
  gossip.handleMessage(
      aMessage(Type::DELTA, {{"added", {nodeOf("b", NodeStatus::kHealthy), nodeOf("self", {}), 7}},
                             {"removed", {"a", 5, "unknown"}}}));
  EXPECT_EQ(registry.getNode("a"), nullptr);
  EXPECT_EQ(registry.getNode("self"), nullptr);
  json update = nodeOf("b", NodeStatus::kDegraded);
  update["active_jobs"] = 4;
  gossip.handleMessage(aMessage(Type::NODE_UPDATE, update));
  EXPECT_EQ(registry.getNode("b")->active_jobs, 4);
  gossip.handleMessage(aMessage(Type::NODE_REMOVE, {{"node_id", "b"}}));
  EXPECT_EQ(registry.nodeCount(), 0u);
  for (const json& odd : {json(nullptr), json(5), json::array({1}), json{{"added", 1}}}) {
    for (int type = 0; type < 12; ++type) {
      EXPECT_NO_THROW(gossip.handleMessage(aMessage(static_cast<Type>(type), odd, "")));
    }
  }
}

TEST_F(GossipTest, APeerIsKnownOnceUnderItsOwnId) {
  world.transport.answerWith([](const ClusterCall&) { return answered(Type::ACK, "b"); });
  std::vector<std::string> joined;
  gossip.onPeerJoined([&](const PeerController& peer) { joined.push_back(peer.id); });
  gossip.addPeer("10.0.0.2", 8080);
  gossip.addPeer("10.0.0.2", 8080);
  EXPECT_EQ(peers(), "b=2 ");
  EXPECT_THAT(typesSent(), ElementsAre(Type::JOIN, Type::SYNC));
  EXPECT_THAT(joined, ElementsAre("b"));
  EXPECT_THAT(world.lines, ElementsAre("[Gossip] Added peer: 10.0.0.2:8080"));

  // One that joins from there displaces it; oneself and the nameless are no peers.
  gossip.handleMessage(aMessage(Type::JOIN, nullptr, "successor"));
  gossip.handleMessage(aMessage(Type::JOIN, nullptr, "self"));
  const GossipMessage reply = gossip.handleMessage(aMessage(Type::JOIN, nullptr, ""));
  EXPECT_EQ(peers(), "successor=2 ");
  EXPECT_EQ(reply.payload["peers"].size(), 1u);
  gossip.handleMessage(aMessage(Type::LEAVE, nullptr, "successor"));
  EXPECT_EQ(peers(), "");
  EXPECT_EQ(world.lines.back(), "[Gossip] Peer left: successor");

  world.transport.answerWith([](const ClusterCall&) { return answered(Type::ACK, "self"); });
  gossip.addPeer("localhost", 8080);
  EXPECT_EQ(peers(), "");
}

TEST_F(GossipTest, ThreeMissedPingsFailAPeerAndAMinuteEndsIt) {
  std::string events;
  gossip.onPeerFailed([&](const PeerController& peer) { events += "failed " + peer.id + " "; });
  gossip.onPeerLeft([&](const PeerController& peer) { events += "left " + peer.id + " "; });
  gossip.addPeer("10.0.0.2", 8080);
  EXPECT_EQ(peers(), "10.0.0.2:8080=0 ");
  gossip.gossipPass();
  gossip.gossipPass();
  EXPECT_EQ(events, "");
  gossip.gossipPass();
  gossip.gossipPass();
  EXPECT_EQ(events, "failed 10.0.0.2:8080 ");

  // It answers: it is told of this node under its real id, and synced with.
  world.transport.answerWith([](const ClusterCall&) { return answered(Type::ACK, "b"); });
  typesSent();
  gossip.gossipPass();
  EXPECT_THAT(typesSent(), ElementsAre(Type::HEARTBEAT, Type::PING, Type::JOIN, Type::SYNC));
  EXPECT_EQ(peers(), "b=2 ");

  world.transport.answerWith(nullptr);
  world.now += seconds(60);
  gossip.gossipPass();
  EXPECT_EQ(gossip.getPeerCount(), 1u);
  EXPECT_EQ(gossip.getAlivePeerCount(), 0u);
  world.now += milliseconds(1);
  gossip.gossipPass();
  EXPECT_EQ(gossip.getPeerCount(), 0u);
  EXPECT_EQ(events, "failed 10.0.0.2:8080 left b ");
  EXPECT_EQ(world.lines.back(), "[Gossip] Removing dead peer: b");

  // It was named by an operator: every sync tries whether it is back.
  typesSent();
  gossip.triggerSync();
  EXPECT_THAT(typesSent(), ElementsAre(Type::JOIN));
  EXPECT_EQ(peers(), "");
  world.transport.answerWith([](const ClusterCall&) { return answered(Type::ACK, "b"); });
  gossip.triggerSync();
  EXPECT_EQ(peers(), "b=2 ");
}

TEST_F(GossipTest, HeartbeatsReachThreeThatAreNotLongDead) {
  for (int i = 0; i < 6; ++i) gossip.addPeer("10.0.1." + std::to_string(i), 1);
  for (int i = 0; i < 3; ++i) gossip.gossipPass();
  const auto heartbeats = [&] {
    typesSent();
    gossip.gossipPass();
    const auto types = typesSent();
    return std::count(types.begin(), types.end(), Type::HEARTBEAT);
  };
  EXPECT_EQ(heartbeats(), 3);
  world.now += seconds(30);
  EXPECT_EQ(heartbeats(), 0);
}

TEST_F(GossipTest, WhoAnsweredIsPingedBeforeThoseThatDidNot) {
  for (int port = 1; port <= 3; ++port) gossip.addPeer("10.0.0.2", port);
  world.transport.answerWith([](const ClusterCall& call) {
    return call.to.port == 2 ? answered(Type::ACK, "10.0.0.2:2") : ClusterAnswer{"hangs", 0, {}};
  });
  gossip.gossipPass();
  world.transport.take();
  gossip.gossipPass();
  std::vector<int> pinged;
  for (const ClusterCall& call : world.transport.take()) {
    if (json::parse(call.body)["type"] == static_cast<int>(Type::PING)) {
      pinged.push_back(call.to.port);
    }
  }
  EXPECT_THAT(pinged, ElementsAre(2, 1, 3));
}

TEST_F(GossipTest, APortLearnedLateIsToldToThePeers) {
  world.transport.answerWith([](const ClusterCall&) { return answered(Type::ACK, "b"); });
  gossip.addPeer("10.0.0.2", 8080);
  world.transport.take();
  gossip.setPort(9999);
  const auto calls = world.transport.take();
  ASSERT_EQ(calls.size(), 2u);  // an introduction and a sync
  for (const ClusterCall& call : calls) EXPECT_EQ(json::parse(call.body)["sender_port"], 9999);
  EXPECT_EQ(peers(), "b=2 ");
}

TEST_F(GossipTest, AnswersThatAreNoGossipCountAsNone) {
  for (const ClusterAnswer& answer :
       {ClusterAnswer{"", 503, answered(Type::ACK, "b").body}, ClusterAnswer{"", 200, "<html>"},
        ClusterAnswer{"", 200, R"({"type":"ACK"})"}, ClusterAnswer{"", 200, "[]"}}) {
    world.transport.answerWith([&](const ClusterCall&) { return answer; });
    gossip.addPeer("10.0.0.2", 8080);
    EXPECT_EQ(peers(), "10.0.0.2:8080=0 ");
  }
}

TEST_F(GossipTest, WhoStopsTakesLeaveOfTheLiving) {
  gossip.handleMessage(aMessage(Type::JOIN));
  world.now += seconds(30);
  GossipMessage other = aMessage(Type::JOIN, nullptr, "other");
  other.sender_port = 1;
  gossip.handleMessage(other);
  EXPECT_TRUE(gossip.start());
  gossip.stop();
  gossip.stop();
  EXPECT_THAT(typesSent(), ElementsAre(Type::LEAVE));
}

TEST_F(GossipTest, NobodyWaitsForAHungPeer) {
  gossip.handleMessage(aMessage(Type::JOIN));
  std::atomic<bool> hangs{false};
  std::atomic<bool> released{false};
  world.transport.answerWith([&](const ClusterCall&) {
    hangs = true;
    while (!released) std::this_thread::yield();
    return ClusterAnswer{"Timeout was reached", 0, {}};
  });
  std::jthread pass([&] { gossip.gossipPass(); });
  while (!hangs) std::this_thread::yield();
  // All of it would wait for the pass if a lock were held, and the pass for this.
  gossip.handleMessage(aMessage(Type::JOIN, nullptr, "other"));
  EXPECT_EQ(gossip.getPeerCount(), 1u);
  gossip.getStats();
  released = true;
}

TEST(GossipPeers, TheTableIsBounded) {
  GossipPeers peers(GossipConfig{}, 1);
  const platform::SteadyTime now{std::chrono::hours{1}};
  const auto most = static_cast<std::int32_t>(GossipConfig{}.max_peers);
  for (std::int32_t i = 0; i < most; ++i) {
    EXPECT_TRUE(peers.join("p" + std::to_string(i), {"h", i}, now));
  }
  EXPECT_FALSE(peers.join("more", {"h", most}, now));
  EXPECT_FALSE(peers.add({"more", 1}, now));
  EXPECT_TRUE(peers.join("successor", {"h", 7}, now));
  EXPECT_EQ(peers.size(), GossipConfig{}.max_peers);
}

}  // namespace
}  // namespace tavrel::cluster
