#include "worker/worker_registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <thread>

namespace tavrel::worker {
namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

const platform::WallTime kStart{seconds{1'700'000'000}};

WorkerInfo aWorker(const std::string& id, const std::string& name,
                   std::vector<std::string> models = {}) {
  WorkerInfo worker;
  worker.worker_id = id;
  worker.worker_name = name;
  worker.status = WorkerStatus::kOnline;
  worker.last_heartbeat = kStart;
  worker.capabilities.installed_models = std::move(models);
  return worker;
}

std::vector<std::string> idsOf(const std::vector<WorkerPtr>& workers) {
  std::vector<std::string> ids;
  for (const WorkerPtr& worker : workers) ids.push_back(worker->worker_id);
  return ids;
}

void setStatus(WorkerRegistry& registry, const std::string& id, WorkerStatus status) {
  ASSERT_TRUE(registry.update(id, [status](WorkerInfo& worker) { worker.status = status; }));
}

TEST(WorkerRegistry, SameNameDisplacesAndEmptyNamesOnlyWhenAsked) {
  WorkerRegistry registry;
  EXPECT_THAT(registry.registerWorker(aWorker("w1", "rig"), true), IsEmpty());
  EXPECT_THAT(registry.registerWorker(aWorker("w1", "rig"), true), IsEmpty());
  EXPECT_THAT(registry.registerWorker(aWorker("w2", "rig"), false), ElementsAre("w1"));
  EXPECT_THAT(registry.registerWorker(aWorker("b", ""), false), IsEmpty());
  EXPECT_THAT(registry.registerWorker(aWorker("a", ""), false), IsEmpty());
  EXPECT_THAT(registry.registerWorker(aWorker("c", ""), true), ElementsAre("a", "b"));
  EXPECT_THAT(idsOf(registry.snapshot()), ElementsAre("c", "w2"));
  // The name a record had before it registered anew no longer counts.
  registry.registerWorker(aWorker("w2", "other"), true);
  EXPECT_THAT(registry.registerWorker(aWorker("w3", "rig"), true), IsEmpty());
}

TEST(WorkerRegistry, SilenceIsJudgedToTheNanosecond) {
  WorkerRegistry registry;
  registry.registerWorker(aWorker("busy", "b"), true);
  setStatus(registry, "busy", WorkerStatus::kBusy);
  registry.registerWorker(aWorker("quiet", "q"), true);
  EXPECT_THAT(registry.reap(kStart + nanoseconds{90'999'999'999}), IsEmpty());
  EXPECT_THAT(registry.reap(kStart - seconds{5000}), IsEmpty());  // the clock was set back

  auto reaped = registry.reap(kStart + seconds{91});
  ASSERT_EQ(reaped.size(), 1u);
  EXPECT_EQ(reapedLine("Workers", reaped[0]),
            "[Workers] Worker quiet (q) marked offline - no heartbeat for 91s");
  EXPECT_EQ(registry.find("quiet")->status, WorkerStatus::kOffline);
  EXPECT_EQ(registry.find("busy")->status, WorkerStatus::kBusy);
  EXPECT_THAT(registry.reap(kStart + nanoseconds{300'999'999'999}), IsEmpty());

  setStatus(registry, "quiet", WorkerStatus::kOnline);
  reaped = registry.reap(kStart + seconds{301} + nanoseconds{999'999'999});
  ASSERT_EQ(reaped.size(), 2u);
  EXPECT_EQ(reapedLine("Workers", reaped[1]),
            "[Workers] Removing stale worker quiet (q) - offline for 301s");
  EXPECT_EQ(registry.size(), 0u);
}

TEST(WorkerRegistry, AFailingUpdateChangesNothing) {
  WorkerRegistry registry;
  registry.registerWorker(aWorker("w", "n"), true);
  const WorkerPtr before = registry.find("w");
  const auto version = registry.version();
  EXPECT_THROW(registry.update("w",
                               [](WorkerInfo& worker) {
                                 worker.hostname = "half";
                                 throw std::runtime_error("bad");
                               }),
               std::runtime_error);
  EXPECT_EQ(registry.find("w"), before);
  EXPECT_EQ(registry.version(), version);
  EXPECT_FALSE(registry.update("unknown", [](WorkerInfo&) {}));
  EXPECT_FALSE(registry.remove("unknown"));
}

TEST(WorkerRegistry, AnUpdateThatWasOvertakenRunsAgainOnTheNewRecord) {
  WorkerRegistry registry;
  registry.registerWorker(aWorker("w", "n"), true);
  int runs = 0;
  registry.update("w", [&](WorkerInfo& worker) {
    if (++runs == 1) registry.update("w", [](WorkerInfo& other) { other.hostname = "kept"; });
    worker.arch = "arm64";
  });
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(registry.find("w")->hostname, "kept");
  EXPECT_EQ(registry.find("w")->arch, "arm64");
}

TEST(WorkerRegistry, ListingShowsEveryRecordAsItIsNow) {
  WorkerRegistry registry;
  EXPECT_EQ(registry.listing().workers, "[]");
  registry.registerWorker(aWorker("b", "1"), true);
  registry.registerWorker(aWorker("a", "\xff"), true);
  registry.listing();
  registry.update("b", [](WorkerInfo& worker) { worker.hostname = "new"; });
  const auto listed = nlohmann::json::parse(registry.listing().workers);
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0]["worker_id"], "a");
  EXPECT_EQ(listed[1], registry.find("b")->toJson());
}

TEST(WorkerRegistry, JournalThatDoesNotReachBackSaysSo) {
  WorkerRegistry registry;
  registry.registerWorker(aWorker("a", "a"), true);
  const auto since = registry.version();
  for (std::size_t i = 0; i < WorkerRegistry::kJournalLength; ++i) {
    setStatus(registry, "a", WorkerStatus::kBusy);
  }
  std::vector<WorkerChange> changes;
  bool complete = true;
  EXPECT_EQ(registry.changesSince(since, changes, &complete), registry.version());
  EXPECT_FALSE(complete);
  EXPECT_EQ(changes.size(), 1u);  // one worker, however often it changed
  registry.registerWorker(aWorker("b", "b"), true);
  changes.clear();
  registry.changesSince(since, changes, &complete);
  EXPECT_TRUE(complete);
  EXPECT_EQ(changes.size(), 2u);
  changes.clear();
  registry.changesSince(registry.version() + 7, changes, &complete);  // of another registry
  EXPECT_TRUE(complete);
}

/// What the registry promises, in the plainest form: a map that is searched.
struct PlainModel {
  std::map<std::string, WorkerInfo> workers;

  void put(const WorkerInfo& info, bool displace_empty_name) {
    if (displace_empty_name || !info.worker_name.empty()) {
      std::erase_if(workers, [&info](const auto& item) {
        return item.second.worker_name == info.worker_name && item.first != info.worker_id;
      });
    }
    workers[info.worker_id] = info;
  }

  void reap(platform::WallTime now) {
    std::erase_if(workers, [now](const auto& item) {
      return now - item.second.last_heartbeat >= seconds{301};
    });
    for (auto& [id, info] : workers) {
      if (info.status == WorkerStatus::kOnline && now - info.last_heartbeat >= seconds{91}) {
        info.status = WorkerStatus::kOffline;
      }
    }
  }

  std::map<std::string, std::vector<std::string>> onlineByModel() const {
    std::map<std::string, std::vector<std::string>> result;
    for (const auto& [id, info] : workers) {
      if (info.status != WorkerStatus::kOnline) continue;
      const auto& models = info.capabilities.installed_models;
      for (const auto& model : std::set<std::string>(models.begin(), models.end())) {
        result[model].push_back(id);
      }
    }
    return result;
  }
};

/// One random operation, done to both.
void step(std::mt19937& random, platform::WallTime& now, WorkerRegistry& registry,
          PlainModel& model) {
  const auto draw = [&random](unsigned bound) { return random() % bound; };
  const std::string id = "w" + std::to_string(draw(12));
  std::vector<std::string> models(draw(4));
  for (std::string& name : models) name = "m" + std::to_string(draw(5));
  switch (draw(6)) {
    case 0: {
      WorkerInfo info = aWorker(id, draw(3) == 0 ? "" : "n" + std::to_string(draw(9)), models);
      info.last_heartbeat = now;
      const bool displace_empty_name = draw(2) == 0;
      registry.registerWorker(info, displace_empty_name);
      model.put(info, displace_empty_name);
      break;
    }
    case 1:
      EXPECT_EQ(registry.remove(id), model.workers.erase(id) == 1);
      break;
    case 2:
      now += seconds{draw(120)};
      registry.reap(now);
      model.reap(now);
      break;
    default: {
      const auto status = static_cast<WorkerStatus>(draw(6));
      const bool new_models = draw(2) == 0;
      const auto change = [&](WorkerInfo& worker) {
        worker.status = status;
        worker.last_heartbeat = now;
        if (new_models) worker.capabilities.installed_models = models;
      };
      const bool known = model.workers.contains(id);
      EXPECT_EQ(registry.update(id, change), known);
      if (known) change(model.workers[id]);
    }
  }
}

TEST(WorkerRegistry, AgreesWithAPlainMapWhateverHappens) {
  std::mt19937 random(20240607);
  WorkerRegistry registry;
  PlainModel model;
  platform::WallTime now = kStart;
  std::map<std::string, WorkerPtr> follower;  // kept up to date from the journal alone
  std::uint64_t followed = 0;
  for (int i = 0; i < 20000 && !testing::Test::HasFailure(); ++i) {
    step(random, now, registry, model);
    const auto expected = model.onlineByModel();
    std::vector<std::string> names;
    for (const auto& [name, ids] : expected) {
      names.push_back(name);
      EXPECT_EQ(idsOf(registry.onlineWithModel(name)), ids);
    }
    EXPECT_EQ(registry.onlineModels(), names);
    EXPECT_EQ(registry.modelAvailable("m0"), expected.contains("m0"));
    if (random() % 8 != 0) continue;

    std::vector<WorkerChange> changes;
    bool complete = false;
    followed = registry.changesSince(followed, changes, &complete);
    if (complete) follower.clear();
    for (const WorkerChange& change : changes) {
      if (change.worker == nullptr) {
        follower.erase(change.worker_id);
      } else {
        follower[change.worker_id] = change.worker;
      }
    }
    std::vector<WorkerPtr> followed_workers;
    for (const auto& [id, worker] : follower) followed_workers.push_back(worker);
    EXPECT_EQ(followed_workers, registry.snapshot());
    ASSERT_EQ(followed_workers.size(), model.workers.size());
    for (const auto& [id, worker] : follower) EXPECT_EQ(worker->status, model.workers[id].status);
  }
}

TEST(WorkerRegistry, ConcurrentUseLosesNoHeartbeat) {
  WorkerRegistry registry;
  constexpr int kHeartbeats = 300;
  registry.registerWorker(aWorker("shared", "shared", {"m"}), true);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&registry, thread] {
      const std::string own = "own" + std::to_string(thread);
      for (int i = 0; i < kHeartbeats; ++i) {
        registry.update("shared", [](WorkerInfo& worker) { ++worker.config_timestamp; });
        registry.registerWorker(aWorker(own, own, {"m", own}), true);
        if (i % 7 == 0) registry.remove(own);
      }
    });
  }
  threads.emplace_back([&registry] {
    std::uint64_t since = 0;
    for (int i = 0; i < kHeartbeats; ++i) {
      std::vector<WorkerChange> changes;
      bool complete = false;
      since = registry.changesSince(since, changes, &complete);
      EXPECT_EQ(nlohmann::json::parse(registry.listing().workers).is_array(), true);
      EXPECT_FALSE(registry.onlineWithModel("m").empty());
      registry.reap(kStart + seconds{i % 2 == 0 ? 0 : 90});
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(registry.find("shared")->config_timestamp, 3 * kHeartbeats);
}

}  // namespace
}  // namespace tavrel::worker
