#include "pipeline/pipeline_coordinator.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "pipeline/gguf_parser.h"
#include "pipeline/saturating.h"
#include "pipeline/shard_planner.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/json_fields.h"
#include "platform/random.h"
#include "platform/side_by_side.h"
#include "platform/text.h"
#include "worker/worker_url.h"

namespace tavrel::pipeline {
namespace {

using nlohmann::json;
using platform::Outcome;
using platform::printLine;
using worker::WorkerPtr;

constexpr const char* kIdAlphabet = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::size_t kIdLength = 8;

Outcome unknownPipeline(const std::string& id) {
  return Outcome::refused(404, "Pipeline not found: " + id);
}

std::string nowText() {
  return platform::toUtcText(platform::wallNow());
}

std::uint64_t vramOf(const worker::WorkerInfo& worker, std::uint64_t worker::GPUInfo::*member) {
  std::uint64_t sum = 0;
  for (const worker::GPUInfo& gpu : worker.metrics.gpus) sum = saturatingAdd(sum, gpu.*member);
  return sum;
}

/// Where a worker's neighbours hand it activations, e.g. "tcp://10.0.0.7:50052". Worker and port
/// have been checked.
std::string tensorUrl(const worker::WorkerInfo& worker, const PipelineConfig& config) {
  const std::string http = worker::httpUrl(worker.ip_address, config.tensor_port);
  return config.transport + http.substr(http.find("://"));
}

/// The state of the whole from that of its shards.
void settle(PipelineConfig& config) {
  const auto is = [](ShardStatus status) {
    return [status](const ShardAssignment& shard) { return shard.status == status; };
  };
  const auto& shards = config.shards;
  if (std::any_of(shards.begin(), shards.end(), is(ShardStatus::kError))) {
    config.status = PipelineStatus::kDegraded;
  } else if (std::all_of(shards.begin(), shards.end(), is(ShardStatus::kReady))) {
    if (config.status != PipelineStatus::kReady) config.ready_at = nowText();
    config.status = PipelineStatus::kReady;
  } else {
    config.status = PipelineStatus::kLoading;
  }
  const auto failed = std::find_if(shards.begin(), shards.end(), is(ShardStatus::kError));
  config.error = failed == shards.end() ? "" : failed->worker_id + ": " + failed->error;
}

ShardLoadRequest loadRequest(const PipelineConfig& config, std::size_t index) {
  const ShardAssignment& shard = config.shards[index];
  ShardLoadRequest request;
  request.pipeline_id = config.pipeline_id;
  request.model_name = config.model_name;
  request.model_path = config.model_path;
  request.data_worker_url = config.data_worker_url;
  request.role = shard.role;
  request.layer_start = shard.layer_start;
  request.layer_end = shard.layer_end;
  request.include_embedding = shard.include_embedding;
  request.include_output = shard.include_output;
  request.total_layers = config.total_layers;
  request.hidden_size = config.hidden_size;
  if (index > 0) request.upstream_worker = config.shards[index - 1].worker_id;
  if (index + 1 < config.shards.size()) {
    request.downstream_worker = config.shards[index + 1].worker_id;
  }
  request.tensor_port = config.tensor_port;
  request.transport = config.transport;
  return request;
}

/// What a report in a heartbeat says of a shard.
std::optional<ShardStatus> reportedStatus(const json& report) {
  const json* status = platform::jsonMember(report, "status");
  if (status == nullptr || !status->is_string()) return std::nullopt;
  for (const ShardStatus known :
       {ShardStatus::kLoading, ShardStatus::kReady, ShardStatus::kError}) {
    if (*status == shardStatusToString(known)) return known;
  }
  return std::nullopt;
}

/// Whether the report is of the shard as it is now: one sent before a rebalancing may be of other
/// layers. A report without layers is of any.
bool isAbout(const json& report, const ShardAssignment& shard) {
  const auto is = [&report](const char* key, std::int32_t layer) {
    const json* told = platform::jsonMember(report, key);
    return told == nullptr || told->is_null() || *told == layer;
  };
  return is("layer_start", shard.layer_start) && is("layer_end", shard.layer_end);
}

}  // namespace

PipelineCoordinator::PipelineCoordinator(net::WorkerClient& client,
                                         const worker::WorkerRegistry& workers,
                                         DataWorkerUrl data_worker_url)
    : client_(client), workers_(workers), data_worker_url_(std::move(data_worker_url)) {}

Outcome PipelineCoordinator::deploy(const PipelineDeployRequest& request) {
  if (request.model_id.empty() && request.model_path.empty()) {
    return Outcome::refused(400, "model_id or model_path is required");
  }
  if (request.workers.empty()) return Outcome::refused(400, "workers array is required");
  auto workers = onlineWorkers(request.workers);
  if (auto* refusal = std::get_if<Outcome>(&workers)) return std::move(*refusal);
  auto made = entryFor(request);
  if (auto* refusal = std::get_if<Outcome>(&made)) return std::move(*refusal);
  Entry& entry = std::get<Entry>(made);
  auto shards = assign(entry, std::get<Workers>(workers));
  if (auto* refusal = std::get_if<Outcome>(&shards)) return std::move(*refusal);
  entry.config.shards = std::get<std::vector<ShardAssignment>>(std::move(shards));
  entry.config.status = PipelineStatus::kDeploying;
  entry.busy = true;
  {
    // Known before the first worker hears of it: its heartbeat may come before its answer.
    const platform::MutexLock lock(mu_);
    do entry.config.pipeline_id = "pip-" + platform::secureRandomText(kIdLength, kIdAlphabet);
    while (!pipelines_.emplace(entry.config.pipeline_id, entry).second);
  }
  load(entry.config);
  const PipelineConfig deployed = release(std::move(entry));
  std::string ids;
  for (const ShardAssignment& shard : deployed.shards) {
    ids += (ids.empty() ? "" : ",") + shard.worker_id;
  }
  printLine("[Pipeline] Deployed distributed model '" + deployed.model_name + "' (" +
            std::to_string(deployed.total_layers) + " layers) across " +
            std::to_string(deployed.shards.size()) + " workers [" + ids + "]");
  return Outcome::ok(deployed.toJson());
}

Outcome PipelineCoordinator::undeploy(const std::string& pipeline_id) {
  if (auto refusal = takeDown(pipeline_id)) return *refusal;
  return Outcome::ok({{"status", "undeployed"}, {"pipeline_id", pipeline_id}});
}

Outcome PipelineCoordinator::remove(const std::string& pipeline_id) {
  if (auto refusal = takeDown(pipeline_id)) return *refusal;
  return Outcome::ok({{"status", "deleted"}});
}

std::optional<Outcome> PipelineCoordinator::takeDown(const std::string& pipeline_id) {
  auto claimed = claim(pipeline_id);
  if (auto* refusal = std::get_if<Outcome>(&claimed)) return std::move(*refusal);
  const PipelineConfig& config = std::get<Entry>(claimed).config;
  {
    const platform::MutexLock lock(mu_);
    PipelineConfig& shown = pipelines_.at(pipeline_id).config;
    shown.status = PipelineStatus::kUndeploying;
    for (ShardAssignment& shard : shown.shards) shard.status = ShardStatus::kUnloading;
  }
  unload(config, [](const ShardAssignment& shard) {
    printLine("[Pipeline] Unloaded shard from " + shard.worker_id);
  });
  {
    const platform::MutexLock lock(mu_);
    pipelines_.erase(pipeline_id);
  }
  printLine("[Pipeline] Undeployed distributed model '" + config.model_name + "'");
  return std::nullopt;
}

Outcome PipelineCoordinator::rebalance(const std::string& pipeline_id) {
  auto claimed = claim(pipeline_id);
  if (auto* refusal = std::get_if<Outcome>(&claimed)) return std::move(*refusal);
  Entry entry = std::get<Entry>(std::move(claimed));
  Workers online;
  for (const std::string& id : entry.workers) {
    const WorkerPtr worker = workers_.find(id);
    if (worker != nullptr && worker->status == worker::WorkerStatus::kOnline &&
        !worker::baseUrlOf(*worker).empty()) {
      online.push_back(worker);
    }
  }
  if (online.empty()) {
    release(std::move(entry));
    return Outcome::refused(400, "No online workers available for rebalance");
  }
  auto shards = assign(entry, online);
  if (auto* refusal = std::get_if<Outcome>(&shards)) {
    release(std::move(entry));
    return std::move(*refusal);
  }
  unload(entry.config, [](const ShardAssignment& shard) {
    printLine("[Pipeline] Rebalance: unloaded shard from " + shard.worker_id);
  });
  entry.config.shards = std::get<std::vector<ShardAssignment>>(std::move(shards));
  entry.config.status = PipelineStatus::kLoading;
  {
    const platform::MutexLock lock(mu_);
    pipelines_.at(pipeline_id).config = entry.config;
  }
  load(entry.config);
  const PipelineConfig balanced = release(std::move(entry));
  printLine("[Pipeline] Rebalanced " + pipeline_id + " across " + std::to_string(online.size()) +
            " workers");
  return Outcome::ok({{"status", "rebalanced"},
                      {"shard_count", balanced.shards.size()},
                      {"workers_online", online.size()}});
}

std::optional<PipelineConfig> PipelineCoordinator::find(const std::string& pipeline_id) const {
  const platform::MutexLock lock(mu_);
  const auto found = pipelines_.find(pipeline_id);
  return found == pipelines_.end() ? std::nullopt : std::optional(found->second.config);
}

std::vector<PipelineConfig> PipelineCoordinator::all() const {
  std::vector<PipelineConfig> configs;
  const platform::MutexLock lock(mu_);
  for (const auto& [id, entry] : pipelines_) configs.push_back(entry.config);
  return configs;
}

void PipelineCoordinator::reportShards(const std::string& worker_id, const json& shards) {
  if (!shards.is_array()) return;
  for (const json& report : shards) {
    const auto status = report.is_object() ? reportedStatus(report) : std::nullopt;
    const json* id = status ? platform::jsonMember(report, "pipeline_id") : nullptr;
    if (id == nullptr || !id->is_string()) continue;
    const json* error = platform::jsonMember(report, "error");
    const platform::MutexLock lock(mu_);
    const auto found = pipelines_.find(id->get_ref<const std::string&>());
    if (found == pipelines_.end()) continue;
    Entry& entry = found->second;
    if (entry.config.status == PipelineStatus::kUndeploying) continue;
    for (ShardAssignment& shard : entry.config.shards) {
      if (shard.worker_id != worker_id || !isAbout(report, shard)) continue;
      shard.status = *status;
      shard.error = *status == ShardStatus::kError && error != nullptr && error->is_string()
                        ? error->get<std::string>()
                        : "";
    }
    if (!entry.busy) settle(entry.config);
  }
}

PipelineCoordinator::Or<PipelineCoordinator::Workers> PipelineCoordinator::onlineWorkers(
    const std::vector<std::string>& ids) const {
  Workers found;
  std::set<std::string> seen;
  for (const std::string& id : ids) {
    const WorkerPtr worker = workers_.find(id);
    if (worker == nullptr) return Outcome::refused(400, "Worker not found: " + id);
    if (worker->status != worker::WorkerStatus::kOnline) {
      return Outcome::refused(400, "Worker not online: " + id);
    }
    if (!seen.insert(id).second) return Outcome::refused(400, "Worker listed twice: " + id);
    if (worker::baseUrlOf(*worker).empty()) {
      return Outcome::refused(400, "Worker has no valid address: " + id);
    }
    found.push_back(worker);
  }
  return found;
}

PipelineCoordinator::Or<PipelineCoordinator::Entry> PipelineCoordinator::entryFor(
    const PipelineDeployRequest& request) {
  Entry entry;
  entry.workers = request.workers;
  if (request.strategy == ShardStrategy::kManual) entry.manual_layers = request.manual_layers;
  PipelineConfig& config = entry.config;
  config.model_id = request.model_id;
  config.model_path = request.model_path;  // unless the data worker knows better
  config.data_worker_url = request.data_worker_url;
  config.strategy = request.strategy;
  config.transport = request.transport;
  config.tensor_port = request.tensor_port;
  config.created_at = nowText();
  if (config.tensor_port < 1 || config.tensor_port > 65535) {
    return Outcome::refused(400, "tensor_port must be between 1 and 65535");
  }
  if (!config.data_worker_url.empty() &&
      !worker::ensureResolvableURL(config.data_worker_url, "", "")) {
    return Outcome::refused(400, "data_worker_url must be an http or https URL");
  }
  auto refusal = request.model_id.empty() ? readFromFile(request.model_path, entry)
                                          : readFromDataWorker(request.model_id, entry);
  if (refusal) return std::move(*refusal);
  if (entry.model.block_count <= 0) {
    return Outcome::refused(400, "Could not determine model layer count");
  }
  config.architecture = entry.model.architecture;
  config.total_layers = entry.model.block_count;
  config.hidden_size = entry.model.embedding_length;
  config.model_size_bytes = entry.model.model_size_bytes;
  config.quantization = entry.model.quantization;
  return entry;
}

std::optional<Outcome> PipelineCoordinator::readFromDataWorker(const std::string& model_id,
                                                               Entry& entry) {
  const Outcome failed = Outcome::refused(502, "Failed to fetch model metadata from data worker");
  PipelineConfig& config = entry.config;
  if (config.data_worker_url.empty()) config.data_worker_url = data_worker_url_();
  if (config.data_worker_url.empty()) return failed;
  const net::HttpResult answer = client_.get(
      net::CallKind::kPipelineMetadata,
      net::joinUrl(config.data_worker_url,
                   "/api/v1/models/" + platform::percentEncode(model_id) + "/metadata"));
  const json told = answer.ok() ? net::parsedJson(answer.body) : json();
  if (!told.is_object()) return failed;
  GGUFModelMetadata& model = entry.model;
  try {
    platform::readFieldUnlessNull(told, "total_layers", model.block_count);
    platform::readFieldUnlessNull(told, "hidden_size", model.embedding_length);
    platform::readFieldUnlessNull(told, "architecture", model.architecture);
    platform::readFieldUnlessNull(told, "quantization", model.quantization);
    platform::readFieldUnlessNull(told, "file_size_bytes", model.file_size_bytes);
    platform::readFieldUnlessNull(told, "embed_size", model.embed_size);
    platform::readFieldUnlessNull(told, "output_size", model.output_size);
    platform::readFieldUnlessNull(told, "gguf_path", config.model_path);
    platform::readFieldUnlessNull(told, "filename", config.model_name);
  } catch (const json::exception&) {
    return failed;
  }
  model.model_size_bytes = model.file_size_bytes;
  if (config.model_name.empty()) config.model_name = model_id;
  return std::nullopt;
}

std::optional<Outcome> PipelineCoordinator::readFromFile(const std::string& path, Entry& entry) {
  std::string reason;
  if (!GGUFParser::parseMetadata(path, entry.model, reason)) {
    const std::string error = "Failed to parse GGUF file: " + path;
    platform::printError("[Pipeline] " + error + " (" + reason + ")");
    return Outcome::refused(400, error);
  }
  entry.model.tensors = {};
  entry.model.layer_ranges = {};
  entry.config.model_name = entry.model.name.empty()
                                ? platform::replaceInvalidUtf8(entry.model.file_name)
                                : entry.model.name;
  return std::nullopt;
}

PipelineCoordinator::Or<std::vector<ShardAssignment>> PipelineCoordinator::assign(
    const Entry& entry, const Workers& workers) const {
  std::vector<WorkerVram> vram;
  for (const WorkerPtr& worker : workers) {
    vram.emplace_back(worker->worker_id, vramOf(*worker, &worker::GPUInfo::memory_total));
  }
  std::vector<ShardAssignment> shards;
  // Layers chosen for certain workers mean nothing for fewer of them.
  if (entry.manual_layers && workers.size() == entry.workers.size()) {
    auto planned = computeManualAssignments(entry.model, vram, *entry.manual_layers);
    if (auto* reason = std::get_if<std::string>(&planned)) return Outcome::refused(400, *reason);
    shards = std::get<std::vector<ShardAssignment>>(std::move(planned));
  } else {
    shards = computeShardAssignments(entry.model, vram, entry.config.strategy);
  }
  if (shards.size() != workers.size()) {
    return Outcome::refused(500, "Failed to compute shard assignments");
  }
  for (std::size_t i = 0; i < shards.size(); ++i) {
    ShardAssignment& shard = shards[i];
    shard.worker_name = workers[i]->worker_name;
    shard.worker_url = worker::baseUrlOf(*workers[i]);
    shard.worker_vram_free = vramOf(*workers[i], &worker::GPUInfo::memory_free);
    shard.tensor_port = entry.config.tensor_port;
    if (i > 0) shard.upstream_url = tensorUrl(*workers[i - 1], entry.config);
    if (i + 1 < shards.size()) shard.downstream_url = tensorUrl(*workers[i + 1], entry.config);
  }
  return shards;
}

void PipelineCoordinator::load(PipelineConfig& config) {
  std::vector<std::string> failures(config.shards.size());
  std::vector<std::function<void()>> calls;
  for (std::size_t i = 0; i < config.shards.size(); ++i) {
    calls.emplace_back([&, i] {
      json body = loadRequest(config, i).toJson();
      body["upstream_url"] = config.shards[i].upstream_url;
      body["downstream_url"] = config.shards[i].downstream_url;
      failures[i] = net::reportedFailure(client_.post(
          net::CallKind::kLoadShard, config.shards[i].worker_url + "/api/v1/pipeline/load", body));
    });
  }
  platform::runSideBySide(calls, kMaxCallsAtOnce);
  for (std::size_t i = 0; i < config.shards.size(); ++i) {
    ShardAssignment& shard = config.shards[i];
    if (failures[i].empty()) {
      shard.status = ShardStatus::kLoading;
      printLine("[Pipeline] Shard deployed to " + shard.worker_id + ": layers " +
                std::to_string(shard.layer_start) + "-" + std::to_string(shard.layer_end) + " (" +
                shardRoleToString(shard.role) + ")");
    } else {
      shard.status = ShardStatus::kError;
      shard.error = "Failed to push shard config to worker";
      printLine("[Pipeline] Failed to deploy shard to " + shard.worker_id);
      platform::printError("[Pipeline] " + shard.worker_id + ": " + failures[i]);
    }
  }
}

void PipelineCoordinator::unload(const PipelineConfig& config,
                                 const std::function<void(const ShardAssignment&)>& done) {
  std::vector<char> unloaded(config.shards.size());
  std::vector<std::function<void()>> calls;
  const json body = {{"pipeline_id", config.pipeline_id}};
  for (std::size_t i = 0; i < config.shards.size(); ++i) {
    calls.emplace_back([&, i] {
      // The worker may have come back at another address.
      const WorkerPtr worker = workers_.find(config.shards[i].worker_id);
      std::string url = worker == nullptr ? "" : worker::baseUrlOf(*worker);
      if (url.empty()) url = config.shards[i].worker_url;
      unloaded[i] = net::reportedFailure(client_.post(net::CallKind::kUnloadShard,
                                                      url + "/api/v1/pipeline/unload", body))
                        .empty();
    });
  }
  platform::runSideBySide(calls, kMaxCallsAtOnce);
  for (std::size_t i = 0; i < config.shards.size(); ++i) {
    if (unloaded[i]) done(config.shards[i]);
  }
}

PipelineCoordinator::Or<PipelineCoordinator::Entry> PipelineCoordinator::claim(
    const std::string& pipeline_id) {
  const platform::MutexLock lock(mu_);
  const auto found = pipelines_.find(pipeline_id);
  if (found == pipelines_.end()) return unknownPipeline(pipeline_id);
  if (found->second.busy) {
    return Outcome::refused(409, "Pipeline is being changed: " + pipeline_id);
  }
  found->second.busy = true;
  return found->second;
}

PipelineConfig PipelineCoordinator::release(Entry entry) {
  const platform::MutexLock lock(mu_);
  Entry& kept = pipelines_.at(entry.config.pipeline_id);
  for (ShardAssignment& shard : entry.config.shards) {
    for (const ShardAssignment& reported : kept.config.shards) {
      // A worker that answered and is ready already, or failed meanwhile, has said so.
      const bool later =
          reported.status == ShardStatus::kReady || reported.status == ShardStatus::kError;
      if (reported.worker_id != shard.worker_id || !later) continue;
      if (shard.status != ShardStatus::kLoading) continue;
      shard.status = reported.status;
      shard.error = reported.error;
    }
  }
  entry.busy = false;
  settle(entry.config);
  kept = std::move(entry);
  return kept.config;
}

}  // namespace tavrel::pipeline
