#include "dev_worker/registration.h"

#include <sys/utsname.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/console.h"
#include "platform/host.h"
#include "platform/text.h"

namespace tavrel::dev_worker {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

constexpr const char* kVersion = "4.1.0";

std::string dump(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string baseUrl(const std::string& host, int port) {
  const bool v6 = host.find(':') != std::string::npos;
  return "http://" + (v6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

}  // namespace

Identity identityOf(const Options& options, int port) {
  Identity identity;
  identity.id = options.id.empty() ? "dev-worker-" + std::to_string(port) : options.id;
  identity.name = options.name.empty() ? identity.id : options.name;
  identity.host = options.host;
  identity.port = port;
  identity.backend_type = options.upstream.empty() ? "custom" : "openai_compatible";
  identity.backend_url = options.upstream.empty() ? baseUrl(options.host, port) : options.upstream;
  identity.controller_url = options.controller;
  identity.labels = options.labels;
  return identity;
}

json registrationBody(const Identity& identity, const std::vector<std::string>& models) {
  utsname system{};
  ::uname(&system);
  return {{"worker_id", identity.id},
          {"worker_name", identity.name},
          {"hostname", platform::getHostname()},
          {"ip_address", identity.host},
          {"port", identity.port},
          {"os", system.sysname},
          {"os_version", system.release},
          {"arch", system.machine},
          {"version", kVersion},
          {"worker_type", "inference"},
          {"backend_type", identity.backend_type},
          {"backend_url", identity.backend_url},
          {"controller_url", identity.controller_url},
          {"labels", identity.labels},
          {"capabilities",
           {{"available_backends", {identity.backend_type}}, {"installed_models", models}}}};
}

json heartbeatBody(const Identity& identity, const std::vector<std::string>& models, json metrics,
                   const Stats& stats, std::int64_t loaded_at) {
  json body = registrationBody(identity, models);
  body["available_backends"] = json::array({identity.backend_type});
  body["installed_models"] = models;
  body["metrics"] = std::move(metrics);
  json running = json::array();
  for (const std::string& model : models) {
    // One engine serves all its models: memory and counters are those of the process.
    running.push_back({{"name", model},
                       {"backend", identity.backend_type},
                       {"model_id", model},
                       {"memory_usage", platform::residentMemoryBytes()},
                       {"gpu_index", -1},
                       {"loaded_at", loaded_at},
                       {"requests_served", stats.requests()},
                       {"tokens_generated", stats.tokens()},
                       {"avg_latency_ms", stats.averageLatencyMs()}});
  }
  body["running_models"] = std::move(running);
  return body;
}

Registration::Registration(Identity identity, std::string api_key, Models models, Shards shards,
                           const Stats& stats, net::HttpClient& client)
    : identity_(std::move(identity)),
      api_key_(std::move(api_key)),
      models_(std::move(models)),
      shards_(std::move(shards)),
      stats_(stats),
      client_(client),
      started_(platform::toEpochSeconds(platform::wallNow())) {}

void Registration::beat() {
  const std::vector<std::string> models = models_();
  if (!registered_) {
    registered_ = send("/api/v1/workers/register", registrationBody(identity_, models));
    if (!registered_) return;
    platform::printLine("[DevWorker] Registered as " + identity_.id + " with " +
                        identity_.controller_url);
  }
  json body = heartbeatBody(identity_, models, figures_.sample(), stats_, started_);
  if (json shards = shards_(); !shards.empty()) body["pipeline_shards"] = std::move(shards);
  // The id may hold anything; it must stay one segment of the path.
  send("/api/v1/workers/" + platform::percentEncode(identity_.id) + "/heartbeat", body);
}

bool Registration::send(const std::string& path, const json& body) {
  net::HttpCall call;
  call.method = "POST";
  call.url = identity_.controller_url + path;
  call.headers = {{"Content-Type", "application/json"}};
  if (!api_key_.empty()) call.headers.emplace_back("X-API-Key", api_key_);
  call.body = dump(body);
  const net::HttpResult result =
      client_.send(call, {.connect = milliseconds(2000), .total = milliseconds(10000)});
  report(result.ok(), result.transport_error.empty() ? "HTTP " + std::to_string(result.status)
                                                     : result.transport_error);
  return result.ok();
}

void Registration::report(bool reached, const std::string& problem) {
  if (reached == reached_) return;
  reached_ = reached;
  if (reached) {
    platform::printLine("[DevWorker] Controller reached: " + identity_.controller_url);
  } else {
    platform::printError("[DevWorker] Controller not reached: " + identity_.controller_url + " (" +
                         problem + "), trying again with every heartbeat");
  }
}

}  // namespace tavrel::dev_worker
