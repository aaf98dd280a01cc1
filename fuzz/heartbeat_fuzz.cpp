#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>
#include <variant>

#include "cluster/router_registry.h"
#include "worker/typed_worker_info.h"
#include "worker/worker_info.h"

// Whatever a daemon sends about itself: it is read or refused, and what was read can be listed.
namespace {

using nlohmann::json;
using tavrel::worker::TypedWorkerInfo;

const tavrel::platform::WallTime kNow{std::chrono::seconds{1'700'000'000}};

void check(bool holds) {
  if (!holds) std::abort();
}

void readInferenceWorker(const json& body) {
  tavrel::worker::WorkerInfo worker = tavrel::worker::workerFromRegistration(body, kNow);
  const json registered = worker.toJson();
  tavrel::worker::applyHeartbeat(worker, body, kNow);
  const json record = worker.toJson();
  check(record.dump().size() >= 2 && record.size() == registered.size());
  // A record reads back as what it says.
  tavrel::worker::WorkerInfo copy = tavrel::worker::workerFromRegistration(record, kNow);
  tavrel::worker::applyHeartbeat(copy, record, kNow);
  for (const char* key : {"metrics", "running_models", "config_id", "hostname"}) {
    check(copy.toJson()[key] == record[key]);
  }
}

void readTypedWorker(const tavrel::worker::TypedWorkerKind& kind, const json& body) {
  auto read = tavrel::worker::typedWorkerFromRegistration(kind, body, "10.0.0.5", kNow);
  auto* worker = std::get_if<TypedWorkerInfo>(&read);
  if (worker == nullptr) return;
  check(worker->url.starts_with("http://") || worker->url.starts_with("https://"));
  check(worker->url.find_first_of(" \r\n?#@") == std::string::npos);
  if (kind.log_suffix != nullptr) kind.log_suffix(*worker);
  const json record = worker->toJson(kNow);
  tavrel::worker::applyTypedHeartbeat(*worker, record, kNow);
  check(worker->toJson(kNow) == record);
}

template <class Read>
void tolerated(Read read) {
  try {
    read();
  } catch (const json::exception&) {
    // A value of a wrong type: the request is answered with 500.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const json body = json::parse(text, nullptr, false);
  if (body.is_discarded()) return 0;
  tolerated([&] { readInferenceWorker(body); });
  for (const auto& kind : tavrel::worker::typedWorkerKinds()) {
    tolerated([&] { readTypedWorker(kind, body); });
  }
  tolerated([&] {
    for (const auto& rule : tavrel::cluster::routerRulesFrom(body)) rule.toJson().dump();
  });
  tolerated([&] {
    tavrel::cluster::RouterRegistry routers;
    routers.heartbeat("r", body, kNow).router.toJson().dump();
  });
  return 0;
}
