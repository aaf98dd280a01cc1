#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "worker/typed_worker_registry.h"

namespace tavrel::worker {
namespace {

using nlohmann::json;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

const platform::WallTime kFirstSeen{seconds{1'700'000'000}};

TypedWorkerInfo registered(WorkerKind kind, json body, platform::WallTime now = kFirstSeen) {
  if (!body.contains("url")) body["url"] = "http://box:1";
  auto read = typedWorkerFromRegistration(typedWorkerKind(kind), body, "10.0.0.5", now);
  EXPECT_TRUE(std::holds_alternative<TypedWorkerInfo>(read)) << body;
  return std::get<TypedWorkerInfo>(read);
}

std::string refusalOf(WorkerKind kind, const json& body) {
  const auto read =
      typedWorkerFromRegistration(typedWorkerKind(kind), body, "10.0.0.5", kFirstSeen);
  const auto* refusal = std::get_if<std::string>(&read);
  return refusal == nullptr ? "" : *refusal;
}

TEST(TypedWorkerKinds, TableIsInOrderAndNamesDiffer) {
  std::set<std::string> texts;
  std::size_t place = 0;
  for (const TypedWorkerKind& kind : typedWorkerKinds()) {
    EXPECT_EQ(static_cast<std::size_t>(kind.kind), place++);
    for (const char* text : {kind.prefix, kind.label, kind.id_key, kind.list_key}) {
      EXPECT_TRUE(texts.insert(text).second) << text;
    }
    const bool announced = kind.online != nullptr;
    EXPECT_EQ(announced, kind.reaped) << kind.prefix;
    EXPECT_EQ(announced, kind.offline != nullptr) << kind.prefix;
  }
}

TEST(TypedWorker, DataWorkerCarriesItsStorage) {
  const TypedWorkerInfo info = registered(
      WorkerKind::kData,
      json::parse(R"({"daemon_id": "d1", "daemon_name": "store", "url": "http://box:8892/",
        "storage_enabled": true, "nfs_enabled": true, "nfs_port": 2049,
        "storage_capacity_bytes": 3221225472, "databases": ["pg"], "capabilities": ["databases"]})"));
  const json record = info.toJson(kFirstSeen + seconds{90});
  EXPECT_EQ(record, json::parse(R"({"id": "d1", "name": "store", "url": "http://box:8892",
    "hostname": "", "status": "online", "worker_type": "data", "capabilities": ["databases"],
    "registered_at": 1700000000, "last_heartbeat": 1700000000, "data_sources": ["pg"],
    "storage_enabled": true, "storage_backend": "filesystem", "storage_path": "",
    "nfs_enabled": true, "nfs_port": 2049, "storage_capacity_bytes": 3221225472,
    "storage_used_bytes": 0, "storage_capacity_gb": 3.0, "storage_used_gb": 0.0,
    "tenant_count": 0})"));
  EXPECT_EQ(info.kind->log_suffix(info), " (storage: filesystem) (nfs:2049)");
  EXPECT_EQ(info.toJson(kFirstSeen + seconds{91})["status"], "offline");
  EXPECT_TRUE(info.hasCapability("databases"));
  EXPECT_FALSE(info.hasCapability("data"));
}

TEST(TypedWorker, UrlIsBuiltFromAddressAndPort) {
  const auto& data = typedWorkerKind(WorkerKind::kData);
  const json body = {{"id", "d"}, {"ip_address", "10.1.1.1"}, {"port", 8892}};
  auto read = typedWorkerFromRegistration(data, body, "", kFirstSeen);
  EXPECT_EQ(std::get<TypedWorkerInfo>(read).url, "http://10.1.1.1:8892");
  read = typedWorkerFromRegistration(typedWorkerKind(WorkerKind::kSwarm),
                                     {{"controller_id", "s"},
                                      {"controller_name", "n"},
                                      {"ip_address", "10.1.1.1"},
                                      {"web_api_port", 7000}},
                                     "", kFirstSeen);
  EXPECT_EQ(std::get<TypedWorkerInfo>(read).url, "http://10.1.1.1:7000");
  EXPECT_EQ(std::get<TypedWorkerInfo>(read).name, "n");

  const std::string refusal = "daemon_id and url (or ip_address+port) are required";
  EXPECT_EQ(refusalOf(WorkerKind::kMedia, {{"url", "http://box:1"}}), refusal);
  EXPECT_EQ(refusalOf(WorkerKind::kMedia, {{"id", "m"}, {"ip_address", "10.1.1.1"}}), refusal);
  EXPECT_EQ(refusalOf(WorkerKind::kSwarm, {{"id", "s"}}),
            "controller_id and url (or ip_address+web_api_port) are required");
  EXPECT_NE(refusalOf(WorkerKind::kData, {{"id", "d"}, {"url", "file:///etc/shadow"}}), "");
}

TEST(TypedWorker, KindsReadWhatIsTheirs) {
  const auto training =
      registered(WorkerKind::kTraining,
                 json::parse(R"({"id": "t", "backends": ["a", {"backend": "b", "available": false},
                      {"backend": "c"}], "gpus": [{"name": "X", "total_memory": 1073741824},
                                                  {"name": "X", "total_memory": 1073741824}]})"));
  EXPECT_EQ(training.kind->log_suffix(training), " (backends: a c) (2x X)");
  EXPECT_EQ(training.toJson(kFirstSeen)["gpu_memory_gb"], 2.0);

  const auto native = registered(
      WorkerKind::kNativeInference,
      {{"id", "n"}, {"loaded_models", {"m1", "m2"}}, {"has_metal", true}, {"has_cuda", true}});
  EXPECT_EQ(native.kind->log_suffix(native), " (models: m1 m2) (GPU: Metal CUDA)");

  const auto media =
      registered(WorkerKind::kMedia, {{"id", "m"}, {"tts_backend", "p"}, {"stt_backend", "w"}});
  EXPECT_EQ(media.kind->log_suffix(media), " (tts: p) (stt: w)");
  const auto comm = registered(WorkerKind::kComm, {{"id", "c"}, {"protocols", {"smtp", "xmpp"}}});
  EXPECT_EQ(comm.kind->log_suffix(comm), " (protocols: smtp xmpp)");

  const auto agent = registered(WorkerKind::kAgent, {{"id", "a"}});
  EXPECT_EQ(agent.capabilities, json::array({"rag"}));
  EXPECT_TRUE(agent.toJson(kFirstSeen)["healthy"]);
  const auto object = registered(
      WorkerKind::kAgent, {{"id", "a"}, {"capabilities", {{"rag", true}, {"search", false}}}});
  EXPECT_TRUE(object.hasCapability("rag"));
  EXPECT_FALSE(object.hasCapability("search"));
}

TEST(TypedWorker, HeartbeatRefreshesWhatItCarries) {
  TypedWorkerInfo info = registered(
      WorkerKind::kComm, {{"id", "c"}, {"account_count", 3}, {"capabilities", {"mail"}}});
  info.status = "offline";
  applyTypedHeartbeat(info, {{"message_count", 1e300}, {"webhook_port", -1e300}},
                      kFirstSeen + seconds{10});
  EXPECT_EQ(info.status, "online");
  EXPECT_EQ(info.last_heartbeat, kFirstSeen + seconds{10});
  EXPECT_EQ(info.registered_at, kFirstSeen);
  EXPECT_EQ(info.number("account_count"), 3);
  EXPECT_EQ(info.details["message_count"], ~std::uint64_t{0});
  EXPECT_EQ(info.details["webhook_port"], std::numeric_limits<std::int32_t>::min());
  EXPECT_TRUE(info.hasCapability("mail"));

  const TypedWorkerInfo before = info;
  for (const json& body : {json{{"account_count", 9}, {"protocols", "smtp"}},
                           json{{"account_count", 9}, {"capabilities", "mail"}}, json::array()}) {
    EXPECT_THROW(applyTypedHeartbeat(info, body, kFirstSeen), json::exception);
    EXPECT_EQ(info.details, before.details);
  }
}

TEST(TypedWorkerRegistry, SilentDaemonsAreReapedWhereTheKindIs) {
  TypedWorkerRegistries typed;
  for (const TypedWorkerKind& kind : typedWorkerKinds()) {
    typed.of(kind.kind).registerWorker(registered(kind.kind, {{"id", "x"}, {"name", "n"}}));
  }
  EXPECT_THAT(typed.reap(kFirstSeen + seconds{90}), IsEmpty());
  const auto lines = typed.reap(kFirstSeen + seconds{95});
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[0], "[DataWorkers] Worker x (n) marked offline - no heartbeat for 95s");
  EXPECT_EQ(lines[3].substr(0, 13), "[CommWorkers]");
  EXPECT_THAT(typed.reap(kFirstSeen + seconds{96}), IsEmpty());
  EXPECT_EQ(typed.reap(kFirstSeen + seconds{301})[5],
            "[TrainingWorkers] Removing stale worker x (n) - offline for 301s");
  EXPECT_EQ(typed.of(WorkerKind::kTraining).size(), 0u);
  const auto swarm = typed.of(WorkerKind::kSwarm).find("x");
  ASSERT_NE(swarm, nullptr);
  EXPECT_EQ(swarm->toJson(kFirstSeen + std::chrono::hours{24})["status"], "offline");
}

TEST(TypedWorkerRegistry, NativeInferenceWorkersMakeRoomForTheirSuccessors) {
  TypedWorkerRegistry registry(typedWorkerKind(WorkerKind::kNativeInference));
  const auto put = [&registry](const char* id, const char* name, const char* url,
                               platform::WallTime now = kFirstSeen) {
    std::vector<std::string> purged;
    for (const PurgedWorker& worker : registry.registerWorker(registered(
             WorkerKind::kNativeInference, {{"id", id}, {"name", name}, {"url", url}}, now))) {
      purged.push_back(worker.id + (worker.replaced ? " replaced" : " stale"));
    }
    return purged;
  };
  EXPECT_THAT(put("a", "rig", "http://box:1"), IsEmpty());
  EXPECT_THAT(put("a", "rig", "http://box:1"), IsEmpty());
  EXPECT_THAT(put("b", "rig", "http://box:2"), ElementsAre("a replaced"));
  EXPECT_THAT(put("c", "other", "http://box:2/"), ElementsAre("b replaced"));
  EXPECT_THAT(put("d", "", "http://box:3"), IsEmpty());
  EXPECT_THAT(put("e", "", "http://box:4"), IsEmpty());  // no name is no name in common
  EXPECT_THAT(put("f", "rig", "http://box:5", kFirstSeen + seconds{300}), IsEmpty());
  EXPECT_THAT(put("f", "rig", "http://box:5", kFirstSeen + seconds{301}),
              ElementsAre("c stale", "d stale", "e stale"));
}

TEST(TypedWorkerRegistry, OnlyReachableDaemonsAreOffered) {
  TypedWorkerRegistry registry(typedWorkerKind(WorkerKind::kData));
  const auto& kind = registry.kind();
  const auto implicit = [&](const char* id, const json& body) {
    return std::get<TypedWorkerInfo>(
        typedWorkerFromHeartbeat(kind, id, body, "10.0.0.5", kFirstSeen));
  };
  registry.registerWorker(implicit("a", json::object()));  // nobody knows where it is
  registry.registerWorker(implicit("b", {{"hostname", "box"}}));
  registry.registerWorker(implicit("b2", {{"hostname", "box/../x"}}));
  registry.registerWorker(registered(WorkerKind::kData, {{"id", "c"}, {"url", "http://c:1"}}));
  EXPECT_THAT(registry.onlineUrls(kFirstSeen), ElementsAre("http://box:8892", "http://c:1"));
  EXPECT_EQ(registry.firstOnline(kFirstSeen)->id, "b");
  registry.update("b", [](TypedWorkerInfo& info) { info.status = "offline"; });
  EXPECT_EQ(registry.firstOnline(kFirstSeen)->id, "c");
  EXPECT_EQ(registry.firstOnline(kFirstSeen + seconds{91}), nullptr);
  EXPECT_EQ(registry.remove("c")->id, "c");
  EXPECT_EQ(registry.remove("c"), nullptr);
}

TEST(TypedWorkerRegistry, ConcurrentUseLosesNoHeartbeat) {
  TypedWorkerRegistries typed;
  TypedWorkerRegistry& registry = typed.of(WorkerKind::kMedia);
  constexpr int kHeartbeats = 300;
  registry.registerWorker(registered(WorkerKind::kMedia, {{"id", "shared"}}));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&registry, own = "own" + std::to_string(thread)] {
      for (int i = 0; i < kHeartbeats; ++i) {
        registry.update("shared", [](TypedWorkerInfo& worker) {
          applyTypedHeartbeat(worker, {{"active_jobs", worker.number("active_jobs") + 1}},
                              kFirstSeen);
        });
        registry.registerWorker(registered(WorkerKind::kMedia, {{"id", own}}, kFirstSeen));
        if (i % 7 == 0) registry.remove(own);
      }
    });
  }
  threads.emplace_back([&typed, &registry] {
    for (int i = 0; i < kHeartbeats; ++i) {
      typed.reap(kFirstSeen + seconds{i % 2 == 0 ? 0 : 91});
      for (const TypedWorkerPtr& worker : registry.snapshot()) {
        EXPECT_EQ(worker->toJson(kFirstSeen)["id"], worker->id);
      }
    }
  });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(registry.find("shared")->number("active_jobs"), 3 * kHeartbeats);
}

}  // namespace
}  // namespace tavrel::worker
