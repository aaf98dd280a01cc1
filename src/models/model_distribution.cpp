#include "models/model_distribution.h"

#include <utility>

#include "platform/console.h"
#include "platform/json_fields.h"
#include "platform/text.h"
#include "worker/worker_url.h"

namespace tavrel::models {
namespace {

using nlohmann::json;
using platform::Outcome;
using platform::printLine;

constexpr const char* kDefaultFormat = "gguf";
constexpr const char* kDefaultBackend = "ollama";
/// How much of a worker's refusal is shown, in characters.
constexpr std::size_t kMaxShownReply = 2000;

Outcome distributing(const DistributionRequest& request, json results) {
  const std::size_t count = results.size();
  return Outcome::ok({{"status", "distributing"},
                      {"model", request.model},
                      {"source", request.source},
                      {"results", std::move(results)},
                      {"workers_count", count}});
}

json installBody(const DistributionRequest& request, const std::string& url) {
  return {{"model", request.model},
          {"source", "url"},
          {"source_url", url},
          {"format", request.format.empty() ? kDefaultFormat : request.format},
          {"backend", request.backend}};
}

/// Where a daemon hands out a model's file.
std::string downloadUrl(const std::string& base_url, const std::string& model) {
  return net::joinUrl(base_url, "/api/v1/models/" + platform::percentEncode(model) + "/download");
}

std::string textOr(const json& object, const char* key, const std::string& fallback) {
  std::string text = platform::textMember(object, key);
  return text.empty() ? fallback : text;
}

/// Adds where the place of origin knows the model to lie on a shared file system.
void addSharedPath(json& install, const json& known) {
  const std::string nfs_path = platform::textMember(known, "nfs_path");
  if (!nfs_path.empty()) install["nfs_path"] = nfs_path;
}

json entryFor(const TargetWorker& target, const std::string& failure) {
  if (failure.empty()) return {{"worker_id", target.worker_id}, {"status", "completed"}};
  return {{"worker_id", target.worker_id}, {"status", "error"}, {"error", failure}};
}

}  // namespace

DistributionRequest DistributionRequest::fromJson(const json& body) {
  DistributionRequest request;
  platform::readField(body, "model", request.model);
  platform::readField(body, "source", request.source);
  platform::readField(body, "source_id", request.source_id);
  platform::readField(body, "source_url", request.source_url);
  platform::readField(body, "backend", request.backend);
  platform::readField(body, "format", request.format);
  platform::readField(body, "workers", request.workers);
  platform::readField(body, "all", request.all);
  return request;
}

Outcome ModelDistribution::distribute(const DistributionRequest& request) {
  if (request.model.empty()) return Outcome::refused(400, "model is required");
  const Targets targets = distributionTargets(workers_, request.all, request.workers);
  if (targets.empty()) return Outcome::refused(400, "No target workers specified or available");
  if (request.source == "ollama") return fromLibrary(request, targets);
  if (request.source == "registry") return fromRegistry(request, targets);
  if (request.source == "url") return fromUrl(request, targets);
  if (request.source == "worker") return fromWorker(request, targets);
  return Outcome::refused(400, "Unknown source: " + request.source);
}

Outcome ModelDistribution::fromLibrary(const DistributionRequest& request, const Targets& targets) {
  json results = json::array();
  for (const TargetWorker& target : targets) {
    const std::string failure =
        !target.error.empty() ? target.error
                              : net::reportedFailure(client_.post(
                                    net::CallKind::kPull, target.base_url + "/api/v1/models/pull",
                                    json{{"model", request.model}}));
    results.push_back(entryFor(target, failure));
  }
  return distributing(request, std::move(results));
}

Outcome ModelDistribution::fromRegistry(const DistributionRequest& request,
                                        const Targets& targets) {
  const std::string data_worker = registry_.servingWorkerUrl(platform::wallNow());
  const auto entry =
      data_worker.empty() ? std::nullopt : registry_.describe(data_worker, request.model);
  if (!entry)
    return Outcome::refused(400, "Model not found in registry or no data worker available");
  json install = installBody(request, downloadUrl(data_worker, request.model));
  addSharedPath(install, *entry);
  if (request.format.empty()) install["format"] = textOr(*entry, "format", kDefaultFormat);
  return distributing(request, installEverywhere(install, targets));
}

Outcome ModelDistribution::fromUrl(const DistributionRequest& request, const Targets& targets) {
  if (request.source_url.empty()) {
    return Outcome::refused(400, "source_url is required when source is 'url'");
  }
  if (!net::isHttpUrl(request.source_url)) {
    return Outcome::refused(400, "source_url must be an http or https URL");
  }
  return distributing(request,
                      installEverywhere(installBody(request, request.source_url), targets));
}

Outcome ModelDistribution::fromWorker(const DistributionRequest& request, const Targets& targets) {
  if (request.source_id.empty()) {
    return Outcome::refused(400, "source_id (worker_id) is required when source is 'worker'");
  }
  const worker::WorkerPtr source = workers_.find(request.source_id);
  if (source == nullptr) {
    return Outcome::refused(400, "Source worker '" + request.source_id + "' not found");
  }
  const std::string base_url = worker::baseUrlOf(*source);
  if (base_url.empty()) {
    return Outcome::refused(400, "Source worker '" + request.source_id + "' has no valid address");
  }
  const net::HttpResult shown =
      client_.post(net::CallKind::kDescribeModel, base_url + "/api/v1/models/show",
                   json{{"model", request.model}});
  if (!net::reportedFailure(shown).empty()) {
    return Outcome::refused(400, "Model '" + request.model + "' not found on source worker '" +
                                     request.source_id + "'");
  }
  const json known = net::parsedJson(shown.body);
  json install = installBody(request, downloadUrl(base_url, request.model));
  addSharedPath(install, known);
  install["format"] = textOr(known, "format", kDefaultFormat);  // it is that worker's file
  install["backend_hint"] = textOr(known, "backend", kDefaultBackend);

  json results = json::array();
  for (const TargetWorker& target : targets) {
    if (target.worker_id == request.source_id) {
      results.push_back(
          {{"worker_id", target.worker_id}, {"status", "skipped"}, {"message", "source worker"}});
      continue;
    }
    const Installed installed = this->install(target, install);
    json entry = entryFor(target, installed.failure);
    if (installed.failure.empty()) {
      entry["status"] = "success";
      json reply = net::parsedJson(installed.reply);
      entry["response"] = reply.is_discarded() ? json(platform::replaceInvalidUtf8(installed.reply))
                                               : std::move(reply);
    }
    results.push_back(std::move(entry));
  }
  return Outcome::ok({{"model", request.model},
                      {"source", "worker"},
                      {"source_worker", request.source_id},
                      {"results", std::move(results)}});
}

json ModelDistribution::installEverywhere(const json& body, const Targets& targets) {
  json results = json::array();
  for (const TargetWorker& target : targets) {
    results.push_back(entryFor(target, install(target, body).failure));
  }
  return results;
}

ModelDistribution::Installed ModelDistribution::install(const TargetWorker& target,
                                                        const json& body) {
  if (!target.error.empty()) return {target.error, {}};
  net::HttpResult answer =
      client_.post(net::CallKind::kInstall, target.base_url + "/api/v1/models/install", body);
  std::string failure = net::failureOf(answer);
  if (answer.transport_error.empty() && !failure.empty()) {
    failure +=
        ": " + platform::replaceInvalidUtf8(platform::firstCharacters(answer.body, kMaxShownReply));
  }
  printLine("[Models] Install of " + body.at("model").get<std::string>() +
            (failure.empty() ? " completed" : " failed") + " on worker " + target.worker_id +
            (failure.empty() ? "" : ": " + failure));
  return {std::move(failure), std::move(answer.body)};
}

}  // namespace tavrel::models
