#include "cluster/worker_mirror.h"

#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "net/worker_client.h"
#include "platform/json_fields.h"
#include "platform/json_text.h"
#include "platform/text.h"
#include "worker/worker_registry.h"

namespace tavrel::cluster {

using nlohmann::json;
using platform::MutexLock;

namespace {

constexpr net::Timeouts kFetchTimeouts{std::chrono::seconds{5}, std::chrono::seconds{10}};
constexpr std::size_t kMaxListBytes = std::size_t{256} << 20;
/// A worker has about a hundred.
constexpr std::size_t kMaxListValues = std::size_t{16} << 20;

bool isLoopback(const std::string& host) {
  return host == "localhost" || host == "::1" || host.starts_with("127.");
}

/// The host of a URL, without brackets.
std::string hostOf(const std::string& url) {
  const std::string host = net::authorityOf(url);
  if (host.starts_with('[')) return host.substr(1, host.find(']') - 1);
  return host.substr(0, host.find(':'));
}

}  // namespace

net::HttpResult fetchWorkers(ControllerTransport& transport, const std::string& base_url) {
  ControllerCall call;
  call.url = net::joinUrl(base_url, "/api/v1/workers");
  call.timeouts = kFetchTimeouts;
  call.max_answer_bytes = kMaxListBytes;
  return transport.send(call);
}

WorkerList readWorkerList(const std::string& body, const std::string& base_url,
                          platform::WallTime now) {
  if (!platform::jsonWithinLimits(body, platform::kMaxForeignJsonDepth, kMaxListValues)) {
    throw std::runtime_error("the answer nests too deeply, or has too many values");
  }
  const json answer = json::parse(platform::replaceInvalidUtf8(body));
  const json* listed = answer.is_object() ? platform::jsonMember(answer, "workers") : nullptr;
  if (listed == nullptr || !listed->is_array()) {
    throw std::runtime_error("the answer lists no workers");
  }
  const std::string host = hostOf(base_url);
  WorkerList list;
  list.workers.reserve(listed->size());
  for (const json& entry : *listed) {
    try {
      std::string id;
      platform::readField(entry, "worker_id", id);
      if (id.empty()) continue;
      list.ids.insert(id);
      worker::WorkerInfo worker = worker::workerFromListing(entry, now);
      if (isLoopback(worker.ip_address) && !isLoopback(host)) worker.ip_address = host;
      list.workers.push_back(std::move(worker));
    } catch (const json::exception& error) {
      list.unreadable.emplace_back(error.what());
    }
  }
  return list;
}

std::size_t WorkerMirror::addFrom(const std::string& base_url) {
  const net::HttpResult result = fetchWorkers(transport_, base_url);
  if (const std::string failure = net::failureOf(result); !failure.empty()) {
    throw std::runtime_error("Failed to fetch workers: " + failure);
  }
  const platform::WallTime now = platform::wallNow();
  WorkerList list = readWorkerList(result.body, base_url, now);
  const auto here = workers_.snapshot();
  std::set<std::string> own_ids;
  std::set<std::string> own_names;
  {
    const MutexLock lock(mu_);
    for (const worker::WorkerPtr& worker : here) {
      const auto place = mirrored_.find(worker->worker_id);
      if (place != mirrored_.end() && worker->last_heartbeat == place->second) continue;
      own_ids.insert(worker->worker_id);
      if (!worker->worker_name.empty()) own_names.insert(worker->worker_name);
    }
  }
  std::map<std::string, platform::WallTime> mirrored;
  for (worker::WorkerInfo& worker : list.workers) {
    if (own_ids.contains(worker.worker_id) || own_names.contains(worker.worker_name)) continue;
    mirrored[worker.worker_id] = now;
    workers_.registerWorker(std::move(worker), false);
  }
  const std::size_t count = mirrored.size();
  const MutexLock lock(mu_);
  mirrored_ = std::move(mirrored);
  return count;
}

}  // namespace tavrel::cluster
