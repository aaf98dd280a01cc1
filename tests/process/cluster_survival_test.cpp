#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "process/cluster_process.h"
#include "support/virtual_network.h"

// Clusters of real controllers that lose members and find them again. The controllers wait for as
// long as they do in real life, so both stories run at the same time.
namespace tavrel::test {
namespace {

using namespace std::chrono_literals;
using Ids = std::set<std::string>;
using Statuses = std::map<std::string, int>;

constexpr int kHealthy = 2;
constexpr int kUnhealthy = 4;

Statuses all(const Ids& ids, int status, const std::string& but = "") {
  Statuses statuses;
  for (const std::string& id : ids) {
    if (id != but) statuses[id] = status;
  }
  return statuses;
}

/// Running controllers by their ids. Everything they print is read during the waits.
class Members {
 public:
  using Goto = std::function<void(const std::string& id)>;
  using Condition = std::function<bool(const std::string& id, const Controller&)>;

  /// `go_to` takes the thread to where a controller runs.
  explicit Members(Goto go_to = [](const std::string&) {}) : go_to_(std::move(go_to)) {}

  void start(const std::string& id, int port, std::vector<std::string> more) {
    go_to_(id);
    running_[id] = startMember(id, port, std::move(more));
  }
  void kill(const std::string& id) {
    test::kill(*running_.at(id));
    running_.erase(id);
  }
  Controller& at(const std::string& id) { return *running_.at(id); }
  Ids ids() const {
    Ids ids;
    for (const auto& [id, controller] : running_) ids.insert(id);
    return ids;
  }

  /// Whether within the time the condition holds for all of them, or for the given ones.
  bool within(std::chrono::seconds limit, const Condition& condition,
              const std::optional<Ids>& whom = std::nullopt) {
    const auto end = platform::steadyNow() + limit;
    for (;;) {
      bool holds = true;
      for (const auto& [id, controller] : running_) {
        controller->process().waitForLine("never printed", 20ms);
        go_to_(id);
        if (!whom || whom->contains(id)) holds = condition(id, *controller) && holds;
      }
      if (holds) return true;
      if (platform::steadyNow() > end) return false;
    }
  }
  bool printed(std::chrono::seconds limit, const std::string& id, const std::string& line) {
    return within(
        limit,
        [&](const auto&, auto&) { return at(id).process().waitForLine(line, 0ms).has_value(); },
        Ids{id});
  }

 private:
  const Goto go_to_;
  std::map<std::string, std::unique_ptr<Controller>> running_;
};

bool hasStatuses(const Statuses& known, const Statuses& wanted) {
  for (const auto& [id, status] : wanted) {
    const auto found = known.find(id);
    if (found == known.end() || found->second != status) return false;
  }
  return true;
}

/// What was expected and did not happen, to be judged by the test whose story it was.
struct Story {
  void expect(bool happened, const std::string& what) {
    if (!happened) disappointments.push_back(what);
  }
  std::string skipped;  ///< why it could not be told
  std::vector<std::string> disappointments;
};

/// Three on a network, one of which is unplugged until the others have given it up.
void partition(const VirtualNetwork& network, Story& story) {
  const auto placeOf = [](const std::string& id) { return static_cast<std::size_t>(id[0] - 'a'); };
  Members members([&](const std::string& id) { network.enter(placeOf(id)); });
  const auto start = [&](const std::string& id, std::vector<std::string> more) {
    more.insert(more.end(), {"--bind", "0.0.0.0"});
    members.start(id, 8080, std::move(more));
  };
  const auto at = [&](const std::string& id) { return VirtualNetwork::address(placeOf(id)); };
  start("a", {"--peer", at("c")});
  start("c", {"--peer", at("a")});
  start("b", {"--seed", at("a"), "--seed", at("c") + ":8080"});
  const auto knows = [](const Ids& ids) {
    return [ids](const std::string& self, const Controller& controller) {
      return othersOf(controller, self) == all(ids, kHealthy, self);
    };
  };
  story.expect(members.within(20s, knows({"a", "b", "c"})), "all come together");
  // Until then c has only heard of a, and what is hearsay goes with the first probe that fails.
  members.within(7s, [](const auto&, auto&) { return false; });

  network.unplug(placeOf("c"));
  story.expect(members.printed(12s, "a", "[Gossip] Peer controller failed: c"),
               "a misses its peer");
  story.expect(members.printed(12s, "c", "[Gossip] Peer controller failed: a"),
               "c misses its peer");
  for (const std::string id : {"a", "b", "c"}) {
    const Ids lost = id == "c" ? Ids{"a", "b"} : Ids{"c"};
    const auto noticed = [&](const auto& self, auto& controller) {
      return hasStatuses(othersOf(controller, self), all(lost, kUnhealthy));
    };
    story.expect(members.within(20s, noticed, Ids{id}), id + " notices the loss");
  }
  story.expect(members.within(30s, knows({"a", "b"}), Ids{"a", "b"}), "a and b forget c");
  story.expect(members.within(30s, knows({}), Ids{"c"}), "c forgets both");
  const auto has_no_peers = [](const auto&, auto& controller) {
    return peersOf(controller).empty();
  };
  story.expect(members.within(40s, has_no_peers), "no peer stays");

  network.plug(placeOf("c"));
  story.expect(members.within(50s, knows({"a", "b", "c"})), "all come together again");
  const auto has_its_peer = [](const auto& self, auto& controller) {
    const Ids peers = self == "a" ? Ids{"c"} : self == "c" ? Ids{"a"} : Ids{};
    return peersOf(controller) == all(peers, kHealthy);
  };
  story.expect(members.within(5s, has_its_peer), "the peers are peers again");
}

Story playPartition() {
  Story story;
  std::optional<VirtualNetwork> network;
  try {
    network.emplace(3);
  } catch (const std::runtime_error& error) {
    story.skipped = error.what();
    return story;
  }
  partition(*network, story);
  return story;
}

class ClusterSurvival : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // A thread of its own: it stays in the network it makes.
    partition_played = std::async(std::launch::async, playPartition);
  }
  static void TearDownTestSuite() {
    if (partition_played.valid()) partition_played.wait();
  }
  static std::future<Story> partition_played;
};
std::future<Story> ClusterSurvival::partition_played;

/// n0 is the seed of n1 to n4 and the beginning of a chain of peers up to n9.
struct Ten {
  void start(int number, const std::string& id) {
    const int before = number == 5 ? 0 : number - 1;
    std::vector<std::string> more;
    if (number == 0) {
      more = {"--peer", at(5)};
    } else if (number < 5) {
      more = {"--seed", at(0)};
    } else {
      more = {"--peer", at(before)};
    }
    members.start(id, ports[static_cast<std::size_t>(number)], std::move(more));
  }
  std::string at(int number) const {
    return "127.0.0.1:" + std::to_string(ports[static_cast<std::size_t>(number)]);
  }
  bool allKnowExactlyEachOther(std::chrono::seconds limit) {
    return members.within(limit, [this](const auto& self, auto& controller) {
      return othersOf(controller, self) == all(members.ids(), kHealthy, self);
    });
  }

  std::vector<int> ports;
  Members members;
};

TEST_F(ClusterSurvival, TenNoticeWhoDiesForgetHimAndTakeBackWhoReturns) {
  Ten ten;
  for (int i = 0; i < 10; ++i) ten.ports.push_back(freePort());
  for (int i = 0; i < 10; ++i) ten.start(i, "n" + std::to_string(i));
  EXPECT_TRUE(ten.allKnowExactlyEachOther(45s)) << "never came together";

  // Two will return, the second as somebody else; the third will not.
  for (const char* id : {"n3", "n7", "n9"}) ten.members.kill(id);
  EXPECT_TRUE(ten.members.printed(10s, "n6", "[Gossip] Peer controller failed: n7"));
  EXPECT_TRUE(ten.members.printed(10s, "n8", "[Gossip] Peer controller failed: n9"));
  const Statuses lost = all({"n3", "n7", "n9"}, kUnhealthy);
  EXPECT_TRUE(ten.members.within(20s, [&](const auto& self, auto& controller) {
    return hasStatuses(othersOf(controller, self), lost);
  })) << "a loss was not noticed";
  ten.start(3, "n3");
  ten.start(7, "n7 again");
  EXPECT_TRUE(ten.allKnowExactlyEachOther(45s)) << "not all came together again";
  EXPECT_TRUE(ten.members.within(40s, [](const auto&, auto& controller) {
    const Statuses peers = peersOf(controller);
    return !peers.contains("n7") && !peers.contains("n9");
  })) << "a peer stayed";
  // And nobody who remembers tells the others of the dead.
  EXPECT_TRUE(ten.allKnowExactlyEachOther(1s));
}

TEST_F(ClusterSurvival, APartitionIsNoticedAndHeals) {
  const Story story = partition_played.get();
  if (!story.skipped.empty()) GTEST_SKIP() << "no network namespaces here: " << story.skipped;
  EXPECT_THAT(story.disappointments, testing::IsEmpty());
}

}  // namespace
}  // namespace tavrel::test
