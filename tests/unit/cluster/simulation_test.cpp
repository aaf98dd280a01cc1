#include <gtest/gtest.h>

#include <cstdlib>

#include "simulated_cluster.h"

// Whole clusters, in virtual time. TAVREL_SIMULATION_SEED=<n> replays the seed that a failure
// names.
namespace tavrel::test {
namespace {

using Duration = SimulatedCluster::Duration;
using Places = std::vector<std::size_t>;

std::vector<std::uint64_t> seeds() {
  if (const char* given = std::getenv("TAVREL_SIMULATION_SEED")) {
    return {std::strtoull(given, nullptr, 10)};
  }
  return {1, 2};
}

class Simulation : public testing::TestWithParam<std::uint64_t> {
 protected:
  SimulatedCluster cluster{GetParam()};
  testing::ScopedTrace trace{__FILE__, __LINE__,
                             "TAVREL_SIMULATION_SEED=" + std::to_string(GetParam())};

  void startAll() {
    for (std::size_t place = 0; place < cluster.size(); ++place) cluster.start(place);
  }
  void run(int seconds) { cluster.run(std::chrono::seconds(seconds)); }

  /// Every running node sees exactly the other running ones.
  void expectAllSeeAll() {
    std::set<std::size_t> places;
    for (std::size_t place = 0; place < cluster.size(); ++place) {
      if (cluster.isRunning(place)) places.insert(place);
    }
    expectGroupSeesItself(places);
  }
  void expectGroupSeesItself(const std::set<std::size_t>& places) {
    for (const std::size_t place : places) {
      ASSERT_EQ(cluster.membersSeenBy(place), cluster.idsOf(places, place)) << "node " << place;
    }
  }
  void expectNobodyKnows(const std::string& id) {
    for (std::size_t place = 0; place < cluster.size(); ++place) {
      if (!cluster.isRunning(place)) continue;
      ASSERT_EQ(cluster.registry(place).getNode(id), nullptr) << "node " << place;
      for (const auto& peer : cluster.gossip(place).getPeers()) {
        ASSERT_NE(peer.id, id) << "node " << place;
      }
    }
  }
  /// Node 0 and then nodes with node 0 as their seed.
  void addStar(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) cluster.add({i == 0 ? Places{} : Places{0}});
  }
  /// Nodes that gossip with the next two.
  void addRing(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      cluster.add({{}, {(i + 1) % count, (i + 2) % count}});
    }
  }
};

/// Too large to be run with every seed.
class LargeSimulation : public Simulation {};

TEST_P(LargeSimulation, OneSeedMakesAClusterOfTwoHundred) {
  addStar(200);
  startAll();
  run(32);  // everybody has announced itself once
  expectAllSeeAll();

  const std::string dead = cluster.idOf(7);
  cluster.kill(7);
  run(7);
  EXPECT_EQ(cluster.registry(100).getNode(dead)->status, cluster::NodeStatus::kDegraded);
  run(13);
  EXPECT_EQ(cluster.registry(100).getNode(dead)->status, cluster::NodeStatus::kUnhealthy);
  run(17);
  expectNobodyKnows(dead);
  cluster.start(7);
  run(32);
  expectAllSeeAll();
}

TEST_P(Simulation, LostSeedIsJoinedAgainUnderAnyId) {
  addStar(6);
  startAll();
  run(35);
  cluster.kill(0);
  run(120);
  expectAllSeeAll();
  cluster.start(0);
  run(65);
  expectAllSeeAll();
  // A return so quick that its health never failed, under a new id.
  const std::string former = cluster.idOf(3);
  cluster.kill(3);
  cluster.start(3);
  run(65);
  expectNobodyKnows(former);
  expectAllSeeAll();
}

TEST_P(Simulation, ASplitHeals) {
  addStar(8);
  for (std::size_t i = 8; i < 16; ++i) cluster.add({{}, {i == 8 ? 15 : i - 1}});
  cluster.add({{0}, {8}});  // in both worlds
  startAll();
  run(100);
  expectAllSeeAll();
  for (const int split_seconds : {25, 50, 200}) {
    cluster.split({{2, 1}, {3, 1}, {4, 1}, {9, 1}, {10, 1}, {11, 1}});
    run(split_seconds);
    if (split_seconds > 100) {
      for (const std::size_t place : {0U, 12U}) {
        for (const std::size_t other : {2U, 9U}) {
          ASSERT_FALSE(cluster.membersSeenBy(place).contains(cluster.idOf(other)));
        }
      }
    }
    cluster.heal();
    run(130);
    expectAllSeeAll();
  }
}

TEST_P(Simulation, NobodyKeepsTheDeadAliveByTalkingOfThem) {
  addRing(20);
  startAll();
  run(100);
  expectAllSeeAll();
  std::vector<std::string> dead;
  for (const std::size_t place : {3U, 4U, 12U}) {
    dead.push_back(cluster.idOf(place));
    cluster.kill(place);
  }
  run(110);
  for (const std::string& id : dead) expectNobodyKnows(id);
  expectAllSeeAll();
  for (const std::size_t place : {3U, 4U, 12U}) cluster.start(place);
  run(100);
  expectAllSeeAll();
}

TEST_P(LargeSimulation, PeersOfALargeRingNoticeAndForgetEachOther) {
  addRing(300);
  startAll();
  run(3);
  for (std::size_t place = 0; place < cluster.size(); ++place) {
    ASSERT_EQ(cluster.gossip(place).getAlivePeerCount(), 4u) << "node " << place;
  }
  const std::string dead = cluster.idOf(50);
  cluster.kill(50);
  run(6);
  std::size_t failed = 0;
  for (const std::size_t place : {48U, 49U, 51U, 52U}) {
    for (const auto& peer : cluster.gossip(place).getPeers()) {
      failed += peer.id == dead && peer.status == cluster::PeerStatus::kFailed ? 1U : 0U;
    }
  }
  EXPECT_EQ(failed, 4u);
}

TEST_P(Simulation, SurvivesALossyNetworkAndComesToRest) {
  addRing(8);
  for (std::size_t i = 0; i < 8; ++i) cluster.add({{0, 5}});
  cluster.setNetwork({0.1, 0.1});
  startAll();
  std::mt19937_64 random(GetParam());
  for (int round = 0; round < 8; ++round) {
    std::map<std::size_t, int> groups;
    for (std::size_t place = 0; place < cluster.size(); ++place) {
      groups[place] = static_cast<int>(random() % 3) / 2;
    }
    cluster.split(groups);
    const std::size_t victim = random() % cluster.size();
    cluster.kill(victim);
    run(static_cast<int>(random() % 60));
    cluster.start(victim);
    cluster.heal();
    run(static_cast<int>(random() % 60));
  }
  cluster.setNetwork({});
  run(400);  // two that lost only each other hear of it when one refreshes its seed
  expectAllSeeAll();
}

TEST_P(Simulation, ALeapOfTheClockLosesNobody) {
  addRing(5);
  for (std::size_t i = 0; i < 5; ++i) cluster.add({{0}});
  startAll();
  run(100);
  cluster.sleep(std::chrono::hours{9});
  run(7);
  expectAllSeeAll();
}

TEST_P(Simulation, WhoLeavesIsGoneAtOnce) {
  addRing(5);
  startAll();
  run(5);
  const std::string left = cluster.idOf(2);
  cluster.leave(2);
  for (const std::size_t place : {0U, 1U, 3U, 4U}) {
    for (const auto& peer : cluster.gossip(place).getPeers()) EXPECT_NE(peer.id, left);
  }
}

INSTANTIATE_TEST_SUITE_P(Seed, LargeSimulation, testing::Values(seeds().front()));
INSTANTIATE_TEST_SUITE_P(Seeds, Simulation, testing::ValuesIn(seeds()));

}  // namespace
}  // namespace tavrel::test
