#include "controller/hierarchy/controller_hierarchy.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "../cluster/fake_controllers.h"

namespace tavrel::controller {
namespace {

using nlohmann::json;
using test::answerWith;
using test::noAnswer;
using ::testing::ElementsAre;
using SendResult = ControllerHierarchy::SendResult;

/// One controller of a hierarchy, with a clock that stands still until it is moved.
struct Node {
  explicit Node(ControllerRole role) : hierarchy(config(role), environment()) {
    hierarchy.initialize();
  }

  static HierarchyConfig config(ControllerRole role) {
    HierarchyConfig config;
    config.role = role;
    config.controller_id = role == ControllerRole::kMaster ? "the-master" : "the-sub";
    config.address = "10.0.0.2";
    config.port = 8080;
    config.region = "north";
    if (role == ControllerRole::kSub) readMasterUrl("http://10.0.0.1:9000", config);
    return config;
  }
  HierarchyEnvironment environment() {
    HierarchyEnvironment env{others};
    env.now = [this] { return now; };
    env.wall = [this] { return wall; };
    env.print = [this](std::string_view line) { lines.emplace_back(line); };
    env.at_once = 1;
    env.threads = false;
    return env;
  }
  void addSub(const std::string& id) {
    SubControllerInfo sub;
    sub.id = id;
    sub.address = "10.0.0.9";
    hierarchy.registerSubController(sub);
  }
  SubControllerInfo onlySub() { return hierarchy.getSubControllers().at(0); }
  bool printed(const std::string& line) const {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  test::FakeControllers others;
  platform::SteadyTime now{std::chrono::hours{1}};
  platform::WallTime wall{std::chrono::seconds{1'700'000'000}};
  std::vector<std::string> lines;
  ControllerHierarchy hierarchy;
};

MasterCommand commandOf(const std::string& id, const std::string& type = "ping") {
  MasterCommand command;
  command.id = id;
  command.type = type;
  return command;
}

std::vector<std::string> idsOf(const std::vector<MasterCommand>& commands) {
  std::vector<std::string> ids;
  for (const MasterCommand& command : commands) ids.push_back(command.id);
  return ids;
}

TEST(HierarchyRecords, MasterUrlsAndRights) {
  HierarchyConfig config;
  const auto read = [&](const std::string& url) {
    readMasterUrl(url, config);
    return config.master_address + " " + std::to_string(config.master_port);
  };
  EXPECT_EQ(read("http://10.0.0.1:9000"), "10.0.0.1 9000");
  EXPECT_EQ(read("10.0.0.1"), "10.0.0.1 8880");
  EXPECT_EQ(read("http://master.example/"), "master.example 8880");
  EXPECT_EQ(read("[::1]:99"), "[::1] 99");
  EXPECT_THROW(read("host:port"), std::invalid_argument);
  EXPECT_THROW(read("a/b"), std::invalid_argument);

  int of_a_sub = 0;
  for (int op = 0; op < 14; ++op) {
    EXPECT_TRUE(isOperationAllowed(ControllerRole::kMaster, ControllerOperation{op}));
    of_a_sub += isOperationAllowed(ControllerRole::kSub, ControllerOperation{op}) ? 1 : 0;
  }
  EXPECT_EQ(of_a_sub, 6);
  Node sub(ControllerRole::kSub);
  try {
    sub.hierarchy.requireOperation(ControllerOperation::kDeployEdge);
    FAIL();
  } catch (const PermissionDeniedException& denied) {
    EXPECT_STREQ(denied.what(), "Operation 'deploy_edge' not allowed for sub controller");
  }
}

TEST(ControllerHierarchy, AProbedSubDegradesGoesOfflineAndComesBack) {
  Node master(ControllerRole::kMaster);
  master.addSub("s");
  const auto probe = [&](bool answers) {
    master.others.answer = [&, answers](const cluster::ControllerCall&) {
      master.now += std::chrono::milliseconds{100};
      return answers ? answerWith({{"status", "ok"}}, 500) : noAnswer();
    };
    master.lines.clear();
    master.hierarchy.checkSubControllerHealth();
    return master.onlySub().status;
  };
  EXPECT_EQ(probe(true), SubControllerStatus::kActive);
  EXPECT_THAT(master.lines, ElementsAre("[Hierarchy] Sub-controller s is now active"));
  EXPECT_NEAR(master.onlySub().avg_response_time_ms, 20, 0.01);
  EXPECT_EQ(master.others.take().at(0).url, "http://10.0.0.9:8080/api/v1/health");
  EXPECT_EQ(probe(false), SubControllerStatus::kDegraded);
  EXPECT_EQ(probe(false), SubControllerStatus::kDegraded);
  EXPECT_EQ(probe(false), SubControllerStatus::kOffline);
  EXPECT_THAT(master.lines, ElementsAre("[Hierarchy] Sub-controller s is offline"));
  EXPECT_EQ(probe(false), SubControllerStatus::kOffline);
  EXPECT_TRUE(master.lines.empty());
  EXPECT_EQ(probe(true), SubControllerStatus::kActive);
  EXPECT_NEAR(master.onlySub().avg_response_time_ms, 36, 0.01);
  EXPECT_EQ(probe(false), SubControllerStatus::kDegraded);

  master.addSub("never-answered");
  probe(false);
  EXPECT_EQ(master.onlySub().status, SubControllerStatus::kUnknown);  // first in id order
}

TEST(ControllerHierarchy, ACommandIsQueuedWhetherOrNotItsPushArrives) {
  Node master(ControllerRole::kMaster);
  EXPECT_EQ(master.hierarchy.sendCommand("s", commandOf("1")), SendResult::kUnknownSub);
  EXPECT_TRUE(master.printed("[Hierarchy] Sub-controller not found: s"));
  master.addSub("s");
  EXPECT_EQ(master.hierarchy.sendCommand("s", commandOf("2")), SendResult::kQueued);
  EXPECT_TRUE(master.printed(
      "[Hierarchy] Failed to send command to s: CURL error: Couldn't connect to server"));
  master.others.answer = [](const auto&) { return answerWith({{"error", "no"}}, 400); };
  EXPECT_EQ(master.hierarchy.sendCommand("s", commandOf("3")), SendResult::kQueued);
  EXPECT_TRUE(master.printed("[Hierarchy] Command rejected by s: no"));
  master.others.answer = [](const auto&) { return answerWith({{"success", true}}); };
  master.others.take();
  EXPECT_EQ(master.hierarchy.sendCommand("s", commandOf("4")), SendResult::kDelivered);
  EXPECT_TRUE(master.printed("[Hierarchy] Command sent to s"));
  const auto push = master.others.take().at(0);
  EXPECT_EQ(push.url, "http://10.0.0.9:8080/api/v1/hierarchy/command");
  EXPECT_EQ(json::parse(push.body)["id"], "4");

  EXPECT_EQ(master.hierarchy.getStatus()["pending_commands"], 3);
  EXPECT_THAT(idsOf(master.hierarchy.takeCommandsFor("s")), ElementsAre("2", "3", "4"));
  EXPECT_TRUE(master.hierarchy.takeCommandsFor("s").empty());

  // A sub that begins anew no longer knows what it was pushed: it must not get that twice.
  master.hierarchy.sendCommand("s", commandOf("5"));
  master.others.answer = nullptr;
  master.hierarchy.sendCommand("s", commandOf("6"));
  master.addSub("s");
  EXPECT_THAT(idsOf(master.hierarchy.takeCommandsFor("s")), ElementsAre("6"));

  for (std::size_t i = 0; i < CommandBook::kMaxQueued; ++i) {
    master.hierarchy.sendCommand("s", commandOf(std::to_string(i)));
  }
  EXPECT_EQ(master.hierarchy.sendCommand("s", commandOf("x")), SendResult::kRefused);
  EXPECT_TRUE(master.hierarchy.removeSubController("s"));
  EXPECT_EQ(master.hierarchy.getStatus()["pending_commands"], 0);
  EXPECT_FALSE(master.hierarchy.removeSubController("s"));
}

TEST(ControllerHierarchy, NoCommandKeepsTheOthersFromItsSub) {
  Node master(ControllerRole::kMaster);
  master.addSub("s");
  const auto send = [&](const std::string& id, json payload) {
    MasterCommand command = commandOf(id);
    command.payload = std::move(payload);
    return master.hierarchy.sendCommand("s", command);
  };
  // The sub reads no answer that nests deeper than 256, and 8 MiB at most.
  json deep = 0;
  for (int i = 0; i < 254; ++i) deep = json::array({std::move(deep)});
  EXPECT_EQ(send("too deep", deep), SendResult::kRefused);
  EXPECT_EQ(send("nearly", deep[0]), SendResult::kQueued);
  EXPECT_EQ(send("too large", std::string(CommandBook::kMaxCommandBytes, 'x')),
            SendResult::kRefused);
  for (const char* id : {"1", "2", "3"})
    send(id, std::string(CommandBook::kMaxCommandBytes / 2 - 10, 'x'));
  EXPECT_THAT(idsOf(master.hierarchy.takeCommandsFor("s")), ElementsAre("nearly", "1"));
  EXPECT_THAT(idsOf(master.hierarchy.takeCommandsFor("s")), ElementsAre("2", "3"));
  EXPECT_TRUE(master.hierarchy.takeCommandsFor("s").empty());

  // What was handed over makes room again.
  const std::string large(CommandBook::kMaxCommandBytes - 100, 'x');
  int queued = 0;
  while (send("large", large) == SendResult::kQueued) ++queued;
  EXPECT_EQ(queued, 16);
  EXPECT_EQ(master.hierarchy.takeCommandsFor("s").size(), 1u);
  EXPECT_EQ(send("large", large), SendResult::kQueued);
}

TEST(ControllerHierarchy, ASubThatHasToldTheOutcomeDoesNotGetTheCommandAnew) {
  Node master(ControllerRole::kMaster);
  master.addSub("s");
  master.hierarchy.sendCommand("s", commandOf("1"));  // arrives, but the sub's answer gets lost
  master.hierarchy.sendCommand("s", commandOf("2"));
  CommandResult result;
  result.command_id = "1";
  result.sub_id = "s";
  master.hierarchy.storeCommandResult(result);
  master.addSub("s");  // begins anew
  EXPECT_THAT(idsOf(master.hierarchy.takeCommandsFor("s")), ElementsAre("2"));
}

TEST(ControllerHierarchy, IdsStayUniqueWithinAMillisecond) {
  Node master(ControllerRole::kMaster);
  EXPECT_EQ(master.hierarchy.newId("cmd-"), "cmd-1700000000000");
  EXPECT_EQ(master.hierarchy.newId("cmd-"), "cmd-1700000000001");
  master.wall -= std::chrono::hours{1};
  EXPECT_EQ(master.hierarchy.newId("sub-"), "sub-1700000000002");
}

TEST(ControllerHierarchy, AHeartbeatKeepsWhatItDoesNotCarryAndBringsASubBack) {
  Node master(ControllerRole::kMaster);
  EXPECT_FALSE(master.hierarchy.subControllerHeartbeat("s", {{"worker_count", 1}}));
  EXPECT_TRUE(master.hierarchy.subControllerHeartbeat(
      "s", {{"address", "10.0.0.9"}, {"port", 81}, {"region", "north"}}));
  EXPECT_TRUE(
      master.printed("[Hierarchy] Registered sub-controller: s (10.0.0.9:81) region: north"));
  EXPECT_TRUE(master.hierarchy.subControllerHeartbeat(
      "s", {{"worker_count", 4}, {"address", ""}, {"port", 0}, {"status", 3}, {"id", "other"}}));
  const SubControllerInfo sub = master.onlySub();
  EXPECT_EQ(sub.toJson(), (json{{"id", "s"},
                                {"name", ""},
                                {"address", "10.0.0.9"},
                                {"port", 81},
                                {"region", "north"},
                                {"tier_id", ""},
                                {"status", 0},
                                {"worker_count", 4},
                                {"router_count", 0},
                                {"avg_response_time_ms", 0.0}}));
  EXPECT_THROW(master.hierarchy.subControllerHeartbeat("s", {{"port", "x"}}), json::type_error);
  master.hierarchy.subControllerHeartbeat("s", {{"port", 70000}});
  master.hierarchy.subControllerHeartbeat("s", {{"address", "a/b"}, {"port", 82}});
  EXPECT_FALSE(master.hierarchy.subControllerHeartbeat("lost", {{"address", "a/b"}}));
  EXPECT_EQ(master.onlySub().port, 81);
}

TEST(ControllerHierarchy, ASubStartsOnlyWhenItsMasterTakesIt) {
  Node sub(ControllerRole::kSub);
  EXPECT_FALSE(sub.hierarchy.start());
  EXPECT_THAT(sub.lines,
              ElementsAre("[Hierarchy] Initialized as sub controller",
                          "[Hierarchy] Failed to register with master: CURL error: Couldn't "
                          "connect to server",
                          "[Hierarchy] Failed to register with master controller"));
  sub.others.answer = [](const auto&) { return answerWith({{"code", 401}}, 401); };
  EXPECT_FALSE(sub.hierarchy.start());
  EXPECT_TRUE(sub.printed("[Hierarchy] Master rejected registration: unknown"));
  sub.others.answer = [](const auto&) {
    return answerWith({{"success", true}, {"master_id", "m"}});
  };
  sub.others.take();
  EXPECT_TRUE(sub.hierarchy.start());
  EXPECT_EQ(sub.lines.back(), "[Hierarchy] Sub-controller started, master: 10.0.0.1:9000");
  EXPECT_EQ(sub.hierarchy.masterRef().id, "m");
  const auto call = sub.others.take().at(0);
  EXPECT_EQ(call.url, "http://10.0.0.1:9000/api/v1/hierarchy/register");
  EXPECT_EQ(json::parse(call.body)["version"], "3.0.8");
  EXPECT_EQ(json::parse(call.body)["address"], "10.0.0.2");
  EXPECT_THAT(call.headers,
              ElementsAre(std::pair<std::string, std::string>("X-Sub-Controller-Id", "the-sub")));
  sub.hierarchy.stop();
  sub.hierarchy.stop();
  EXPECT_EQ(
      std::count(sub.lines.begin(), sub.lines.end(), "[Hierarchy] Controller hierarchy stopped"),
      1);

  HierarchyConfig lost;
  lost.role = ControllerRole::kSub;
  EXPECT_FALSE(ControllerHierarchy(lost, sub.environment()).initialize());
}

TEST(ControllerHierarchy, ASubTakesEveryCommandOnceHoweverItComes) {
  Node sub(ControllerRole::kSub);
  std::vector<std::string> seen;
  sub.hierarchy.onCommandReceived([&](const MasterCommand& c) { seen.push_back(c.id); });
  EXPECT_TRUE(sub.hierarchy.receiveCommand(commandOf("1")));
  sub.others.answer = [](const cluster::ControllerCall& call) {
    if (call.url.ends_with("/commands")) {
      return answerWith({{"commands",
                          {{{"id", "1"}, {"type", "ping"}},
                           {{"id", 7}},
                           {{"id", "2"}, {"type", "ping"}, {"payload", {{"a", 1}}}}}}});
    }
    return answerWith({{"success", true}});
  };
  sub.hierarchy.commandPass();
  sub.hierarchy.commandPass();
  EXPECT_TRUE(sub.hierarchy.receiveCommand(commandOf("2")));
  EXPECT_THAT(seen, ElementsAre("1", "2"));
  EXPECT_TRUE(sub.hierarchy.masterRef().connected);
  const auto pending = sub.hierarchy.getPendingCommands();
  EXPECT_THAT(idsOf(pending), ElementsAre("1", "2"));
  EXPECT_EQ(pending[1].payload["a"], 1);
  sub.others.answer = nullptr;
  sub.hierarchy.commandPass();
  EXPECT_FALSE(sub.hierarchy.masterRef().connected);

  for (std::size_t i = 0; i < CommandInbox::kMaxPending; ++i) {
    sub.hierarchy.receiveCommand(commandOf("many" + std::to_string(i)));
  }
  EXPECT_FALSE(sub.hierarchy.receiveCommand(commandOf("one too many")));
  EXPECT_TRUE(sub.hierarchy.receiveCommand(commandOf("many0")));
}

TEST(ControllerHierarchy, AResultThatCouldNotBeReportedIsReportedLater) {
  Node sub(ControllerRole::kSub);
  sub.hierarchy.reportCommandResult("c1", true, {{"a", 1}}, "");
  sub.hierarchy.reportCommandResult("c2", false, nullptr, "why");
  EXPECT_TRUE(sub.printed(
      "[Hierarchy] Failed to report command result: CURL error: Couldn't connect to server"));
  sub.hierarchy.commandPass();
  sub.others.take();
  sub.others.answer = [](const auto&) { return answerWith({{"success", true}}); };
  const auto reported = [&] {
    sub.hierarchy.commandPass();
    std::vector<std::string> ids;
    for (const auto& call : sub.others.take()) {
      if (call.url.ends_with("/result")) ids.push_back(json::parse(call.body)["command_id"]);
    }
    return ids;
  };
  EXPECT_THAT(reported(), ElementsAre("c1", "c2"));

  json deep = 0;
  for (int i = 0; i < 300; ++i) deep = json::array({std::move(deep)});
  sub.hierarchy.reportCommandResult("c3", true, deep, "");
  const json report = json::parse(sub.others.take().at(0).body);
  EXPECT_EQ(report["success"], false);
  EXPECT_EQ(report["error"], "The result is too large to be reported");
  EXPECT_TRUE(reported().empty());
}

TEST(ControllerHierarchy, OnlyTheLatestResultsAreKept) {
  CommandBook book;
  for (std::size_t i = 0; i <= CommandBook::kMaxResults; ++i) {
    CommandResult result;
    result.command_id = std::to_string(i);
    book.storeResult(result);
    book.storeResult(result);
  }
  EXPECT_FALSE(book.result("0"));
  EXPECT_TRUE(book.result("1"));
  EXPECT_TRUE(book.result(std::to_string(CommandBook::kMaxResults)));

  CommandBook small(1000);
  CommandResult large;
  large.result = std::string(600, 'x');
  for (const char* id : {"large", "larger"}) {
    large.command_id = id;
    small.storeResult(large);
  }
  EXPECT_FALSE(small.result("large"));
  EXPECT_TRUE(small.result("larger"));
}

}  // namespace
}  // namespace tavrel::controller
