#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <variant>

#include "worker/typed_worker_registry.h"

// What heartbeats of the specialised daemons cost among ten thousand of their kind, and a list of
// them all.
namespace tavrel::worker {
namespace {

using nlohmann::json;

const platform::WallTime kNow{std::chrono::seconds{1'700'000'000}};
constexpr int kDaemons = 10'000;

/// A heartbeat that has every member of the kind.
json heartbeatOf(const TypedWorkerKind& kind) {
  json body = {{"name", "rig"}, {"url", "http://10.0.0.1:8890"}, {"capabilities", {"a", "b", "c"}}};
  for (const TypedField& field : kind.fields) {
    switch (field.type) {
      case FieldType::kText:
        body[field.key] = "text";
        break;
      case FieldType::kFlag:
        body[field.key] = true;
        break;
      case FieldType::kInt32:
      case FieldType::kUint64:
        body[field.key] = 1234;
        break;
      case FieldType::kList:
      case FieldType::kAvailableNames:
        body[field.key] = {"one", "two", "three"};
        break;
      case FieldType::kGibibytes:
        break;
    }
  }
  return body;
}

std::string idOf(int number) {
  return "daemon-" + std::to_string(number);
}

void fill(TypedWorkerRegistry& registry) {
  json body = heartbeatOf(registry.kind());
  for (int i = 0; i < kDaemons; ++i) {
    body["name"] = body["id"] = idOf(i);
    body["url"] = "http://10.0." + std::to_string(i / 250) + '.' + std::to_string(i % 250) + ":1";
    auto read = typedWorkerFromHeartbeat(registry.kind(), idOf(i), body, "10.0.0.1", kNow);
    registry.registerWorker(std::get<TypedWorkerInfo>(std::move(read)));
  }
}

void heartbeat(benchmark::State& state, WorkerKind kind) {
  TypedWorkerRegistry registry(typedWorkerKind(kind));
  fill(registry);
  const std::string text = heartbeatOf(registry.kind()).dump();
  int next = 0;
  for (auto _ : state) {
    const json body = json::parse(text);
    registry.update(idOf(next = (next + 7919) % kDaemons),
                    [&](TypedWorkerInfo& info) { applyTypedHeartbeat(info, body, kNow); });
  }
}

void list(benchmark::State& state, WorkerKind kind) {
  TypedWorkerRegistry registry(typedWorkerKind(kind));
  fill(registry);
  for (auto _ : state) {
    json array = json::array();
    for (const TypedWorkerPtr& worker : registry.snapshot()) array.push_back(worker->toJson(kNow));
    benchmark::DoNotOptimize(array.dump());
  }
}

[[maybe_unused]] const bool kRegistered = [] {
  for (const TypedWorkerKind& kind : typedWorkerKinds()) {
    const std::string noun = kind.noun;
    benchmark::RegisterBenchmark(("heartbeat/" + noun).c_str(), heartbeat, kind.kind)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark(("list/" + noun).c_str(), list, kind.kind)
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace
}  // namespace tavrel::worker
