#include "cluster/worker_pool.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "support/mock_peer.h"
#include "unit/cluster/fake_transport.h"

namespace tavrel::cluster {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

NodeInfo aWorker(const std::string& id, std::vector<std::string> capabilities = {}) {
  NodeInfo node;
  node.id = id;
  node.address = id;
  node.port = 80;
  node.type = NodeType::kWorker;
  node.status = NodeStatus::kHealthy;
  node.capabilities = std::move(capabilities);
  return node;
}

WorkerTask aTask(const std::string& type, std::int32_t priority = 0,
                 std::int32_t timeout_ms = 5000) {
  WorkerTask task;
  task.type = type;
  task.priority = priority;
  task.timeout_ms = timeout_ms;
  return task;
}

ClusterAnswer good(const json& result = "done") {
  return {"", 200, json{{"success", true}, {"result", result}, {"stdout", "out"}}.dump()};
}

struct WorkerPoolTest : testing::Test {
  /// A pool with one dispatcher whose first task, "first", runs until `gate` opens.
  void startWithOneTaskThatRuns() {
    registry.registerNode(aWorker("w"));
    transport.answerWith([this](const ClusterCall& call) {
      if (json::parse(call.body)["type"] == "first") gate.waitUntilOpen();
      return good();
    });
    pool.start(1);
    first = pool.submitAsync(aTask("first"));
    while (pool.getRunningTasks().empty()) std::this_thread::yield();
  }
  std::vector<std::string> typesSent() {
    std::vector<std::string> types;
    for (const ClusterCall& call : transport.take()) {
      types.push_back(json::parse(call.body)["type"]);
    }
    return types;
  }

  test::Gate gate;
  NodeRegistry registry;
  LoadBalancer balancer{registry, LoadBalanceStrategy::kLeastLoad};
  test::FakeTransport transport;
  WorkerPool pool{registry, balancer, transport};
  std::future<WorkerResult> first;
};

TEST_F(WorkerPoolTest, ATaskIsPostedAndItsResultKept) {
  registry.registerNode(aWorker("w"));
  NodeInfo controller = aWorker("a-controller");
  controller.type = NodeType::kController;
  registry.registerNode(controller);
  transport.answerWith([](const ClusterCall&) { return good(json{{"a", 1}}); });
  pool.start(2);
  WorkerTask task = aTask("bash");
  task.payload = {{"command", "x"}};
  const WorkerResult result = pool.submitSync(task);
  EXPECT_TRUE(result.success);
  EXPECT_EQ(result.result, (json{{"a", 1}}));
  EXPECT_EQ(result.standard_output, "out");

  const std::vector<ClusterCall> calls = transport.take();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].to, (Endpoint{"w", 80}));
  EXPECT_EQ(calls[0].path, "/worker/execute");
  EXPECT_EQ(calls[0].total, 5000ms);
  const json body = json::parse(calls[0].body);
  EXPECT_EQ(body["payload"], task.payload);
  EXPECT_EQ(body["timeout_ms"], 5000);
  const json status = pool.getTaskStatus(body["task_id"])->toJson();
  EXPECT_EQ(status["status"], "completed");
  EXPECT_EQ(status["node_id"], "w");
  EXPECT_EQ(status["result"]["result"]["a"], 1);
  EXPECT_EQ(balancer.getStats()["connection_counts"], (json{{"w", 0}}));
}

TEST_F(WorkerPoolTest, HigherPrioritiesRunFirstAndEqualsInOrder) {
  startWithOneTaskThatRuns();
  std::vector<std::future<WorkerResult>> results;
  results.push_back(pool.submitAsync(aTask("low", -2147483648)));
  results.push_back(pool.submitAsync(aTask("normal one")));
  results.push_back(pool.submitAsync(aTask("normal two")));
  results.push_back(pool.submitAsync(aTask("high", 5)));
  EXPECT_EQ(pool.getQueueDepth(), 4u);
  EXPECT_EQ(pool.getBusyWorkerCount(), 1u);
  EXPECT_EQ(pool.getPendingTasks().front().task.type, "high");
  gate.open();
  for (auto& result : results) EXPECT_TRUE(result.get().success);
  EXPECT_EQ(typesSent(),
            (std::vector<std::string>{"first", "high", "normal one", "normal two", "low"}));
  const json stats = pool.getStats();
  EXPECT_EQ(stats["total_submitted"], 5);
  EXPECT_EQ(stats["total_completed"], 5);
  EXPECT_EQ(stats["total_failed"], 0);
  EXPECT_EQ(stats["queue_depth"], 0);
  EXPECT_EQ(stats["worker_count"], 1);
  EXPECT_GT(stats["avg_exec_time_ms"], 0);
}

TEST_F(WorkerPoolTest, ATaskThatNobodyCanDoWaitsWithinItsTimeoutAndHoldsUpNobody) {
  registry.registerNode(aWorker("w", {"cpu"}));
  transport.answerWith([](const ClusterCall& call) { return good(call.to.host); });
  pool.start(1);
  WorkerTask picky = aTask("picky", 9, 400);
  picky.requirements.capabilities = {"gpu"};
  auto hopeless = pool.submitAsync(picky);
  picky.requirements.model = "m";
  picky.timeout_ms = 10'000;
  auto patient = pool.submitAsync(picky);
  EXPECT_TRUE(pool.submitSync(aTask("easy")).success);
  const WorkerResult failed = hopeless.get();
  EXPECT_FALSE(failed.success);
  EXPECT_EQ(failed.error, "No available worker for task");
  NodeInfo late = aWorker("late", {"gpu"});
  late.models = {"m"};
  registry.registerNode(late);
  EXPECT_EQ(patient.get().result, "late");
  EXPECT_EQ(pool.getStats()["total_failed"], 1);
}

TEST_F(WorkerPoolTest, AQueuedTaskFailsInTimeAlsoWhileAllDispatchersAreBusy) {
  startWithOneTaskThatRuns();
  EXPECT_EQ(pool.submitAsync(aTask("second", 0, 100)).wait_for(3s), std::future_status::ready);
  gate.open();
}

TEST_F(WorkerPoolTest, OnlyQueuedTasksCanBeCancelled) {
  startWithOneTaskThatRuns();
  auto second = pool.submitAsync(aTask("second"));
  const std::string id = pool.getPendingTasks().front().task.task_id;
  EXPECT_TRUE(pool.cancel(id));
  EXPECT_FALSE(pool.cancel(id));
  EXPECT_FALSE(pool.cancel(pool.getRunningTasks().front().task.task_id));
  EXPECT_FALSE(pool.cancel("unknown"));
  EXPECT_EQ(second.get().error, "Task cancelled");
  EXPECT_EQ(pool.getTaskStatus(id)->state, TaskState::kCancelled);
  gate.open();
  first.get();
  EXPECT_EQ(typesSent(), std::vector<std::string>{"first"});
}

TEST_F(WorkerPoolTest, WhatTheNodeAnswersBadlyIsAFailure) {
  registry.registerNode(aWorker("w"));
  ClusterAnswer answer;
  transport.answerWith([&](const ClusterCall&) { return answer; });
  pool.start(1);
  for (const auto& [given, error] : std::vector<std::pair<ClusterAnswer, std::string>>{
           {{"Timeout was reached", 0, ""}, "Timeout was reached"},
           {{"", 401, "{}"}, "HTTP 401"},
           {{"", 200, "<html>"}, "Failed to parse response: "},
           {{"", 200, "[]"}, "Failed to parse response: "},
           {{"", 200, R"({"success":"yes"})"}, "Failed to parse response: "},
           {{"", 200, R"({"success":false,"error":"no","exit_code":2})"}, "no"}}) {
    answer = given;
    const WorkerResult result = pool.submitSync(aTask("t"));
    EXPECT_FALSE(result.success);
    EXPECT_TRUE(result.error.starts_with(error)) << result.error;
    EXPECT_NE(result.exit_code, 0);
  }
}

TEST_F(WorkerPoolTest, StopFailsTheQueueAndLaterTasksAreRefused) {
  EXPECT_EQ(pool.submit(aTask("early")), "");
  startWithOneTaskThatRuns();
  auto second = pool.submitAsync(aTask("second", 0, 1'000'000));
  std::jthread stopper([&] { pool.stop(); });
  EXPECT_EQ(second.get().error, "Worker pool stopped");
  gate.open();
  stopper.join();
  EXPECT_TRUE(first.get().success);
  EXPECT_FALSE(pool.submitSync(aTask("late")).success);
}

TEST_F(WorkerPoolTest, OldResultsAndAFullQueueAreBounded) {
  pool.start(1);
  const std::string oldest = pool.submit(aTask("t"));
  for (std::size_t i = 1; i < WorkerPool::kMaxQueued; ++i) pool.submit(aTask("t"));
  EXPECT_EQ(pool.submit(aTask("t")), "");
  const std::vector<TaskStatus> queued = pool.getPendingTasks();
  ASSERT_EQ(queued.size(), WorkerPool::kMaxQueued);
  for (const TaskStatus& task : queued) pool.cancel(task.task.task_id);
  EXPECT_FALSE(pool.getTaskStatus(oldest));
  EXPECT_TRUE(pool.getTaskStatus(queued.back().task.task_id));
  EXPECT_EQ(pool.getQueueDepth(), 0u);
}

}  // namespace
}  // namespace tavrel::cluster
