#include "inference/in_flight_board.h"
#include "support/workers.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

namespace tavrel::inference {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const platform::SteadyTime kStart = platform::SteadyTime() + std::chrono::hours(1);

class InFlightBoardTest : public testing::Test {
 protected:
  void add(const std::string& id, float cpu = 0, const std::string& address = "10.0.0.1",
           std::vector<std::string> models = {"m"}) {
    worker::WorkerInfo info = test::onlineWorker(id, 8090, std::move(models));
    info.ip_address = address;
    info.metrics.cpu_usage = cpu;
    registry_.registerWorker(std::move(info), false);
  }

  WorkerLease choose(platform::SteadyTime now = kStart, std::vector<std::string> tried = {}) {
    return board_.choose("m", tried, now);
  }
  std::string chosenId(platform::SteadyTime now = kStart, std::vector<std::string> tried = {}) {
    const WorkerLease lease = choose(now, std::move(tried));
    return lease ? lease.worker().worker_id : "";
  }
  /// Lets the worker fail, whatever else there is to choose.
  void fail(const std::string& id, int times, platform::SteadyTime now) {
    std::vector<std::string> others;
    for (const auto& worker : registry_.snapshot()) {
      if (worker->worker_id != id) others.push_back(worker->worker_id);
    }
    for (int i = 0; i < times; ++i) {
      WorkerLease lease = choose(now, others);
      ASSERT_TRUE(lease) << id;
      lease.end(LeaseEnd::kFault, now);
    }
  }

  worker::WorkerRegistry registry_;
  InFlightBoard board_{registry_};
};

TEST_F(InFlightBoardTest, RequestsUnderWayDecideThenLoadThenRotation) {
  add("a", 60);
  add("b", 10);
  add("c", 10.5F);  // the same load in whole points
  WorkerLease first = choose();
  WorkerLease second = choose();
  WorkerLease third = choose();
  EXPECT_EQ(first.worker().worker_id, "b");
  EXPECT_EQ(second.worker().worker_id, "c");
  EXPECT_EQ(third.worker().worker_id, "a");
  second.end(LeaseEnd::kAnswered, kStart);
  EXPECT_EQ(chosenId(), "c");
  first = WorkerLease();
  EXPECT_EQ(chosenId(), "b");
  EXPECT_EQ(chosenId(), "c");
  EXPECT_EQ(chosenId(), "b");
  EXPECT_EQ(board_.inFlight("a"), 1U);
  EXPECT_EQ(board_.inFlight("b"), 0U);
  EXPECT_FALSE(board_.choose("other", {}, kStart));
}

TEST_F(InFlightBoardTest, TheLastIsNeverOverlooked) {
  add("a");
  fail("a", 5, kStart);
  EXPECT_EQ(chosenId(), "a");
  add("b");
  EXPECT_EQ(chosenId(), "b");
  EXPECT_EQ(chosenId(kStart, {"b"}), "");
}

TEST_F(InFlightBoardTest, AWorkerThatMovedStartsAfresh) {
  add("a");
  add("b");
  WorkerLease old = choose(kStart, {"b"});
  fail("a", 3, kStart);
  EXPECT_EQ(board_.passedOver(kStart), 1U);
  add("a", 0, "10.0.0.9");
  EXPECT_EQ(chosenId(kStart, {"b"}), "a");
  EXPECT_EQ(board_.passedOver(kStart), 0U);
  // What is still under way at the old address counts as busy, but not as a fault.
  fail("a", 2, kStart);
  old.end(LeaseEnd::kFault, kStart);
  EXPECT_EQ(board_.passedOver(kStart), 0U);
  fail("a", 1, kStart);
  EXPECT_EQ(board_.passedOver(kStart), 1U);
}

TEST_F(InFlightBoardTest, LeasesOutliveTheirWorkersRegistration) {
  add("a");
  WorkerLease lease = choose();
  registry_.remove("a");
  EXPECT_FALSE(choose());
  add("a");
  EXPECT_EQ(board_.inFlight("a"), 1U);
  for (int i = 0; i < 1000; ++i) {  // ids that come once must not stay forever
    add("x" + std::to_string(i), -1);
    choose(kStart, {"a"}).end(LeaseEnd::kAnswered, kStart);
    registry_.remove("x" + std::to_string(i));
  }
  EXPECT_EQ(board_.inFlight("a"), 1U);
  lease.end(LeaseEnd::kFault, kStart);
  EXPECT_EQ(board_.inFlight("a"), 1U);
  EXPECT_EQ(chosenId(kStart + seconds(2)), "a");
  EXPECT_EQ(board_.inFlight("a"), 0U);
}

/// The rules once more, over a plain list.
class NaiveBoard {
 public:
  struct Worker {
    int load = 0;
    int in_flight = 0;
    std::vector<platform::SteadyTime> held;
    long chosen = 0;
    WorkerHealth health;
  };

  std::string choose(const std::string& tried, platform::SteadyTime now) {
    std::vector<std::tuple<platform::SteadyTime, std::array<long, 3>, std::string>> passed;
    for (auto& [id, worker] : workers) {
      std::erase_if(worker.held, [now](auto until) { return until <= now; });
      if (worker.health.passedOver(now)) {
        passed.emplace_back(worker.health.until(), key(worker), id);
      }
    }
    std::sort(passed.begin(), passed.end());
    const std::size_t kept = std::min(passed.size(), workers.size() / 2);
    passed.erase(passed.begin(), passed.end() - static_cast<std::ptrdiff_t>(kept));
    std::string best;
    for (auto& [id, worker] : workers) {
      const bool out = id == tried || std::any_of(passed.begin(), passed.end(),
                                                  [&](auto& p) { return std::get<2>(p) == id; });
      if (!out && (best.empty() || key(worker) < key(workers[best]))) best = id;
    }
    if (!best.empty()) {
      ++workers[best].in_flight;
      workers[best].chosen = ++choices_;
    }
    return best;
  }

  void end(const std::string& id, LeaseEnd how, platform::SteadyTime now) {
    Worker& worker = workers[id];
    --worker.in_flight;
    if (how == LeaseEnd::kFault) worker.health.failed(now);
    if (how == LeaseEnd::kAnswered) worker.health.succeeded();
    if (how == LeaseEnd::kFault || how == LeaseEnd::kBackPressure) {
      worker.held.push_back(now + InFlightBoard::kHold);
    }
  }

  std::map<std::string, Worker> workers;

 private:
  static std::array<long, 3> key(const Worker& worker) {
    return {worker.in_flight + static_cast<long>(worker.held.size()), worker.load, worker.chosen};
  }
  long choices_ = 0;
};

TEST_F(InFlightBoardTest, ChoosesLikeAPlainWalkOverAllWorkers) {
  std::mt19937 random(7);  // NOLINT: the same run every time
  NaiveBoard naive;
  std::vector<WorkerLease> leases;
  platform::SteadyTime now = kStart;
  for (int i = 0; i < 7; ++i) add("w" + std::to_string(i));
  for (int i = 0; i < 7; ++i) naive.workers["w" + std::to_string(i)];
  for (int step = 0; step < 20000; ++step) {
    now += milliseconds(random() % 90);
    if (random() % 20 == 0) {
      const std::string id = "w" + std::to_string(random() % 7);
      const int load = static_cast<int>(random() % 3);
      add(id, static_cast<float>(load * 2));
      naive.workers[id].load = load;
    }
    if (leases.size() > 12 || (!leases.empty() && random() % 2 == 0)) {
      std::swap(leases[random() % leases.size()], leases.back());
      constexpr std::array kEnds = {LeaseEnd::kAnswered,     LeaseEnd::kFault,
                                    LeaseEnd::kFault,        LeaseEnd::kFault,
                                    LeaseEnd::kBackPressure, LeaseEnd::kUndecided};
      const LeaseEnd how = kEnds[random() % kEnds.size()];
      naive.end(leases.back().worker().worker_id, how, now);
      leases.back().end(how, now);
      leases.pop_back();
    } else {
      const std::string tried = random() % 3 == 0 ? "w" + std::to_string(random() % 7) : "";
      WorkerLease lease = choose(now, {tried});
      ASSERT_EQ(lease ? lease.worker().worker_id : "", naive.choose(tried, now)) << step;
      if (lease) leases.push_back(std::move(lease));
    }
  }
}

TEST_F(InFlightBoardTest, CountsRightUnderManyThreads) {
  for (int i = 0; i < 4; ++i) add("w" + std::to_string(i));
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 500; ++i) {
        WorkerLease lease = choose(kStart + milliseconds(i));
        if (i % 50 == t) add("w" + std::to_string(t), 0, "10.0.0." + std::to_string(i));
        lease.end(i % 3 == 0 ? LeaseEnd::kFault : LeaseEnd::kAnswered, kStart + milliseconds(i));
      }
    });
  }
  threads.clear();
  EXPECT_TRUE(choose(kStart + seconds(100)));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(board_.inFlight("w" + std::to_string(i)), 0U);
}

}  // namespace
}  // namespace tavrel::inference
